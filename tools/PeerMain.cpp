// SPDX-License-Identifier: Apache-2.0
// vrocam_ipc_peer: the peer daemon on the other side of the IPC link, or (--status) a report of
// what a running peer holds.
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Packet.h"
#include "PeerServer.h"
#include "PeerWire.h"

namespace {

struct Options {
  std::string socket;
  bool status = false;
  vropeer::ServerLimits limits;
};

void usage(FILE* out) {
  fprintf(out,
          "usage: vrocam_ipc_peer --socket PATH [--max-memories N] [--max-bytes N[K|M|G]]\n"
          "                       [--max-clients N] [--max-total-memories N]\n"
          "                       [--idle-timeout MS] [--batch-timeout MS]\n"
          "       vrocam_ipc_peer --status --socket PATH\n"
          "Serves the IPC link on the AF_UNIX socket PATH until SIGTERM, SIGINT or SIGHUP. Limits\n"
          "per client: --max-memories (default 4096), --max-bytes (default 4G); --max-clients\n"
          "(default 64); --max-total-memories of all clients (default: what the descriptor and\n"
          "mapping limits allow). An idle client holding nothing gives up its slot to a new one\n"
          "after --idle-timeout (default 30000 ms); an unfinished batch or an untaken answer is\n"
          "dropped after --batch-timeout (default 10000 ms). --status prints what a running peer\n"
          "holds, per client.\n");
}

// A whole number from 1 to max, with an optional K, M or G suffix where allowed.
bool number(const char* text, unsigned long long max, bool suffix, unsigned long long* out) {
  char* end = nullptr;
  errno = 0;
  unsigned long long value = strtoull(text, &end, 10);
  if (errno != 0 || end == text || text[0] == '-') return false;
  const char units[] = "KMG";
  const char* unit = suffix && *end != '\0' ? strchr(units, *end) : nullptr;
  if (unit != nullptr) {
    const int shift = 10 * static_cast<int>(unit - units + 1);
    if (value > (max >> shift)) return false;
    value <<= shift;
    ++end;
  }
  if (*end != '\0' || value == 0 || value > max) return false;
  *out = value;
  return true;
}

bool parse(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--status") {
      options->status = true;
      continue;
    }
    if (i + 1 >= argc) return false;
    const char* value = argv[++i];
    unsigned long long n = 0;
    if (arg == "--socket") {
      options->socket = value;
    } else if (arg == "--max-memories" && number(value, 1u << 20, false, &n)) {
      options->limits.perClient.maxMemories = static_cast<uint32_t>(n);
    } else if (arg == "--max-bytes" && number(value, 1ull << 50, true, &n)) {
      options->limits.perClient.maxBytes = n;
    } else if (arg == "--max-clients" && number(value, 1024, false, &n)) {
      options->limits.maxClients = static_cast<uint32_t>(n);
    } else if (arg == "--max-total-memories" && number(value, 1u << 24, false, &n)) {
      options->limits.maxMemories = static_cast<uint32_t>(n);
    } else if (arg == "--idle-timeout" && number(value, 1u << 30, false, &n)) {
      options->limits.idleTimeout = std::chrono::milliseconds(n);
    } else if (arg == "--batch-timeout" && number(value, 1u << 30, false, &n)) {
      options->limits.batchTimeout = std::chrono::milliseconds(n);
    } else {
      return false;
    }
  }
  return !options->socket.empty();
}

// The longest status text taken from a peer.
constexpr size_t kMaxStatusText = 64 << 20;

// Prints a running peer's status text, page by page.
int status(const std::string& path) {
  vrowire::UniqueFd sock;
  int err = vrowire::connectTo(path, 2000, &sock);
  std::string text;
  vrowire::Request request;
  request.kind = vrowire::Kind::Status;
  uint8_t buffer[vrowire::kMaxMessage];
  while (err == 0) {
    ++request.seq;
    vrowire::Answer answer;
    int closing = 0;
    const size_t size = vrowire::encodeRequest(buffer, sizeof(buffer), request);
    err = vrowire::roundTrip(sock.get(), buffer, sizeof(buffer), size, 2000, &answer, &closing);
    if (closing != 0) err = closing;
    if (err == 0) err = answer.status;
    if (err == 0 && answer.more && answer.text.empty()) err = -EPROTO;  // no progress
    if (err != 0) break;
    text += answer.text;
    if (text.size() > kMaxStatusText) {
      fprintf(stderr, "vrocam_ipc_peer: the status from %s is longer than %zu MiB: refused\n",
              path.c_str(), kMaxStatusText >> 20);
      return 1;
    }
    if (!answer.more) break;
    request.cursor = answer.next;
  }
  if (err != 0) {
    fprintf(stderr, "vrocam_ipc_peer: no status from %s: %s\n", path.c_str(), strerror(-err));
    return 1;
  }
  fputs(text.c_str(), stdout);
  return 0;
}

int serve(const Options& options) {
  signal(SIGPIPE, SIG_IGN);
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGHUP);
  sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
  vrowire::UniqueFd stop(signalfd(-1, &stopSignals, SFD_CLOEXEC));
  // Each memory a client holds costs a descriptor: allow as many as the hard limit does.
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }

  vropeer::PeerServer server(options.limits);
  int err = stop ? server.listen(options.socket) : -errno;
  if (err == 0) err = server.run(stop.get());
  if (err != 0) {
    fprintf(stderr, "vrocam_ipc_peer: cannot serve %s: %s\n", options.socket.c_str(),
            strerror(-err));
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      usage(stdout);
      return 0;
    }
  }
  if (!parse(argc, argv, &options)) {
    usage(stderr);
    return 2;
  }
  return options.status ? status(options.socket) : serve(options);
}
