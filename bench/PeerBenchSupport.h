// SPDX-License-Identifier: Apache-2.0
// What the peer benchmarks share: the peer's socket, sealed memory kept for every iteration, and a
// raw connection to the peer that asks one request at a time.
#pragma once

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "Mapping.h"
#include "Packet.h"
#include "PeerWire.h"
#include "SealedMemfd.h"

namespace vrocam {
namespace bench {

// The socket of the peer that serves the benchmarks.
extern std::string gSocket;

// A memfd sealed as the host ashmem seals regions, mapped read-write.
struct Region {
  explicit Region(size_t size)
      : fd(host::sealedMemfd("vrocam-bench", size)),
        size(size),
        mapping(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0), size) {
    if (!fd || !mapping) abort();
  }
  host::UniqueFd fd;
  size_t size;
  host::Mapping mapping;
};

// A raw connection to the peer, asking one request at a time.
class Asker {
 public:
  explicit Asker(const std::string& socket = gSocket) {
    if (peer::connectTo(socket, 2000, &mSock) != 0) abort();
  }
  // Sends request (with the next sequence number) and its descriptors.
  int post(peer::Request& request, const int* fds = nullptr, size_t fdCount = 0) {
    request.seq = ++mSeq;
    mKind = static_cast<uint16_t>(request.kind);
    const size_t size = peer::encodeRequest(mBuffer, sizeof(mBuffer), request);
    return peer::sendPacket(mSock.get(), mBuffer, size, fds, fdCount);
  }
  // The answer to the request posted last: its status, or the link's error.
  int await() {
    peer::Answer answer;
    int closing = 0;
    const int err = peer::awaitAnswer(mSock.get(), mBuffer, sizeof(mBuffer), mKind, mSeq,
                                      peer::after(60000), &answer, &closing);
    return err != 0 ? err : answer.status;
  }
  // 0, or the error of the exchange or the answer.
  int ask(peer::Request& request, const int* fds = nullptr, size_t fdCount = 0) {
    const int err = post(request, fds, fdCount);
    return err != 0 ? err : await();
  }
  int fd() const { return mSock.get(); }

 private:
  host::UniqueFd mSock;
  uint32_t mSeq = 0;
  uint16_t mKind = 0;
  uint8_t mBuffer[peer::kMaxMessage];
};

// Registers memory of size bytes behind fd as handle 1 over asker: 0, or the peer's refusal.
inline int registerMemory(Asker& asker, int fd, uint64_t size) {
  peer::Request request;
  request.kind = peer::Kind::Register;
  request.records = {peer::Record{1, 0, static_cast<int64_t>(size), "load"}};
  return asker.ask(request, &fd, 1);
}

}  // namespace bench
}  // namespace vrocam
