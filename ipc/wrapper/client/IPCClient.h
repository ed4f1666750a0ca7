// SPDX-License-Identifier: Apache-2.0
// The IPC client of the closed client library and its factory, as the manager compiles against
// them.
#pragma once

#include <cstddef>
#include <vector>

#include "IPCShmTypes.h"

namespace NSCam {
namespace ipc {
namespace wrapper {

// Which client the factory hands out. The manager always asks for 0.
enum IPC_PLATFORM_TYPE : int {
  IPC_PLATFORM_DEFAULT = 0,
  IPC_PLATFORM_REMOTE = 1,
};

// The client side of the IPC link. Calls come from the manager with its lock held: an
// implementation must not call back into the manager. Results: 0 = success, anything else =
// failure, passed on to the manager's caller unchanged.
class IPCClient {
 public:
  // Registers one memory; the record is filled, handle included.
  virtual int registerShm(ShmMemInfo& info) = 0;
  // Registers every record of the vector in one exchange.
  virtual int registerShms(std::vector<ShmMemInfo>& infos) = 0;
  // Sends a command to the peer (not used by the manager): data holds length bytes of the
  // command's arguments on the way in and its answer on the way out.
  virtual int sendCommand(int command, void* data, size_t length) = 0;
  // Waits until the peer answers or the timeout passes (not used by the manager).
  virtual int waitForPeer(int timeoutMs) = 0;
  // Forgets every record of the vector; the vector is the caller's copy.
  virtual int deregisterShms(std::vector<ShmMemInfo> infos) = 0;
  virtual ~IPCClient();
};

class IPCClientFactory {
 public:
  // A client owned by the library, or null when none can be had. Never delete it.
  static IPCClient* getInstance(IPC_PLATFORM_TYPE type);
};

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
