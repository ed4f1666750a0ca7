// SPDX-License-Identifier: Apache-2.0
// The peer's status, page by page, as text or JSON.
#include "PeerStatus.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <sstream>

#include "ErrnoText.h"
#include "Packet.h"
#include "PeerWire.h"

namespace vrocam {
namespace tools {
namespace {

// Fetches the whole status text into *text: 0, or a negative errno.
int fetch(const std::string& socket, std::string* text) {
  host::UniqueFd sock;
  int err = peer::connectTo(socket, 2000, &sock);
  peer::Request request;
  request.kind = peer::Kind::Status;
  uint8_t buffer[peer::kMaxMessage];
  while (err == 0) {
    ++request.seq;
    peer::Answer answer;
    int closing = 0;
    const size_t size = peer::encodeRequest(buffer, sizeof(buffer), request);
    err = peer::roundTrip(sock.get(), buffer, sizeof(buffer), size, 2000, &answer, &closing);
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

// text as a JSON string (the peer's text escapes every control byte already).
std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) out += c == '"' ? "\\\"" : c == '\\' ? "\\\\" : std::string(1, c);
  return out + "\"";
}

// The status text as JSON: {"peer": {...}, "clients": [{..., "memories": [...]}], "total": {...}}.
std::string toJson(const std::string& text) {
  std::istringstream lines(text);
  std::string out, memories;
  bool firstClient = true;
  const auto closeClient = [&] {
    if (!firstClient) out += memories + "]}";
  };
  for (std::string line; std::getline(lines, line);) {
    int pid = 0, uid = 0, handle = 0;
    unsigned a = 0, b = 0, type = 0;
    unsigned long long c = 0, d = 0, e = 0, size = 0;
    char flag[16] = "";
    int used = 0;
    if (sscanf(line.c_str(), "peer pid %d: %u of at most %u clients; %llu of at most %llu", &pid,
               &a, &b, &c, &d) == 5) {
      out += "{\"peer\": {\"pid\": " + std::to_string(pid) + ", \"clients\": " + std::to_string(a) +
             ", \"maxClients\": " + std::to_string(b) + ", \"memories\": " + std::to_string(c) +
             ", \"maxMemories\": " + std::to_string(d) + "}, \"clients\": [";
    } else if (sscanf(line.c_str(), "client pid %d uid %d: %llu memories, %llu bytes%n", &pid, &uid,
                      &c, &d, &used) == 4) {
      closeClient();
      out += std::string(firstClient ? "" : ", ") + "{\"pid\": " + std::to_string(pid) +
             ", \"uid\": " + std::to_string(uid) + ", \"memories\": " + std::to_string(c) +
             ", \"bytes\": " + std::to_string(d);
      c = d = 0;
      sscanf(line.c_str() + used, "; staged %llu memories, %llu bytes", &c, &d);
      out += ", \"staged\": " + std::to_string(c) + ", \"stagedBytes\": " + std::to_string(d);
      memories = ", \"list\": [";
      firstClient = false;
    } else if (sscanf(line.c_str(), "  handle %d type %u size %llu%n", &handle, &type, &size,
                      &used) == 3) {
      const bool readOnly =
          sscanf(line.c_str() + used, " %15s", flag) == 1 && std::string(flag) == "read-only";
      const size_t name = line.find(" name ", static_cast<size_t>(used));
      memories += std::string(memories.back() == '[' ? "" : ", ") +
                  "{\"handle\": " + std::to_string(handle) + ", \"type\": " + std::to_string(type) +
                  ", \"size\": " + std::to_string(size) +
                  ", \"readOnly\": " + (readOnly ? "true" : "false") +
                  ", \"name\": " + quoted(name == std::string::npos ? "" : line.substr(name + 6)) +
                  "}";
    } else if (sscanf(line.c_str(), "total: %llu clients, %llu memories, %llu bytes", &c, &d, &e) ==
               3) {
      closeClient();
      out += "], \"total\": {\"clients\": " + std::to_string(c) +
             ", \"memories\": " + std::to_string(d) + ", \"bytes\": " + std::to_string(e) + "}}\n";
    }
  }
  return out;
}

}  // namespace

int printPeerStatus(const std::string& socket, bool json) {
  std::string text;
  const int err = fetch(socket, &text);
  if (err == -EFBIG) {
    fprintf(stderr, "vrocam_ipc_peer: the status from %s is longer than %zu MiB: refused\n",
            socket.c_str(), kMaxStatusText >> 20);
    return 1;
  }
  if (err != 0) {
    fprintf(stderr, "vrocam_ipc_peer: no status from %s: %s\n", socket.c_str(),
            host::errnoText(err).c_str());
    return 1;
  }
  fputs(json ? toJson(text).c_str() : text.c_str(), stdout);
  return 0;
}

}  // namespace tools
}  // namespace vrocam
