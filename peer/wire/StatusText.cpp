// SPDX-License-Identifier: Apache-2.0
// The peer's status: fetched and read.
#include "StatusText.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "Packet.h"
#include "PeerWire.h"

namespace vrocam {
namespace peer {
namespace {

// A name as the status shows it (\n, \r, \t and \xHH escapes), escapes undone.
std::string unescaped(const std::string& shown) {
  std::string out;
  for (size_t i = 0; i < shown.size(); ++i) {
    if (shown[i] != '\\' || i + 1 == shown.size()) {
      out += shown[i];
      continue;
    }
    const char kind = shown[++i];
    if (kind == 'x' && i + 2 < shown.size()) {
      out += static_cast<char>(strtoul(shown.substr(i + 1, 2).c_str(), nullptr, 16));
      i += 2;
    } else {
      out += kind == 'n' ? '\n' : kind == 'r' ? '\r' : kind == 't' ? '\t' : kind;
    }
  }
  return out;
}

}  // namespace

int fetchStatus(const std::string& socket, std::string* text, uid_t* serverUid) {
  UniqueFd sock;
  int err = connectTo(socket, 2000, &sock);
  ucred cred{};
  socklen_t length = sizeof(cred);
  if (err == 0 && getsockopt(sock.get(), SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0) {
    err = -errno;
  }
  if (err == 0 && cred.uid != geteuid() && cred.uid != 0) {
    if (serverUid != nullptr) *serverUid = cred.uid;
    return -EACCES;
  }
  uint32_t seq = 0;
  return err != 0 ? err : fetchStatus(sock.get(), &seq, text);
}

int fetchStatus(int sock, uint32_t* seq, std::string* text) {
  Request request;
  request.kind = Kind::Status;
  std::vector<uint8_t> buffer(kMaxMessage);
  int err = 0;
  while (err == 0) {
    request.seq = ++*seq;
    Answer answer;
    int closing = 0;
    const size_t size = encodeRequest(buffer.data(), buffer.size(), request);
    err = roundTrip(sock, buffer.data(), buffer.size(), size, 2000, &answer, &closing);
    if (closing != 0) err = closing;
    if (err == 0) err = answer.status;
    if (err == 0 && answer.more && answer.text.empty()) err = -EPROTO;  // no progress
    if (err != 0) break;
    *text += answer.text;
    if (text->size() > kMaxStatusText) return -EFBIG;
    if (!answer.more) break;
    request.cursor = answer.next;
  }
  return err;
}

PeerStatus parseStatus(const std::string& text) {
  PeerStatus status;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const char* at = line.c_str();
    int pid = 0, uid = 0, used = 0;
    unsigned long long a = 0, b = 0, c = 0;
    long long idle = 0, batch = 0;
    MemoryStatus memory;
    if (sscanf(at,
               "peer pid %d: %" SCNu64 " of at most %" SCNu64 " clients; %" SCNu64
               " of at most %" SCNu64 " memories in all (%" SCNu64 " being freed); %" SCNu64
               " of at most %" SCNu64 " bytes",
               &pid, &status.clients, &status.maxClients, &status.memories, &status.maxMemories,
               &status.freeing, &status.addressSpace, &status.maxAddressSpace) == 8) {
      status.pid = pid;
    } else if (sscanf(at,
                      "per client: at most %llu memories and %llu bytes; idle timeout %lld ms; "
                      "batch timeout %lld ms",
                      &a, &b, &idle, &batch) == 4) {
      status.maxMemoriesPerClient = a;
      status.maxBytesPerClient = b;
      status.idleTimeoutMs = idle;
      status.batchTimeoutMs = batch;
    } else if (sscanf(at, "client pid %d uid %d: %llu memories, %llu bytes%n", &pid, &uid, &a, &b,
                      &used) == 4) {
      ClientStatus client;
      client.pid = pid;
      client.uid = static_cast<uid_t>(uid);
      client.memories = a;
      client.bytes = b;
      sscanf(at + used, "; staged %" SCNu64 " memories, %" SCNu64 " bytes", &client.staged,
             &client.stagedBytes);
      status.clientList.push_back(client);
    } else if (!status.clientList.empty() &&
               sscanf(at, "  handle %d type %u size %" SCNu64 "%n", &memory.handle, &memory.type,
                      &memory.size, &used) == 3) {
      const std::string rest = line.substr(static_cast<size_t>(used));
      memory.readOnly = rest.rfind(" read-only", 0) == 0;
      const size_t name = rest.find(" name ");
      if (name != std::string::npos) memory.name = unescaped(rest.substr(name + 6));
      status.clientList.back().list.push_back(memory);
    } else if (sscanf(at, "faults: seed %" SCNu64, &status.faultSeed) == 1) {
      status.faults = true;
    } else if (sscanf(at, "fault %llu %n", &a, &used) == 1 &&
               line.rfind(": matched ") != std::string::npos) {
      const size_t counts = line.rfind(": matched ");
      FaultStatus fault;
      fault.rule = a;
      fault.text = unescaped(line.substr(static_cast<size_t>(used), counts - used));
      sscanf(at + counts, ": matched %" SCNu64 ", fired %" SCNu64, &fault.matched, &fault.fired);
      status.faultList.push_back(fault);
    } else if (sscanf(at, "total: %llu clients, %llu memories, %llu bytes", &a, &b, &c) == 3) {
      status.totalClients = a;
      status.totalMemories = b;
      status.totalBytes = c;
    }
  }
  return status;
}

}  // namespace peer
}  // namespace vrocam
