// SPDX-License-Identifier: Apache-2.0
// PeerProcess: a peer daemon (vrocam_ipc_peer) run as a child process, for the demo, the tests,
// the test kit and the benchmarks. It is ready when it says so on a pipe (--ready-fd), not when a
// poll of its socket answers; and it is tied to this process by a lifeline (--lifeline), a pipe
// whose other end only this process holds: when this process ends, however it ends, the peer stops
// cleanly (its socket file removed, when it has one). A peer frozen (SIGSTOP) when this process
// ends is continued first (PR_SET_PDEATHSIG).
#pragma once

#include <signal.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "UniqueFd.h"

namespace vrocam {
namespace peer {

// How to start a peer.
struct PeerLaunch {
  // The peer binary, behind an emulator when there is one; found in PATH.
  std::vector<std::string> command;
  std::string socket;
  std::vector<std::string> flags;  // after --socket
  std::string logPath;             // stdout and stderr appended there; empty: the caller's
  int timeoutMs = 5000;            // to say it is ready
  rlim_t maxFiles = 0;             // the peer's descriptor limit; 0: the caller's
  int logFd = -1;                  // stdout and stderr go there instead (logPath empty)
  int controlFd = -1;              // a connected socket for the peer to serve as ours (socketpair)
};

class PeerProcess {
 public:
  PeerProcess() = default;
  // A peer still running is killed and reaped.
  ~PeerProcess();
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  // Starts `command... --socket socket --ready-fd N --lifeline M [--control-fd C] flags...` and
  // waits until it says
  // it is ready. 0, or a negative errno: exec's error (-ENOENT when there is no such program),
  // -ECHILD when the peer exited before it was ready, -ETIMEDOUT when it was not ready in time
  // (it is still running then).
  int start(const PeerLaunch& launch);
  // Sends signal and waits for the peer to end, killing it after kStopWaitMs: its wait status, or
  // -1 when none was running.
  int stop(int signal = SIGTERM);
  static constexpr int kStopWaitMs = 10000;
  pid_t pid() const { return mPid; }

 private:
  pid_t mPid = -1;
  host::UniqueFd mLifeline;  // the end that only this process holds
};

}  // namespace peer
}  // namespace vrocam
