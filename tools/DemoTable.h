// SPDX-License-Identifier: Apache-2.0
// The registry as the demo shows it: every key it used, looked up through the public API.
#pragma once

#include <string>
#include <vector>

#include "IPCClient.h"
#include "IPCClientShmMgr.h"

namespace vrocam {
namespace tools {

using NSCam::ipc::wrapper::IPCClient;
using NSCam::ipc::wrapper::IPCClientShmMgr;
using NSCam::ipc::wrapper::ShmMemInfo;

struct DemoKey {
  IPCClientShmMgr::Identifier id;
  unsigned int type;
};

class DemoTable {
 public:
  // client: the IPC client, asked how many memories the peer holds.
  explicit DemoTable(IPCClient& client) : mClient(client) {}

  // Remembers a key so that later tables show it.
  void track(IPCClientShmMgr::Identifier id, unsigned int type);
  const std::vector<DemoKey>& keys() const { return mKeys; }
  // Prints one row per memory of every tracked key; returns the number of memories.
  size_t print(IPCClientShmMgr& mgr, const std::string& title) const;
  // How many memories the peer holds for this process, or -1 when it does not answer.
  long peerHoldings() const;

 private:
  IPCClient& mClient;
  std::vector<DemoKey> mKeys;
};

}  // namespace tools
}  // namespace vrocam
