// SPDX-License-Identifier: Apache-2.0
// vrocam_ipc_peer: the peer daemon on the other side of the IPC link, or (--status) a report of
// what a running peer holds.
#include <getopt.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "CommandLine.h"
#include "ErrnoText.h"
#include "FaultRules.h"
#include "PeerServer.h"
#include "PeerStatus.h"
#include "UniqueFd.h"

namespace {

constexpr char kProgram[] = "vrocam_ipc_peer";

struct Options {
  std::string socket;
  bool status = false;
  bool json = false;
  vrocam::peer::ServerLimits limits;
  std::vector<std::string> faults;
  bool allowFaults = false;
  bool seeded = false;
  uint64_t faultSeed = 0;
  std::unique_ptr<vrocam::peer::FaultRules> faultRules;  // when faults are taken
  int readyFd = -1;
  int lifeline = -1;
  int controlFd = -1;
  std::string traceDir;
  vrocam::trace::TraceLimits traceLimits;
};

void usage() {
  printf(
      "usage: vrocam_ipc_peer --socket PATH [OPTION...]\n"
      "       vrocam_ipc_peer --status [--json] [--socket PATH]\n"
      "Serves the IPC link on the AF_UNIX socket PATH until SIGTERM, SIGINT or SIGHUP. Its\n"
      "directory is made (0700) if missing; one that exists must be this user's or root's, and\n"
      "nobody else may write to it. Options (--name VALUE or --name=VALUE):\n"
      "  --max-memories N        memories per client, 1 to 1048576 (default 4096, or a quarter\n"
      "                          of the memories in all if less: a half with 2 client slots, a\n"
      "                          third with 3, all with 1)\n"
      "  --max-bytes SIZE        bytes per client, with K, M, G or T, up to 1024T (default 4G,\n"
      "                          or the same share of the address space in all if less)\n"
      "  --max-clients N         clients at once, 1 to 1024 (default 64)\n"
      "  --max-total-memories N  memories of all clients, 1 to 16777216 (default: as many as\n"
      "                          the descriptor and mapping limits leave room for)\n"
      "  --max-address-space SIZE  address space for the mappings of all clients' memories, up\n"
      "                          to 1024T (default: half of what the machine lets it map)\n"
      "  --idle-timeout TIME     an idle client holding nothing gives its slot to a new one after\n"
      "                          TIME (500ms, 30s; plain numbers are ms; default 30s)\n"
      "  --batch-timeout TIME    an unfinished batch, or an answer the client does not take, is\n"
      "                          dropped after TIME (default 10s)\n"
      "  --fault RULE            inject a fault (repeatable): KIND[:pid=N]:ACTION[:WHEN...]; KIND\n"
      "                          register, deregister, ping, checksum, fill, holdings, status,\n"
      "                          any, accept; ACTION errno=NAME|N, delay=TIME, hold, drop, close,\n"
      "                          exit[=CODE], kill, mmap[=ERRNO]; WHEN nth=N, after=N, every=N,\n"
      "                          times=K, p=PERCENT. Examples: register:errno=ENOSPC:nth=3,\n"
      "                          deregister:errno=EIO, ping:delay=300ms, register:exit:nth=2,\n"
      "                          fill:errno=EFAULT:p=25\n"
      "  --allow-faults          take fault rules from clients of this uid at run time (so does a\n"
      "                          peer started with --fault)\n"
      "  --fault-seed N          where p= draws come from (default: random, logged)\n"
      "  --ready-fd FD           write \"ready\\n\" to FD, and close it, once serving\n"
      "  --lifeline FD           stop when FD hangs up or becomes readable (a pipe from a parent)\n"
      "  --control-fd FD         serve FD, a connected socket, as the parent's own: no fault rule\n"
      "                          matches its requests\n"
      "  --trace DIR             write a trace (Chrome trace-event JSON, for Perfetto) into DIR,\n"
      "                          as peer-PID.json\n"
      "  --trace-limit N         events in the trace at most, 1 to 10000000 (default 200000)\n"
      "  --trace-keep WHICH      past the limit keep the first events or the newest (default\n"
      "                          first)\n"
      "  --status                print what a running peer holds, per client, and exit; the\n"
      "                          socket defaults to $VROCAM_IPC_SOCKET\n"
      "  --json                  with --status: print it as JSON\n"
      "  --help, --version\n");
}

Options parse(int argc, char** argv) {
  const vrocam::tools::CommandLine line(kProgram);
  const option longOptions[] = {
      {"socket", required_argument, nullptr, 's'},
      {"status", no_argument, nullptr, 'S'},
      {"json", no_argument, nullptr, 'j'},
      {"max-memories", required_argument, nullptr, 'm'},
      {"max-bytes", required_argument, nullptr, 'b'},
      {"max-clients", required_argument, nullptr, 'c'},
      {"max-total-memories", required_argument, nullptr, 't'},
      {"max-address-space", required_argument, nullptr, 'A'},
      {"fault", required_argument, nullptr, 'f'},
      {"allow-faults", no_argument, nullptr, 'a'},
      {"fault-seed", required_argument, nullptr, 'r'},
      {"ready-fd", required_argument, nullptr, 'R'},
      {"lifeline", required_argument, nullptr, 'L'},
      {"control-fd", required_argument, nullptr, 'C'},
      {"trace", required_argument, nullptr, 'T'},
      {"trace-limit", required_argument, nullptr, 'l'},
      {"trace-keep", required_argument, nullptr, 'k'},
      {"idle-timeout", required_argument, nullptr, 'i'},
      {"batch-timeout", required_argument, nullptr, 'B'},
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},
      {nullptr, 0, nullptr, 0},
  };
  Options options;
  vrocam::peer::ServerLimits& limits = options.limits;
  const std::chrono::milliseconds longest = std::chrono::hours(24);
  opterr = 0;
  for (int c; (c = getopt_long(argc, argv, ":h", longOptions, nullptr)) != -1;) {
    const char* name = c == '?' || c == ':' ? "" : longOptions[0].name;
    for (const option& o : longOptions) {
      if (o.val == c) name = o.name;
    }
    switch (c) {
      case 's':
        options.socket = optarg;
        break;
      case 'S':
        options.status = true;
        break;
      case 'j':
        options.json = true;
        break;
      case 'm':
        limits.perClient.maxMemories = line.number(name, optarg, 1, 1u << 20);
        break;
      case 'b':
        limits.perClient.maxBytes = line.number(name, optarg, 1, 1ull << 50, true);
        break;
      case 'c':
        limits.maxClients = line.number(name, optarg, 1, 1024);
        break;
      case 't':
        limits.maxMemories = line.number(name, optarg, 1, 1u << 24);
        break;
      case 'A':
        limits.maxAddressSpace = line.number(name, optarg, 1, 1ull << 50, true);
        break;
      case 'f':
        options.faults.push_back(optarg);
        break;
      case 'a':
        options.allowFaults = true;
        break;
      case 'r':
        options.faultSeed = line.number(name, optarg, 0, UINT64_MAX);
        options.seeded = true;
        break;
      case 'R':
        options.readyFd = static_cast<int>(line.number(name, optarg, 0, INT_MAX));
        break;
      case 'L':
        options.lifeline = static_cast<int>(line.number(name, optarg, 0, INT_MAX));
        break;
      case 'C':
        options.controlFd = static_cast<int>(line.number(name, optarg, 0, INT_MAX));
        break;
      case 'T':
        options.traceDir = optarg;
        break;
      case 'l':
        options.traceLimits.events = line.number(name, optarg, 1, 10000000);
        break;
      case 'k':
        if (strcmp(optarg, "first") != 0 && strcmp(optarg, "newest") != 0) {
          line.bad(name, optarg, "neither first nor newest");
        }
        options.traceLimits.keepNewest = strcmp(optarg, "newest") == 0;
        break;
      case 'i':
        limits.idleTimeout = line.duration(name, optarg, longest);
        break;
      case 'B':
        limits.batchTimeout = line.duration(name, optarg, longest);
        break;
      case 'h':
        usage();
        exit(0);
      case 'V':
        line.version();
      default:
        line.unknown(c, argv);
    }
  }
  line.noOperands(argc, argv);
  if (options.json && !options.status) line.fail("--json goes with --status");
  if (options.socket.empty() && options.status && getenv("VROCAM_IPC_SOCKET") != nullptr) {
    options.socket = getenv("VROCAM_IPC_SOCKET");
  }
  if (options.socket.empty()) {
    line.fail(options.status ? "--status needs --socket PATH or VROCAM_IPC_SOCKET"
                             : "--socket PATH is needed");
  }
  if (!options.faults.empty() || options.allowFaults) {
    if (!options.seeded && getrandom(&options.faultSeed, sizeof(options.faultSeed), 0) < 0) {
      options.faultSeed = static_cast<uint64_t>(time(nullptr));
    }
    options.faultRules = std::make_unique<vrocam::peer::FaultRules>(options.faultSeed);
    for (const std::string& rule : options.faults) {
      const std::string wrong = options.faultRules->add(rule);
      if (!wrong.empty()) line.fail(("--fault " + rule + ": " + wrong).c_str());
    }
  }
  return options;
}

int serve(Options& options) {
  signal(SIGPIPE, SIG_IGN);
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&stopSignals, signal);
  sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
  vrocam::host::UniqueFd signals(signalfd(-1, &stopSignals, SFD_CLOEXEC));
  // A stop signal, and the end of the lifeline, make one descriptor readable.
  vrocam::host::UniqueFd stop(epoll_create1(EPOLL_CLOEXEC));
  for (const int fd : {signals.get(), options.lifeline}) {
    epoll_event event{EPOLLIN, {}};
    if (fd >= 0 && stop && epoll_ctl(stop.get(), EPOLL_CTL_ADD, fd, &event) != 0) stop.reset();
  }
  // Each memory a client holds costs a descriptor: allow as many as the hard limit does.
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }

  vrocam::peer::PeerServer server(options.limits);
  if (options.faultRules) server.takeFaults(std::move(*options.faultRules));
  if (!options.traceDir.empty()) {
    server.traceTo(options.traceDir, std::string(kProgram) + " " + options.socket,
                   options.traceLimits);
  }
  int err = stop && signals ? server.listen(options.socket, stop.get()) : -errno;
  if (err == -EINTR) return 0;  // stopped before it served
  if (err == 0 && options.controlFd >= 0) {
    server.adoptControl(vrocam::host::UniqueFd(options.controlFd));
  }
  if (err == 0 && options.readyFd >= 0) {
    const ssize_t told = write(options.readyFd, "ready\n", 6);
    close(options.readyFd);
    if (told != 6) err = -errno;
  }
  if (err == 0) err = server.run(stop.get());
  if (err != 0) {
    fprintf(stderr, "%s: cannot serve %s: %s\n", kProgram, options.socket.c_str(),
            vrocam::host::errnoText(err).c_str());
    return 1;
  }
  return server.exitCode() >= 0 ? server.exitCode() : 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options = parse(argc, argv);
  return options.status ? vrocam::tools::printPeerStatus(options.socket, options.json)
                        : serve(options);
}
