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

// A member read under the manager's lock.
#define VROTEST_READ(Type, name, member)        \
  static Type name(Mgr& m) {                    \
    std::lock_guard<std::mutex> lock(m.m_Lock); \
    return m.member;                            \
  }
  VROTEST_READ(int, nextHandle, m_NextHandle)
  VROTEST_READ(int, dbgLog, m_DbgLog)
  VROTEST_READ(bool, inited, m_Inited)
  VROTEST_READ(IPCClient*, client, m_pIPCClient)
  VROTEST_READ(Registry, registry, m_ShmMemMap)
#undef VROTEST_READ

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
    std::lock_guard<std::mutex> lock(m.m_Lock);
    m.m_ShmMemMap.clear();
  }
  // Gives the manager a client, or puts it back in the state of a failed init().
  static void setClient(Mgr& m, IPCClient* client) {
    std::lock_guard<std::mutex> lock(m.m_Lock);
    m.m_pIPCClient = client;
    m.m_Inited = client != nullptr;
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
