// SPDX-License-Identifier: Apache-2.0
// The peer's status, as text or JSON.
#include "PeerStatus.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "ErrnoText.h"
#include "Escape.h"
#include "StatusText.h"

namespace vrocam {
namespace tools {
namespace {

using std::to_string;

std::string field(const char* name, uint64_t value) {
  return std::string("\"") + name + "\": " + to_string(value);
}

// The status as JSON: {"peer": {...}, "clients": [{..., "list": [...]}], "total": {...}}.
std::string toJson(const peer::PeerStatus& status) {
  std::string out =
      "{\"peer\": {" + field("pid", static_cast<uint64_t>(status.pid)) + ", " +
      field("clients", status.clients) + ", " + field("maxClients", status.maxClients) + ", " +
      field("memories", status.memories) + ", " + field("maxMemories", status.maxMemories) + ", " +
      field("freeing", status.freeing) + ", " + field("addressSpace", status.addressSpace) + ", " +
      field("maxAddressSpace", status.maxAddressSpace) + ", " +
      field("maxMemoriesPerClient", status.maxMemoriesPerClient) + ", " +
      field("maxBytesPerClient", status.maxBytesPerClient) + ", " +
      field("idleTimeoutMs", static_cast<uint64_t>(status.idleTimeoutMs)) + ", " +
      field("batchTimeoutMs", static_cast<uint64_t>(status.batchTimeoutMs)) + "}, \"clients\": [";
  for (const peer::ClientStatus& client : status.clientList) {
    out += std::string(&client == &status.clientList[0] ? "" : ", ") + "{" +
           field("pid", static_cast<uint64_t>(client.pid)) + ", " + field("uid", client.uid) +
           ", " + field("memories", client.memories) + ", " + field("bytes", client.bytes) + ", " +
           field("staged", client.staged) + ", " + field("stagedBytes", client.stagedBytes) +
           ", \"list\": [";
    for (const peer::MemoryStatus& m : client.list) {
      out += std::string(&m == &client.list[0] ? "" : ", ") +
             "{\"handle\": " + to_string(m.handle) + ", " + field("type", m.type) + ", " +
             field("size", m.size) + ", \"readOnly\": " + (m.readOnly ? "true" : "false") +
             ", \"name\": " + host::jsonQuoted(m.name) + "}";
    }
    out += "]}";
  }
  out += "], \"faults\": ";
  if (!status.faults) {
    out += "null";
  } else {
    out += "{" + field("seed", status.faultSeed) + ", \"rules\": [";
    for (const peer::FaultStatus& fault : status.faultList) {
      out += std::string(&fault == &status.faultList[0] ? "" : ", ") + "{" +
             field("rule", fault.rule) + ", \"text\": " + host::jsonQuoted(fault.text) + ", " +
             field("matched", fault.matched) + ", " + field("fired", fault.fired) + "}";
    }
    out += "]}";
  }
  return out + ", \"total\": {" + field("clients", status.totalClients) + ", " +
         field("memories", status.totalMemories) + ", " + field("bytes", status.totalBytes) +
         "}}\n";
}

}  // namespace

int printPeerStatus(const std::string& socket, bool json) {
  std::string text;
  uid_t uid = 0;
  const int err = peer::fetchStatus(socket, &text, &uid);
  std::string why;
  if (err == -EFBIG) {
    why = "the status from " + socket + " is longer than " + to_string(peer::kMaxStatusText >> 20) +
          " MiB: refused";
  } else if (err == -EACCES && uid != 0) {
    why = "refused the peer at " + socket + ": it runs as uid " + to_string(uid) +
          ", neither ours (" + to_string(geteuid()) + ") nor root";
  } else if (err != 0) {
    why = "no status from " + socket + ": " + host::errnoText(err);
  }
  if (!why.empty()) {
    if (json) {
      printf("{\"error\": {\"errno\": %d, \"name\": %s, \"message\": %s}}\n", err,
             host::jsonQuoted(host::errnoName(err)).c_str(), host::jsonQuoted(why).c_str());
    } else {
      fprintf(stderr, "vrocam_ipc_peer: %s\n", host::printable(why).c_str());
    }
    return 1;
  }
  fputs(json ? toJson(peer::parseStatus(text)).c_str() : host::printable(text).c_str(), stdout);
  return 0;
}

}  // namespace tools
}  // namespace vrocam
