// SPDX-License-Identifier: Apache-2.0
// vrocam_ipc_peer: the peer daemon on the other side of the IPC link, or (--status) a report of
// what a running peer holds.
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>

#include <cerrno>
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
          "                       [--max-clients N]\n"
          "       vrocam_ipc_peer --status --socket PATH\n"
          "Serves the IPC link on the AF_UNIX socket PATH until SIGTERM or SIGINT. Limits per\n"
          "client: --max-memories (default 4096), --max-bytes (default 4G); --max-clients\n"
          "(default 64). --status prints what a running peer holds, per client.\n");
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
    } else {
      return false;
    }
  }
  return !options->socket.empty();
}

// Prints a running peer's status text, page by page.
int status(const std::string& path) {
  vrowire::UniqueFd sock;
  int err = vrowire::connectTo(path, 2000, &sock);
  std::string text;
  uint8_t buffer[vrowire::kMaxMessage];
  for (uint32_t seq = 1; err == 0; ++seq) {
    vrowire::Writer out(buffer, sizeof(buffer));
    out.header(static_cast<uint16_t>(vrowire::Kind::Status), seq);
    out.u32(static_cast<uint32_t>(text.size()));
    vrowire::Answer answer;
    err = vrowire::roundTrip(sock.get(), buffer, sizeof(buffer), out.finish(), &answer);
    if (err == 0) err = answer.status;
    if (err != 0) break;
    text += answer.text;
    if (answer.text.empty() || text.size() >= answer.word) break;
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
