// SPDX-License-Identifier: Apache-2.0
// IPCClientShmMgr: the process-wide manager of shared memories registered with the IPC client.
//
// Ownership: the manager owns the descriptor and mapping of every memory it allocated, and of every
// memory registered with it, until a release operation closes and unmaps them. The registry owns
// only copies of records; dropping a record (a repeated allocation under one key, a repeated
// registration of one descriptor) frees nothing. The manager never owns or deletes the IPC client.
//
// Failures leave things as the operations below say; in short: -1 for the manager's own failures,
// the IPC client's value passed on unchanged for its failures, 0 for a release that finds nothing.
//
// Threads: one mutex serialises the operations, and the IPC client is called with it held. Any
// operation may run while other threads call getInstance() or init(): the client pointer and the
// verbosity that init() sets are atomic, so the reads made without the lock are safe. Only the
// array form of releaseShmMem erases from the registry without the lock: do not let it overlap
// other operations.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "IPCShmTypes.h"
#include "VrocamExport.h"

namespace NSCam {
namespace ipc {
namespace wrapper {

class IPCClient;
struct IPCClientShmMgrInspector;  // test-only access to the members

class IPCClientShmMgr {
 public:
  // Who a memory belongs to.
  struct Identifier {
    IPC_USER user;
    unsigned int sensorIdx;
    uint64_t userId;  // 0 when the caller gave none
  };

  // The registry key: an owner and a type code, ordered by user (signed), sensorIdx, userId, type.
  struct ShmMemMapKey {
    IPC_USER user;
    unsigned int sensorIdx;
    uint64_t userId;
    unsigned int type;

    bool operator<(const ShmMemMapKey& other) const {
      if (static_cast<int>(user) != static_cast<int>(other.user)) {
        return static_cast<int>(user) < static_cast<int>(other.user);
      }
      if (sensorIdx != other.sensorIdx) return sensorIdx < other.sensorIdx;
      if (userId != other.userId) return userId < other.userId;
      return type < other.type;
    }
  };

  // The one instance; runs init() before every return. Never null.
  VROCAM_API static IPCClientShmMgr* getInstance();

  // Re-reads "vendor.debug.ipc.log" and, until it has one, asks the factory for the IPC client.
  // 0 when a client is held, -1 when the factory gave none.
  VROCAM_API int init();

  // Creates, duplicates and maps one region (write protection, shared). On success *fd and *addr
  // belong to the caller; on failure they hold -1 and null and nothing of the attempt stays open.
  VROCAM_API int allocateShmMem(unsigned int sensorIdx, const std::string& name, int size, int* fd,
                                void** addr);

  // Allocates, registers and records one memory; it replaces whatever the key held before. When
  // the IPC client refuses it, its value is returned and the region stays mapped and open.
  VROCAM_API int allocateShmMem(Identifier id, ShmMemAlloc& alloc);
  VROCAM_API int allocateShmMem(IPC_USER user, unsigned int sensorIdx, ShmMemAlloc& alloc);

  // As above for count requests, in order; stops at the first failure and keeps earlier ones.
  VROCAM_API int allocateAllShmMems(Identifier id, ShmMemAlloc* allocs, unsigned int count);
  VROCAM_API int allocateAllShmMems(IPC_USER user, unsigned int sensorIdx, ShmMemAlloc* allocs,
                                    unsigned int count);

  // Registers memory the caller holds; out is filled (its type is left as the caller set it) and
  // stored under {id, type}. Needs a successful init(): the IPC client is not checked here.
  VROCAM_API int registerShmMem(Identifier id, unsigned int type, std::string name, int fd,
                                unsigned int size, void* addr, ShmMemInfo& out);
  VROCAM_API int registerShmMem(IPC_USER user, unsigned int sensorIdx, unsigned int type,
                                std::string name, int fd, unsigned int size, void* addr,
                                ShmMemInfo& out);
  // Registers every element in one call with fresh handles; the caller's vector is not written.
  VROCAM_API int registerShmMem(Identifier id, std::vector<ShmMemInfo> infos);
  VROCAM_API int registerShmMem(IPC_USER user, unsigned int sensorIdx,
                                std::vector<ShmMemInfo> infos);

  // Copies every record of {id, type} into infos in ascending descriptor order; -1 and infos
  // untouched when there is none.
  VROCAM_API int getShmInfo(std::vector<ShmMemInfo>& infos, Identifier id, unsigned int type);
  // Copies the record of descriptor fd (-1: the smallest descriptor); -1 and out untouched when
  // there is none.
  VROCAM_API int getShmInfo(ShmMemInfo& out, Identifier id, unsigned int type, int fd);
  VROCAM_API int getShmInfo(ShmMemInfo& out, IPC_USER user, unsigned int sensorIdx,
                            unsigned int type, int fd);

  // Unmaps size bytes at addr and closes fd. Touches neither the registry nor the IPC client.
  [[nodiscard]] VROCAM_API int releaseShmMem(int size, int fd, void* addr);
  // Releases every type of the array (descriptor -1) and erases each type's key. Not atomic with
  // other operations: the erase after each element runs without the lock.
  [[nodiscard]] VROCAM_API int releaseShmMem(Identifier id, ShmMemAlloc* allocs,
                                             unsigned int count);
  [[nodiscard]] VROCAM_API int releaseShmMem(IPC_USER user, unsigned int sensorIdx,
                                             ShmMemAlloc* allocs, unsigned int count);
  // Deregisters, then (bReleaseBuf) unmaps and closes, then forgets every memory of {id, type}
  // (fd -1) or the one with descriptor fd (looked up under user id 0). With bReleaseBuf false
  // the caller keeps the mapping and the descriptor.
  [[nodiscard]] VROCAM_API int releaseShmMem(Identifier id, unsigned int type,
                                             bool bReleaseBuf = true, int fd = -1);
  [[nodiscard]] VROCAM_API int releaseShmMem(IPC_USER user, unsigned int sensorIdx,
                                             unsigned int type, bool bReleaseBuf = true,
                                             int fd = -1);
  // As above for several types in one deregistration; every listed key is erased.
  [[nodiscard]] VROCAM_API int releaseShmMem(Identifier id, std::vector<unsigned int> types,
                                             bool bReleaseBuf = true);

  // Deregisters, unmaps, closes and forgets everything; the handle counter keeps counting.
  [[nodiscard]] VROCAM_API int releaseAllShmMems();

 private:
  friend struct IPCClientShmMgrInspector;

  IPCClientShmMgr();
  ~IPCClientShmMgr();
  IPCClientShmMgr(const IPCClientShmMgr&) = delete;
  IPCClientShmMgr& operator=(const IPCClientShmMgr&) = delete;

  static ShmMemMapKey makeKey(const Identifier& id, unsigned int type);
  static void unmapAndClose(const std::vector<ShmMemInfo>& infos);
  // Makes info the only record of key (the lock is held).
  void recordOnly(const ShmMemMapKey& key, ShmMemInfo&& info);
  // The values init() sets; safe to read with or without the lock.
  IPCClient* client() const { return m_pIPCClient.load(std::memory_order_relaxed); }
  int dbgLog() const { return m_DbgLog.load(std::memory_order_relaxed); }

  bool m_Inited;
  // The one lock, a plain std::mutex, not annotated for clang's thread-safety analysis: the array
  // form of releaseShmMem erases from m_ShmMemMap without it, and the release forms read the
  // client before taking it, steps of the lock table that a GUARDED_BY annotation would reject.
  std::mutex m_Lock;
  int m_NextHandle;
  std::map<ShmMemMapKey, std::map<int, ShmMemInfo>> m_ShmMemMap;
  std::atomic<IPCClient*> m_pIPCClient;  // written under the lock, read with or without it
  std::atomic<int> m_DbgLog;
};

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
