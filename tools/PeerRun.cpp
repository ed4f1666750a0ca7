// SPDX-License-Identifier: Apache-2.0
// vrocam_peer_run: runs a command (a component's test, GoogleTest or not) with a private peer of
// its own, which VROCAM_IPC_SOCKET names, and stops the peer when the command ends.
#include <getopt.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "ErrnoText.h"
#include "vrocam/testkit/Peer.h"

namespace {

constexpr char kProgram[] = "vrocam_peer_run";

void usage() {
  printf(
      "usage: vrocam_peer_run [OPTION...] [--] COMMAND [ARG...]\n"
      "Runs COMMAND with VROCAM_IPC_SOCKET naming a private peer (vrocam_ipc_peer, on a fresh "
      "name\n"
      "in the abstract namespace), and stops the peer when COMMAND ends. Exits with COMMAND's\n"
      "status (128 + N when signal N ended it), after printing the peer's log and its fault rules\n"
      "with their counts when that status is not 0. Options:\n"
      "  --fault RULE        a fault rule for the peer (repeatable; see vrocam_ipc_peer --help)\n"
      "  --fault-seed N      where the rules' probabilities draw from\n"
      "  --peer-flag FLAG    another option for the peer (repeatable: --peer-flag=--max-memories\n"
      "                      --peer-flag=8)\n"
      "  --log               print the peer's log whatever the status\n"
      "  --help, --version\n");
}

}  // namespace

int main(int argc, char** argv) {
  const vrocam::tools::CommandLine line(kProgram);
  const option longOptions[] = {
      {"fault", required_argument, nullptr, 'f'},
      {"fault-seed", required_argument, nullptr, 's'},
      {"peer-flag", required_argument, nullptr, 'p'},
      {"log", no_argument, nullptr, 'l'},
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},
      {nullptr, 0, nullptr, 0},
  };
  vrocam::testkit::PeerOptions options;
  bool log = false;
  opterr = 0;
  // '+': options end at the first operand, the command.
  for (int c; (c = getopt_long(argc, argv, "+:h", longOptions, nullptr)) != -1;) {
    switch (c) {
      case 'f':
        options.faults.push_back(optarg);
        break;
      case 's':
        options.faultSeed = static_cast<int64_t>(line.number("fault-seed", optarg, 0, INT64_MAX));
        break;
      case 'p':
        options.flags.push_back(optarg);
        break;
      case 'l':
        log = true;
        break;
      case 'h':
        usage();
        return 0;
      case 'V':
        line.version();
      default:
        line.unknown(c, argv);
    }
  }
  if (optind >= argc) line.fail("a COMMAND to run is needed");
  vrocam::testkit::Peer peer(options);
  const int started = peer.start();
  if (started != 0) {
    fprintf(stderr, "%s: cannot start the peer: %s\n%s", kProgram,
            vrocam::host::errnoText(started).c_str(), peer.log().c_str());
    return 125;
  }
  setenv("VROCAM_IPC_SOCKET", peer.socket().c_str(), 1);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // the command does not outlive its peer's keeper
    if (getppid() != parent) _exit(127);
    execvp(argv[optind], argv + optind);
    fprintf(stderr, "%s: cannot run %s: %s\n", kProgram, argv[optind],
            vrocam::host::errnoText(errno).c_str());
    _exit(127);
  }
  int status = 0;
  while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  const int code = child < 0           ? 126
                   : WIFEXITED(status) ? WEXITSTATUS(status)
                                       : 128 + WTERMSIG(status);
  std::vector<vrocam::testkit::FaultCount> counts;
  const bool counted = peer.faults(&counts) == 0;
  peer.stop();
  if (code != 0 || log) {
    fprintf(stderr, "--- %s: the peer's log ---\n%s", kProgram, peer.log().c_str());
    for (const auto& count : counts) {
      fprintf(stderr, "fault %zu %s: matched %llu, fired %llu\n", count.rule, count.text.c_str(),
              static_cast<unsigned long long>(count.matched),
              static_cast<unsigned long long>(count.fired));
    }
    if (!counted) fprintf(stderr, "(no fault rules)\n");
  }
  return code;
}
