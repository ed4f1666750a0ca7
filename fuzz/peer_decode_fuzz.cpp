// SPDX-License-Identifier: Apache-2.0
// libFuzzer target: what the peer and the client read from a hostile other process: the request
// decoding, the answer decoding, the per-client table on real memfds, and the whole serving path
// of a message with descriptors of every kind.
//
// Input: one byte whose value modulo kMaxFds + 2 is the number of descriptors that come with the
// message, one byte that picks their kinds, then the message (possibly empty). A request that
// decodes must re-encode to the same bytes' request; an answer that decodes must re-encode to the
// very bytes. A Register request goes on to a fresh ClientTable with real memfds (bit 31 of a
// record's type leaves its memfd unsealed, bit 30 sends an eventfd instead). Then the message goes,
// with its descriptors, to a fresh PeerServer over a socket pair: its answer must be well formed,
// and once the client is gone no descriptor or mapping may be left.
//
// `peer_decode_fuzz --write-seeds=DIR` writes a few valid messages into DIR and exits.
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "ClientTable.h"
#include "Escape.h"
#include "Packet.h"
#include "PeerServer.h"
#include "PeerWire.h"
#include "ProcessSnapshot.h"
#include "SealedMemfd.h"
#include "UniqueFd.h"

namespace {

using vrocam::host::UniqueFd;
using vrocam::peer::Kind;
using vrocam::peer::Record;
using vrocam::peer::Request;

#define FUZZ_CHECK(cond)                                                                  \
  do {                                                                                    \
    if (!(cond)) {                                                                        \
      (void)fprintf(stderr, "invariant failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
      __builtin_trap();                                                                   \
    }                                                                                     \
  } while (0)

// Small limits, so that inputs reach them with a few records.
const vrocam::peer::Limits kLimits{8, 3u << 20};

std::vector<uint8_t> encode(const Request& request) {
  std::vector<uint8_t> out(vrocam::peer::kMaxMessage);
  out.resize(vrocam::peer::encodeRequest(out.data(), out.size(), request));
  return out;
}

bool same(const Request& a, const Request& b) {
  bool records = a.records.size() == b.records.size();
  for (size_t i = 0; records && i < a.records.size(); ++i) {
    const Record& x = a.records[i];
    const Record& y = b.records[i];
    records = x.handle == y.handle && x.type == y.type && x.size == y.size && x.name == y.name;
  }
  return records && a.kind == b.kind && a.seq == b.seq && a.flags == b.flags &&
         a.handles == b.handles && a.handle == b.handle && a.value == b.value &&
         a.cursor.client == b.cursor.client && a.cursor.after == b.cursor.after &&
         a.batch == b.batch;
}

bool checkRequest(const uint8_t* msg, size_t size, size_t fdCount, Request* request) {
  const int rc = vrocam::peer::decodeRequest(msg, size, fdCount, request);
  FUZZ_CHECK(rc == 0 || rc == -EBADMSG || rc == -EPROTONOSUPPORT || rc == -EOPNOTSUPP ||
             rc == -EBADF);
  if (rc != 0) return false;
  FUZZ_CHECK(request->records.size() <= vrocam::peer::kMaxRecords);
  FUZZ_CHECK(request->handles.size() <= vrocam::peer::kMaxHandles);
  FUZZ_CHECK(request->kind == Kind::Register ? request->records.size() == fdCount : fdCount == 0);
  for (const Record& record : request->records) {
    FUZZ_CHECK(record.name.size() < vrocam::peer::kNameSize);
    for (const char c : vrocam::host::escaped(record.name)) {
      FUZZ_CHECK(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F);  // one line, whatever name
    }
  }
  const std::vector<uint8_t> again = encode(*request);
  FUZZ_CHECK(again.size() == size);
  Request decoded;
  FUZZ_CHECK(vrocam::peer::decodeRequest(again.data(), again.size(), fdCount, &decoded) == 0);
  FUZZ_CHECK(same(*request, decoded));
  return true;
}

void checkAnswer(const uint8_t* msg, size_t size) {
  vrocam::peer::Answer answer;
  const int rc = vrocam::peer::decodeAnswer(msg, size, &answer);
  FUZZ_CHECK(rc == 0 || rc == -EPROTO);
  if (rc != 0) return;
  FUZZ_CHECK((answer.kind & vrocam::peer::kAnswer) != 0 && answer.status <= 0 &&
             answer.status >= vrocam::peer::kLowestErrno);
  std::vector<uint8_t> again(size);
  FUZZ_CHECK(vrocam::peer::encodeAnswer(again.data(), size, answer) == size);
  FUZZ_CHECK(std::equal(again.begin(), again.end(), msg));
}

// A memfd of size bytes (at most 1 MiB), sealed against shrinking and growing unless told not.
UniqueFd memfd(int64_t size, bool sealed) {
  UniqueFd fd =
      vrocam::host::sealedMemfd("vrocam-fuzz", size > 0 && size <= (1 << 20) ? size : 4096,
                                sealed ? vrocam::host::kRegionSeals : 0);
  FUZZ_CHECK(fd);
  return fd;
}

// A descriptor for a record: its memfd, unless bit 31 (unsealed) or bit 30 (an eventfd) of its
// type say otherwise.
UniqueFd descriptorFor(const Record& record) {
  if ((record.type & (1u << 30)) != 0) return UniqueFd(eventfd(0, EFD_CLOEXEC));
  return memfd(record.size, (record.type & (1u << 31)) == 0);
}

// Descriptors of every kind a client could send.
UniqueFd descriptorOfKind(unsigned kind) {
  int pair[2] = {-1, -1};
  switch (kind % 8) {
    case 0:
      return memfd(4096, true);
    case 1:
      return memfd(4096, false);
    case 2: {
      UniqueFd fd = memfd(4096, true);
      FUZZ_CHECK(fcntl(fd.get(), F_ADD_SEALS, F_SEAL_WRITE) == 0);
      return fd;
    }
    case 3:
      return UniqueFd(eventfd(0, EFD_CLOEXEC));
    case 4:
      FUZZ_CHECK(pipe2(pair, O_CLOEXEC) == 0);
      close(pair[1]);
      return UniqueFd(pair[0]);
    case 5:
      FUZZ_CHECK(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) == 0);
      close(pair[1]);
      return UniqueFd(pair[0]);
    case 6:
      return UniqueFd(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    default:
      return UniqueFd(open("/dev/null", O_RDWR | O_CLOEXEC));
  }
}

// Drives a fresh table: a failure keeps nothing, a success keeps every record, and when the table
// is gone every descriptor sent is closed and no writable mapping of a memfd is left (the kernel
// refuses a write seal while one exists).
void driveTable(const Request& request) {
  std::vector<int> sent;
  std::vector<UniqueFd> kept;
  {
    std::vector<UniqueFd> fds;
    for (const Record& record : request.records) {
      fds.push_back(descriptorFor(record));
      sent.push_back(fds.back().get());
      kept.emplace_back(fcntl(fds.back().get(), F_DUPFD_CLOEXEC, 0));
    }
    vrocam::peer::ClientTable table(kLimits);
    const int rc = table.registerPart(request, fds, vrocam::peer::Room{SIZE_MAX, UINT64_MAX});
    const bool staged = (request.flags & vrocam::peer::kMore) != 0;
    FUZZ_CHECK(table.memories().size() == (rc == 0 && !staged ? request.records.size() : 0));
    FUZZ_CHECK(table.staged() == (rc == 0 && staged ? request.records.size() : 0));
    for (const auto& entry : table.memories()) {
      FUZZ_CHECK(entry.second.size <= kLimits.maxBytes && entry.second.mapping.data() != nullptr);
    }
  }
  for (size_t i = 0; i < sent.size(); ++i) {
    FUZZ_CHECK(fcntl(sent[i], F_GETFD) == -1 && errno == EBADF);
    if ((request.records[i].type & (3u << 30)) == 0) {
      FUZZ_CHECK(fcntl(kept[i].get(), F_ADD_SEALS, F_SEAL_WRITE) == 0);
    }
  }
}

// Sends a message with fds to a fresh server and serves it until it answered (or ended the
// connection): the answer must be well formed, and nothing may be left once the client is gone.
void driveServer(const uint8_t* msg, size_t size, std::vector<UniqueFd> fds,
                 const Request* request) {
  using vrocam::host::ProcessSnapshot;
  const size_t descriptors = ProcessSnapshot::of().descriptors.size() - fds.size();
  const size_t mappings = ProcessSnapshot::of().memfdMappings().size();
  {
    int pair[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) == 0);
    UniqueFd client(pair[0]);
    vrocam::peer::PeerServer server(vrocam::peer::ServerLimits{kLimits, 2, 16});
    server.adopt(UniqueFd(pair[1]), getpid(), getuid());
    // A long command needs a memory to work on: register one under its handle first.
    if (request != nullptr && (request->kind == Kind::Checksum || request->kind == Kind::Fill)) {
      Request registration;
      registration.kind = Kind::Register;
      registration.records = {Record{request->handle, 0, 3 << 20, "long"}};
      const std::vector<uint8_t> bytes = encode(registration);
      const UniqueFd memory = memfd(3 << 20, true);
      const int fd = memory.get();
      FUZZ_CHECK(vrocam::peer::sendPacket(client.get(), bytes.data(), bytes.size(), &fd, 1) == 0);
    }
    std::vector<int> raw;
    for (const UniqueFd& fd : fds) raw.push_back(fd.get());
    const int sent = vrocam::peer::sendPacket(client.get(), msg, size, raw.data(), raw.size());
    fds.clear();  // in flight now, or refused
    if (sent == 0) {
      uint8_t buffer[vrocam::peer::kMaxMessage];
      vrocam::peer::Received received;
      ssize_t got = -ETIMEDOUT;
      for (int round = 0; round < 64 && got == -ETIMEDOUT; ++round) {
        FUZZ_CHECK(server.round(-1, 0) >= 0);
        got = vrocam::peer::recvPacket(client.get(), buffer, sizeof(buffer), &received,
                                       vrocam::peer::Deadline::min());
        // The registration before a long command is answered first: take the next answer.
        if (got > 0 && request != nullptr && request->kind != Kind::Register &&
            buffer[2] == static_cast<uint8_t>(Kind::Register)) {
          got = -ETIMEDOUT;
        }
      }
      vrocam::peer::Answer answer;
      FUZZ_CHECK(got > 0 && received.fds.empty());
      FUZZ_CHECK(vrocam::peer::decodeAnswer(buffer, static_cast<size_t>(got), &answer) == 0);
      if (request != nullptr) FUZZ_CHECK(answer.seq == request->seq);
    }
    FUZZ_CHECK(server.held() <= 16);
  }
  const ProcessSnapshot after = ProcessSnapshot::of();
  FUZZ_CHECK(after.descriptors.size() == descriptors);
  FUZZ_CHECK(after.memfdMappings().size() == mappings);
}

void writeSeeds(const std::string& dir) {
  Request ping;
  Request registration;
  registration.kind = Kind::Register;
  registration.records = {Record{1, 3, 4096, "seed"}, Record{2, 1u << 31, 100, "unsealed"}};
  Request most = registration;
  most.records.assign(vrocam::peer::kMaxRecords, Record{3, 0, 64, "most"});
  Request deregistration;
  deregistration.kind = Kind::Deregister;
  deregistration.handles = {1, 2};
  Request checksum;
  checksum.kind = Kind::Checksum;
  checksum.handle = 9;
  Request status;
  status.kind = Kind::Status;
  int n = 0;
  for (const Request* request :
       {&ping, &registration, &most, &deregistration, &checksum, &status}) {
    const std::vector<uint8_t> bytes = encode(*request);
    std::ofstream out(dir + "/seed-" + std::to_string(n++), std::ios::binary);
    out.put(static_cast<char>(request->records.size()));
    out.put(0);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  const std::string flag = "--write-seeds=";
  for (int i = 1; i < *argc; ++i) {
    const std::string arg = (*argv)[i];
    if (arg.compare(0, flag.size(), flag) == 0) {
      writeSeeds(arg.substr(flag.size()));
      exit(0);
    }
  }
  vrocam::peer::setPeerLogFile(open("/dev/null", O_WRONLY | O_CLOEXEC));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const size_t fdCount = data[0] % (vrocam::peer::kMaxFds + 2);
  const uint8_t kinds = data[1];
  const uint8_t* msg = data + 2;
  const size_t length = size - 2;
  Request request;
  const bool decoded = checkRequest(msg, length, fdCount, &request);
  if (decoded && request.kind == Kind::Register) driveTable(request);
  checkAnswer(msg, length);
  std::vector<UniqueFd> fds;
  for (size_t i = 0; i < fdCount && i < vrocam::peer::kMaxFds; ++i) {
    fds.push_back(decoded && i < request.records.size() && kinds % 2 == 0
                      ? descriptorFor(request.records[i])
                      : descriptorOfKind(kinds + static_cast<unsigned>(i)));
  }
  if (fdCount <= vrocam::peer::kMaxFds)
    driveServer(msg, length, std::move(fds), decoded ? &request : nullptr);
  return 0;
}
