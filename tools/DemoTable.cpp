// SPDX-License-Identifier: Apache-2.0
// Prints the registry as a table.
#include "DemoTable.h"

#include <cstdio>

#include "PeerCommands.h"

namespace vrocam {
namespace tools {

void DemoTable::track(IPCClientShmMgr::Identifier id, unsigned int type) {
  for (const DemoKey& key : mKeys) {
    if (key.id.user == id.user && key.id.sensorIdx == id.sensorIdx && key.id.userId == id.userId &&
        key.type == type) {
      return;
    }
  }
  mKeys.push_back(DemoKey{id, type});
}

size_t DemoTable::print(IPCClientShmMgr& mgr, const std::string& title) const {
  printf("\n== %s\n", title.c_str());
  printf("  %4s %6s %6s %4s | %4s %6s %8s  %-14s  %s\n", "user", "sensor", "userId", "type", "fd",
         "handle", "size", "addr", "name");
  size_t rows = 0;
  for (const DemoKey& key : mKeys) {
    std::vector<ShmMemInfo> infos;
    if (mgr.getShmInfo(infos, key.id, key.type) != 0) continue;
    for (const ShmMemInfo& info : infos) {
      printf("  %4d %6u %6llu %4u | %4d %6d %8u  %-14p  %s\n", key.id.user, key.id.sensorIdx,
             static_cast<unsigned long long>(key.id.userId), key.type, info.fd, info.handle,
             info.size, info.addr, info.name.c_str());
      ++rows;
    }
  }
  if (rows == 0) printf("  (empty)\n");
  printf("  %zu memories in the registry, %ld registered with the peer\n", rows, peerHoldings());
  return rows;
}

long DemoTable::peerHoldings() const {
  NSCam::ipc::wrapper::PeerHoldings holdings{};
  const int err =
      mClient.sendCommand(NSCam::ipc::wrapper::PEER_COMMAND_HOLDINGS, &holdings, sizeof(holdings));
  return err == 0 ? static_cast<long>(holdings.memories) : -1;
}

}  // namespace tools
}  // namespace vrocam
