// SPDX-License-Identifier: Apache-2.0
// libFuzzer target: the peer's request decoding, the client's answer decoding and the peer's
// table, fed bytes from a hostile other process.
//
// Input: one byte whose value modulo kMaxFds + 2 is the number of descriptors that came with the
// message, then the message. A request that decodes must re-encode to a message that decodes to
// the same request; an answer that decodes must re-encode to the very bytes. A Register request
// that decodes goes on to a fresh ClientTable with real memfds (bit 31 of a record's type leaves
// its memfd unsealed, bit 30 sends an eventfd instead), and nothing of it may outlive the input.
//
// `peer_decode_fuzz --write-seeds=DIR` writes a few valid messages into DIR and exits.
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "ClientTable.h"
#include "PeerWire.h"
#include "UniqueFd.h"

namespace {

using vrowire::Kind;
using vrowire::Record;
using vrowire::Request;
using vrowire::UniqueFd;

#define FUZZ_CHECK(cond)                                                                  \
  do {                                                                                    \
    if (!(cond)) {                                                                        \
      (void)fprintf(stderr, "invariant failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
      __builtin_trap();                                                                   \
    }                                                                                     \
  } while (0)

// Small limits, so that inputs reach them with a few records.
const vropeer::Limits kLimits{8, 3u << 20};

// Encodes a request with the project's Writer: its size, or 0 when it does not fit.
size_t encode(const Request& request, std::vector<uint8_t>* out) {
  out->assign(vrowire::kMaxMessage, 0);
  vrowire::Writer w(out->data(), out->size());
  w.header(static_cast<uint16_t>(request.kind), request.seq);
  switch (request.kind) {
    case Kind::Register:
      w.u32(request.flags);
      w.u32(static_cast<uint32_t>(request.records.size()));
      for (const Record& record : request.records) {
        w.i32(record.handle);
        w.u32(record.type);
        w.i64(record.size);
        FUZZ_CHECK(w.name(record.name.data(), record.name.size()));
      }
      break;
    case Kind::Deregister:
      w.u32(static_cast<uint32_t>(request.handles.size()));
      for (const int32_t handle : request.handles) w.i32(handle);
      break;
    case Kind::Checksum:
      w.i32(request.handle);
      break;
    case Kind::Fill:
      w.i32(request.handle);
      w.u8(request.value);
      break;
    case Kind::Status:
      w.u32(request.offset);
      break;
    default:
      break;
  }
  out->resize(w.finish());
  return out->size();
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
         a.offset == b.offset;
}

bool checkRequest(const uint8_t* msg, size_t size, size_t fdCount, Request* request) {
  const int rc = vrowire::decodeRequest(msg, size, fdCount, request);
  FUZZ_CHECK(rc == 0 || rc == -EBADMSG || rc == -EPROTONOSUPPORT || rc == -EOPNOTSUPP ||
             rc == -EBADF);
  if (rc != 0) return false;
  FUZZ_CHECK(request->records.size() <= vrowire::kMaxRecords);
  FUZZ_CHECK(request->handles.size() <= vrowire::kMaxHandles);
  FUZZ_CHECK(request->kind == Kind::Register ? request->records.size() == fdCount : fdCount == 0);
  for (const Record& record : request->records) {
    FUZZ_CHECK(record.name.size() < vrowire::kNameSize);
    for (const char c : vrowire::escaped(record.name)) FUZZ_CHECK(c >= 0x20 && c < 0x7F);
  }
  std::vector<uint8_t> again;
  FUZZ_CHECK(encode(*request, &again) == size);
  Request decoded;
  FUZZ_CHECK(vrowire::decodeRequest(again.data(), again.size(), fdCount, &decoded) == 0);
  FUZZ_CHECK(same(*request, decoded));
  return true;
}

void checkAnswer(const uint8_t* msg, size_t size) {
  vrowire::Answer answer;
  const int rc = vrowire::decodeAnswer(msg, size, &answer);
  FUZZ_CHECK(rc == 0 || rc == -EPROTO);
  if (rc != 0) return;
  FUZZ_CHECK((answer.kind & vrowire::kAnswer) != 0 && answer.status <= 0);
  std::vector<uint8_t> again(size);
  FUZZ_CHECK(vrowire::encodeAnswer(again.data(), size, answer) == size);
  FUZZ_CHECK(std::equal(again.begin(), again.end(), msg));
}

// A descriptor for a record: a memfd as large as the record says (at most 1 MiB), sealed unless
// bit 31 of its type is set, or an eventfd when bit 30 is.
UniqueFd descriptorFor(const Record& record) {
  if ((record.type & (1u << 30)) != 0) return UniqueFd(eventfd(0, EFD_CLOEXEC));
  UniqueFd fd(memfd_create("vrocam-fuzz", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  const off_t size = record.size > 0 && record.size <= (1 << 20) ? record.size : 4096;
  FUZZ_CHECK(fd && ftruncate(fd.get(), size) == 0);
  if ((record.type & (1u << 31)) == 0) {
    FUZZ_CHECK(fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) == 0);
  }
  return fd;
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
    vropeer::ClientTable table(kLimits);
    const int rc = table.registerPart(request, fds);
    const bool staged = (request.flags & vrowire::kMore) != 0;
    FUZZ_CHECK(table.memories().size() == (rc == 0 && !staged ? request.records.size() : 0));
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

void writeSeeds(const std::string& dir) {
  Request ping;
  Request registration;
  registration.kind = Kind::Register;
  registration.records = {Record{1, 3, 4096, "seed"}, Record{2, 1u << 31, 100, "unsealed"}};
  Request most = registration;
  most.records.assign(vrowire::kMaxRecords, Record{3, 0, 64, "most"});
  Request deregistration;
  deregistration.kind = Kind::Deregister;
  deregistration.handles = {1, 2};
  int n = 0;
  for (const Request* request : {&ping, &registration, &most, &deregistration}) {
    std::vector<uint8_t> bytes;
    encode(*request, &bytes);
    std::ofstream out(dir + "/seed-" + std::to_string(n++), std::ios::binary);
    out.put(static_cast<char>(request->records.size()));
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
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t fdCount = data[0] % (vrowire::kMaxFds + 2);
  Request request;
  if (checkRequest(data + 1, size - 1, fdCount, &request) && request.kind == Kind::Register) {
    driveTable(request);
  }
  checkAnswer(data + 1, size - 1);
  return 0;
}
