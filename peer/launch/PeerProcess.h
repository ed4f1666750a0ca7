// SPDX-License-Identifier: Apache-2.0
// PeerProcess: a peer daemon (vrocam_ipc_peer) run as a child process, for the demo, the tests
// and the benchmarks. The child is stopped (SIGTERM) when the thread that started it ends
// (PR_SET_PDEATHSIG), so that a caller killed without stopping it leaves no peer behind, and
// the peer removes its socket and the directories it made for it.
#pragma once

#include <signal.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace vrocam {
namespace peer {

// How to start a peer.
struct PeerLaunch {
  // The peer binary, behind an emulator when there is one; found in PATH.
  std::vector<std::string> command;
  std::string socket;
  std::vector<std::string> flags;  // after --socket
  std::string logPath;             // stdout and stderr appended there; empty: the caller's
  int timeoutMs = 5000;            // to answer a first ping
  rlim_t maxFiles = 0;             // the peer's descriptor limit; 0: the caller's
};

class PeerProcess {
 public:
  PeerProcess() = default;
  // A peer still running is killed and reaped.
  ~PeerProcess();
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  // Starts `command... --socket socket flags...` and waits until it answers a ping. 0, or a
  // negative errno: exec's error (-ENOENT when there is no such program), -ECHILD when the peer
  // exited, -ETIMEDOUT when it did not answer in time.
  int start(const PeerLaunch& launch);
  // Sends signal and waits for the peer to end: its wait status, or -1 when none was running.
  int stop(int signal = SIGTERM);
  pid_t pid() const { return mPid; }

 private:
  pid_t mPid = -1;
};

}  // namespace peer
}  // namespace vrocam
