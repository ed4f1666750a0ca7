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
  using Mgr = IPCClientShmMgr;
  using Registry = std::map<Mgr::ShmMemMapKey, std::map<int, ShmMemInfo>>;

  template <typename F>
  static auto locked(Mgr& mgr, F read) {
    std::lock_guard<std::mutex> lock(mgr.m_Lock);
    return read();
  }
  static int nextHandle(Mgr& m) {
    return locked(m, [&] { return m.m_NextHandle; });
  }
  static int dbgLog(Mgr& m) {
    return locked(m, [&] { return m.m_DbgLog.load(); });
  }
  static bool inited(Mgr& m) {
    return locked(m, [&] { return m.m_Inited; });
  }
  static IPCClient* client(Mgr& m) {
    return locked(m, [&] { return m.m_pIPCClient.load(); });
  }
  static Registry registry(Mgr& m) {
    return locked(m, [&] { return m.m_ShmMemMap; });
  }
  // The records under {id, type} in descriptor order; nullopt when the key is absent.
  static std::optional<std::vector<ShmMemInfo>> records(Mgr& m, Mgr::Identifier id,
                                                        unsigned int type) {
    const Registry all = registry(m);
    const auto key = all.find({id.user, id.sensorIdx, id.userId, type});
    if (key == all.end()) return std::nullopt;
    std::vector<ShmMemInfo> out;
    for (const auto& record : key->second) out.push_back(record.second);
    return out;
  }
  // Forgets the registry's records without releasing anything.
  static void forgetRegistry(Mgr& m) {
    locked(m, [&] { m.m_ShmMemMap.clear(); });
  }
  // Puts the manager back in the state of a failed init(), or gives it a client.
  static void setClient(Mgr& m, IPCClient* client) {
    locked(m, [&] {
      m.m_pIPCClient = client;
      m.m_Inited = client != nullptr;
    });
  }
  // Whether the lock is free (it is, after every operation returned).
  static bool lockFree(Mgr& m) {
    if (!m.m_Lock.try_lock()) return false;
    m.m_Lock.unlock();
    return true;
  }
};

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
