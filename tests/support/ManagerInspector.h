// SPDX-License-Identifier: Apache-2.0
// Test-only access to the manager's members, under its lock.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "IPCClientShmMgr.h"

namespace NSCam {
namespace ipc {
namespace wrapper {

struct IPCClientShmMgrInspector {
  using Registry = std::map<IPCClientShmMgr::ShmMemMapKey, std::map<int, ShmMemInfo>>;

  static int nextHandle(IPCClientShmMgr& mgr) {
    std::lock_guard<std::mutex> lock(mgr.m_Lock);
    return mgr.m_NextHandle;
  }
  static int dbgLog(IPCClientShmMgr& mgr) {
    std::lock_guard<std::mutex> lock(mgr.m_Lock);
    return mgr.m_DbgLog;
  }
  static bool inited(IPCClientShmMgr& mgr) {
    std::lock_guard<std::mutex> lock(mgr.m_Lock);
    return mgr.m_Inited;
  }
  static IPCClient* client(IPCClientShmMgr& mgr) {
    std::lock_guard<std::mutex> lock(mgr.m_Lock);
    return mgr.m_pIPCClient;
  }
  static Registry registry(IPCClientShmMgr& mgr) {
    std::lock_guard<std::mutex> lock(mgr.m_Lock);
    return mgr.m_ShmMemMap;
  }
  // The records under {id, type} in descriptor order; nullopt when the key is absent.
  static std::optional<std::vector<ShmMemInfo>> records(IPCClientShmMgr& mgr,
                                                        IPCClientShmMgr::Identifier id,
                                                        unsigned int type) {
    std::lock_guard<std::mutex> lock(mgr.m_Lock);
    auto key = mgr.m_ShmMemMap.find({id.user, id.sensorIdx, id.userId, type});
    if (key == mgr.m_ShmMemMap.end()) return std::nullopt;
    std::vector<ShmMemInfo> out;
    for (const auto& record : key->second) out.push_back(record.second);
    return out;
  }
  // Forgets the registry's records without releasing anything.
  static void forgetRegistry(IPCClientShmMgr& mgr) {
    std::lock_guard<std::mutex> lock(mgr.m_Lock);
    mgr.m_ShmMemMap.clear();
  }
  // Puts the manager back in the state of a failed init(), or gives it a client.
  static void setClient(IPCClientShmMgr& mgr, IPCClient* client) {
    std::lock_guard<std::mutex> lock(mgr.m_Lock);
    mgr.m_pIPCClient = client;
    mgr.m_Inited = client != nullptr;
  }
  // Whether the lock is free (it is, after every operation returned).
  static bool lockFree(IPCClientShmMgr& mgr) {
    if (!mgr.m_Lock.try_lock()) return false;
    mgr.m_Lock.unlock();
    return true;
  }
};

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
