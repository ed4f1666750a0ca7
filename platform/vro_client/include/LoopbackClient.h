// SPDX-License-Identifier: Apache-2.0
// Host only: the in-process peer that the host factory hands out. It checks what it is given and
// keeps a table of registrations by handle, as the peer process would.
//
// Locking: one mutex guards the table; each call holds it throughout and calls nothing outside.
#pragma once

#include <memory>
#include <vector>

#include "IPCClient.h"

namespace NSCam {
namespace ipc {
namespace wrapper {

class LoopbackClient : public IPCClient {
 public:
  // The process-wide instance that IPCClientFactory::getInstance(IPC_PLATFORM_DEFAULT) returns.
  static LoopbackClient& instance();

  LoopbackClient();
  ~LoopbackClient() override;

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
  struct Table;  // the registrations, under their lock
  const std::unique_ptr<Table> mTable;
};

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
