// SPDX-License-Identifier: Apache-2.0
// Host only: the in-process peer that the host factory hands out. It checks what it is given and
// keeps a table of registrations by handle, as the peer process would.
#pragma once

#include <mutex>
#include <unordered_map>
#include <vector>

#include "IPCClient.h"

namespace NSCam {
namespace ipc {
namespace wrapper {

class LoopbackClient : public IPCClient {
 public:
  // The process-wide instance that IPCClientFactory::getInstance(IPC_PLATFORM_DEFAULT) returns.
  static LoopbackClient& instance();

  // 0, or -EBADF (descriptor not open), -EFAULT (null address), -EEXIST (handle already held).
  int registerShm(ShmMemInfo& info) override;
  // All or nothing: the first bad record's error, and none of them is kept.
  int registerShms(std::vector<ShmMemInfo>& infos) override;
  // PEER_COMMAND_HOLDINGS only (PeerCommands.h); -EOPNOTSUPP for the others.
  int sendCommand(int command, void* data, size_t length) override;
  int waitForPeer(int timeoutMs) override;
  // Forgets every known record; -ENOENT when one of them was not registered.
  int deregisterShms(std::vector<ShmMemInfo> infos) override;

 private:
  int check(const ShmMemInfo& info) const;

  std::mutex mLock;
  std::unordered_map<int, ShmMemInfo> mByHandle;
};

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
