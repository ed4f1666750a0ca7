// SPDX-License-Identifier: Apache-2.0
// The registry as the demo shows it: every key it used, looked up through the public API.
#pragma once

#include <string>
#include <vector>

#include "IPCClientShmMgr.h"

namespace vrodemo {

using NSCam::ipc::wrapper::IPCClientShmMgr;
using NSCam::ipc::wrapper::ShmMemInfo;

struct DemoKey {
  IPCClientShmMgr::Identifier id;
  unsigned int type;
};

class DemoTable {
 public:
  // Remembers a key so that later tables show it.
  void track(IPCClientShmMgr::Identifier id, unsigned int type);
  const std::vector<DemoKey>& keys() const { return mKeys; }
  // Prints one row per memory of every tracked key; returns the number of memories.
  size_t print(IPCClientShmMgr& mgr, const std::string& title) const;

 private:
  std::vector<DemoKey> mKeys;
};

}  // namespace vrodemo
