// SPDX-License-Identifier: Apache-2.0
// PeerProcess: a peer daemon (vrocam_ipc_peer) run as a child process, for the demo, the tests
// and the benchmarks.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace vropeer {

class PeerProcess {
 public:
  PeerProcess() = default;
  // A peer still running is killed and reaped.
  ~PeerProcess();
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  // Starts `command... --socket socket extra...` (command: the peer binary, behind an emulator
  // when there is one; found in PATH), its stdout and stderr appended to logPath (unless empty),
  // and waits up to timeoutMs until it answers a ping. 0, or a negative errno (-ECHILD when the
  // peer exited, -ETIMEDOUT when it did not answer in time).
  int start(const std::vector<std::string>& command, const std::string& socket,
            const std::vector<std::string>& extra = {}, const std::string& logPath = "",
            int timeoutMs = 5000);
  // Sends signal and waits for the peer to end: its wait status, or -1 when none was running.
  int stop(int signal = SIGTERM);
  pid_t pid() const { return mPid; }

 private:
  pid_t mPid = -1;
};

}  // namespace vropeer
