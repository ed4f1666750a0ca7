// SPDX-License-Identifier: Apache-2.0
// The demo's peer daemon, on a private socket, and what the demo asks it about each memory.
#pragma once

#include <string>

#include "IPCClient.h"
#include "PeerProcess.h"
#include "PrivateDirectory.h"

namespace vrocam {
namespace tools {

class DemoPeer {
 public:
  DemoPeer();
  // Stops a peer still running; the peer removes the private directory it made.
  ~DemoPeer();
  DemoPeer(const DemoPeer&) = delete;
  DemoPeer& operator=(const DemoPeer&) = delete;

  // Starts binary on a socket in a new private directory, which the peer makes and removes (also
  // when this program is killed), and points this process's IPC client at it
  // (VROCAM_IPC_SOCKET); the peer writes its trace into traceDir unless it is empty. Call it
  // before the manager's first getInstance().
  bool start(const std::string& binary, const std::string& traceDir);
  // Stops the peer with SIGTERM: its exit code, or -1 when it did not exit by itself.
  int stop();

 private:
  peer::PrivateDirectory mDir;  // before the process: the process stops first
  peer::PeerProcess mProcess;
};

// Asks the peer for the checksum of info's memory, which must hold `written` in every byte, then
// has the peer write another byte into it and reads that back through info.addr. Prints one row;
// false when the peer saw something else or its write did not arrive.
bool showPeerView(NSCam::ipc::wrapper::IPCClient& client,
                  const NSCam::ipc::wrapper::ShmMemInfo& info, unsigned char written);

// Merges the traces in dir into dir/demo-trace.json and prints one line saying so, or why not.
void mergeDemoTrace(const std::string& dir);

}  // namespace tools
}  // namespace vrocam
