// SPDX-License-Identifier: Apache-2.0
// IPCClientShmMgr: allocation, registration, lookup and release of shared memories.
#include "IPCClientShmMgr.h"

#include <sys/mman.h>
#include <unistd.h>

#include "IPCClient.h"
#include "Properties.h"
#include "SharedMemory.h"

#define LOG_TAG "IPCClientShmMgr"
#define LOG_MODULE_ID 0x101002u
#include "GatedLog.h"

// The detail lines of allocation, registration and release.
#define MGR_LOGD(fmt, ...) GLOG_DETAIL(dbgLog() != 0, fmt, ##__VA_ARGS__)
// The detail lines of lookup.
#define MGR_LOGD_LOOKUP(fmt, ...) GLOG_DETAIL(dbgLog() >= 2, fmt, ##__VA_ARGS__)
// The detail lines that only the front end gates.
#define MGR_LOGD_ALWAYS(fmt, ...) GLOG_DETAIL(true, fmt, ##__VA_ARGS__)
#define MGR_LOGE(fmt, ...) GLOG_ERROR(fmt, ##__VA_ARGS__)

namespace NSCam {
namespace ipc {
namespace wrapper {
namespace {

// "%llu" wants unsigned long long whatever uint64_t is on the platform.
unsigned long long llu(uint64_t value) { return static_cast<unsigned long long>(value); }

// A size as the release operations unmap it: signed 32-bit, widened with its sign.
size_t mappedLength(unsigned int size) { return static_cast<size_t>(static_cast<int>(size)); }

}  // namespace

IPCClientShmMgr::IPCClientShmMgr()
    : m_Inited(false), m_NextHandle(1), m_pIPCClient(nullptr), m_DbgLog(0) {}

IPCClientShmMgr::~IPCClientShmMgr() {
  // Memories still registered stay registered, mapped and open: the process is ending.
  m_ShmMemMap.clear();
}

IPCClientShmMgr* IPCClientShmMgr::getInstance() {
  static IPCClientShmMgr instance;
  instance.init();
  return &instance;
}

int IPCClientShmMgr::init() {
  std::lock_guard<std::mutex> lock(m_Lock);
  m_DbgLog.store(NSCam::Utils::Properties::property_get_int32("vendor.debug.ipc.log", 0),
                 std::memory_order_relaxed);
  MGR_LOGD_ALWAYS("[%s] m_DbgLog:%d\n", __FUNCTION__, dbgLog());
  if (m_Inited) return 0;

  m_pIPCClient.store(IPCClientFactory::getInstance(static_cast<IPC_PLATFORM_TYPE>(0)),
                     std::memory_order_relaxed);
  if (client() == nullptr) {
    MGR_LOGE("[%s] error: Unable to get Vro IPCClient\n", __FUNCTION__);
    return -1;
  }
  m_Inited = true;
  return 0;
}

IPCClientShmMgr::ShmMemMapKey IPCClientShmMgr::makeKey(const Identifier& id, unsigned int type) {
  return ShmMemMapKey{id.user, id.sensorIdx, id.userId, type};
}

void IPCClientShmMgr::recordOnly(const ShmMemMapKey& key, ShmMemInfo&& info) {
  std::map<int, ShmMemInfo>& records = m_ShmMemMap[key];
  records.clear();  // whatever the key held is forgotten, not released
  const int fd = info.fd;
  records.emplace(fd, std::move(info));
}

void IPCClientShmMgr::unmapAndClose(const std::vector<ShmMemInfo>& infos) {
  for (const ShmMemInfo& info : infos) {
    munmap(info.addr, mappedLength(info.size));
    close(info.fd);
  }
}

// ---- Allocation --------------------------------------------------------------------------------

int IPCClientShmMgr::allocateShmMem(unsigned int sensorIdx, const std::string& name, int size,
                                    int* fd, void** addr) {
  MGR_LOGD("[%s] sensorIdx:%u, name:%s, size:%d\n", __FUNCTION__, sensorIdx, name.c_str(), size);
  *fd = -1;
  *addr = nullptr;

  const char* regionName = name.c_str();
  NSCam::utils::sys::FileDescriptor region = NSCam::utils::sys::SharedMemory::allocate(
      std::string(regionName != nullptr ? regionName : "Unknown"), static_cast<size_t>(size));
  if (region.get() < 0) {
    MGR_LOGE("[%s] error: [Sensor:%d] unable to allocate shared memory via IPC SharedMemory\n",
             __FUNCTION__, sensorIdx);
    return -1;
  }

  const int dupFd = region.dup();
  if (dupFd < 0) {
    MGR_LOGE("[%s] error: [Sensor:%d] call dup fail\n", __FUNCTION__, sensorIdx);
    return -1;
  }

  void* mapped = mmap(nullptr, static_cast<size_t>(size), PROT_WRITE, MAP_SHARED, dupFd, 0);
  if (mapped == MAP_FAILED) {
    MGR_LOGE("[%s] error: [Sensor:%d] call mmap fail, fd:%d\n", __FUNCTION__, sensorIdx, dupFd);
    close(dupFd);
    return -1;
  }

  *fd = dupFd;
  *addr = mapped;
  return 0;
}

int IPCClientShmMgr::allocateShmMem(Identifier id, ShmMemAlloc& alloc) {
  ShmMemInfo info;
  std::lock_guard<std::mutex> lock(m_Lock);

  if (client() == nullptr) {
    MGR_LOGE("[%s] error: no Vro IPCClient\n", __FUNCTION__);
    return -1;
  }
  MGR_LOGD("[%s] [User:%d, Sensor:%u, UserId:%llu] shmMemType:%d, name:%s, size:%d, handle:%d\n",
           __FUNCTION__, id.user, id.sensorIdx, llu(id.userId), alloc.type, alloc.name.c_str(),
           alloc.size, m_NextHandle);

  int fd = -1;
  void* addr = nullptr;
  if (allocateShmMem(id.sensorIdx, alloc.name, static_cast<int>(alloc.size), &fd, &addr) != 0) {
    MGR_LOGE(
        "[%s] error: [User:%d, Sensor:%u, UserId:%llu] Unable to allocate shared memory for %s, "
        "size:%u\n",
        __FUNCTION__, id.user, id.sensorIdx, llu(id.userId), alloc.name.c_str(), alloc.size);
    return -1;
  }
  info.addr = addr;
  info.fd = fd;
  info.handle = m_NextHandle++;
  info.name = alloc.name;
  info.size = alloc.size;

  const int ret = client()->registerShm(info);
  if (ret != 0) {
    // The region stays mapped and open: nothing refers to it any more.
    MGR_LOGE("[%s] error: [User:%d, Sensor:%u] Unable to register shared memories, type: %d\n",
             __FUNCTION__, id.user, id.sensorIdx, alloc.type);
    return ret;
  }
  recordOnly(makeKey(id, alloc.type), std::move(info));
  return 0;
}

int IPCClientShmMgr::allocateShmMem(IPC_USER user, unsigned int sensorIdx, ShmMemAlloc& alloc) {
  return allocateShmMem(Identifier{user, sensorIdx, 0}, alloc);
}

int IPCClientShmMgr::allocateAllShmMems(Identifier id, ShmMemAlloc* allocs, unsigned int count) {
  std::lock_guard<std::mutex> lock(m_Lock);

  if (client() == nullptr) {
    MGR_LOGE("[%s] error: no Vro IPCClient\n", __FUNCTION__);
    return -1;
  }
  MGR_LOGD("[%s] [User:%d, sensorIdx:%u, UserId:%llu] vec size:%u, 1st handle:%d\n", __FUNCTION__,
           id.user, id.sensorIdx, llu(id.userId), count, m_NextHandle);

  for (unsigned int i = 0; i < count; ++i) {
    const ShmMemAlloc& alloc = allocs[i];
    ShmMemInfo info;

    int fd = -1;
    void* addr = nullptr;
    const int allocated =
        allocateShmMem(id.sensorIdx, alloc.name, static_cast<int>(alloc.size), &fd, &addr);
    if (allocated != 0) {
      MGR_LOGE(
          "[%s] error: [User:%d, Sensor:%u, UserId:%llu] Unable to allocate shared memory for %s, "
          "size:%u\n",
          __FUNCTION__, id.user, id.sensorIdx, llu(id.userId), alloc.name.c_str(), alloc.size);
      return allocated;
    }
    info.addr = addr;
    info.fd = fd;
    info.handle = m_NextHandle++;
    info.name = alloc.name;
    info.size = alloc.size;

    MGR_LOGD(
        "[%s] [User:%d, Sensor:%u, UserId:%llu] type:%d, addr:0x%p, fd:%d, handle:%d, name:%s, "
        "size:%d\n",
        __FUNCTION__, id.user, id.sensorIdx, llu(id.userId), alloc.type, info.addr, info.fd,
        info.handle, info.name.c_str(), info.size);
    MGR_LOGD("[%s] [User:%d, Sensor:%u] calling to IPC client\n", __FUNCTION__, id.user,
             id.sensorIdx);
    const int ret = client()->registerShm(info);
    if (ret != 0) {
      MGR_LOGE("[%s] error: [User:%d, Sensor:%u] Unable to register shared memories, name:%s\n",
               __FUNCTION__, id.user, id.sensorIdx, alloc.name.c_str());
      return ret;
    }
    recordOnly(makeKey(id, alloc.type), std::move(info));
  }
  return 0;
}

int IPCClientShmMgr::allocateAllShmMems(IPC_USER user, unsigned int sensorIdx, ShmMemAlloc* allocs,
                                        unsigned int count) {
  return allocateAllShmMems(Identifier{user, sensorIdx, 0}, allocs, count);
}

// ---- Registration of memory the caller holds ---------------------------------------------------

int IPCClientShmMgr::registerShmMem(Identifier id, unsigned int type, std::string name, int fd,
                                    unsigned int size, void* addr, ShmMemInfo& out) {
  std::lock_guard<std::mutex> lock(m_Lock);

  out.addr = addr;
  out.fd = fd;
  out.handle = m_NextHandle++;
  out.name = name;
  out.size = size;  // out.type stays as the caller set it

  const int ret = client()->registerShm(out);
  if (ret != 0) {
    MGR_LOGE(
        "[%s] error: [User:%d, Sensor:%d, UserId:%llu] Unable to register shared memories, "
        "type: %d\n",
        __FUNCTION__, id.user, id.sensorIdx, llu(id.userId), type);
    return ret;
  }
  m_ShmMemMap[makeKey(id, type)][fd] = out;
  MGR_LOGD(
      "[%s] [User:%d, Sensor:%d, UserId:%llu] shmMemType:%d, name:%s, fd:%d, size:%d, "
      "addr:0x%p, handle:%d\n",
      __FUNCTION__, id.user, id.sensorIdx, llu(id.userId), type, name.c_str(), fd, size, addr,
      out.handle);
  return 0;
}

int IPCClientShmMgr::registerShmMem(IPC_USER user, unsigned int sensorIdx, unsigned int type,
                                    std::string name, int fd, unsigned int size, void* addr,
                                    ShmMemInfo& out) {
  return registerShmMem(Identifier{user, sensorIdx, 0}, type, name, fd, size, addr, out);
}

int IPCClientShmMgr::registerShmMem(Identifier id, std::vector<ShmMemInfo> infos) {
  std::vector<ShmMemInfo> registered;
  std::lock_guard<std::mutex> lock(m_Lock);

  MGR_LOGD("[%s] [User:%d, Sensor:%d, UserId:%llu] register shm, size:%zu\n", __FUNCTION__, id.user,
           id.sensorIdx, llu(id.userId), infos.size());
  registered.reserve(infos.size());
  for (const ShmMemInfo& info : infos) {
    registered.emplace_back(info.name, info.type, info.size, info.fd, info.addr, m_NextHandle++);
  }

  const int ret = client()->registerShms(registered);
  if (ret != 0) {
    MGR_LOGE("[%s] error: [User:%d, Sensor:%d, UserId:%llu] Unable to register shared memories\n",
             __FUNCTION__, id.user, id.sensorIdx, llu(id.userId));
    return ret;
  }
  for (const ShmMemInfo& info : registered) {
    m_ShmMemMap[makeKey(id, info.type)][info.fd] = info;
    MGR_LOGD(
        "[%s] [User:%d, Sensor:%d, UserId:%llu] shmMemType:%d, name:%s, fd:%d, size:%d, "
        "addr:0x%p, handle:%d\n",
        __FUNCTION__, id.user, id.sensorIdx, llu(id.userId), info.type, info.name.c_str(), info.fd,
        info.size, info.addr, info.handle);
  }
  return 0;
}

int IPCClientShmMgr::registerShmMem(IPC_USER user, unsigned int sensorIdx,
                                    std::vector<ShmMemInfo> infos) {
  return registerShmMem(Identifier{user, sensorIdx, 0}, infos);
}

// ---- Lookup ------------------------------------------------------------------------------------

int IPCClientShmMgr::getShmInfo(std::vector<ShmMemInfo>& infos, Identifier id, unsigned int type) {
  const ShmMemMapKey key = makeKey(id, type);
  std::lock_guard<std::mutex> lock(m_Lock);

  auto entry = m_ShmMemMap.find(key);
  if (entry == m_ShmMemMap.end() || entry->second.empty()) return -1;
  MGR_LOGD_LOOKUP("[%s] [User:%d, Sensor:%d, UserId:%llu] shmType:%d, size:%zu\n", __FUNCTION__,
                  id.user, id.sensorIdx, llu(id.userId), type, entry->second.size());
  infos.clear();
  infos.reserve(entry->second.size());
  for (const auto& record : entry->second) infos.push_back(record.second);
  return 0;
}

int IPCClientShmMgr::getShmInfo(ShmMemInfo& out, Identifier id, unsigned int type, int fd) {
  const ShmMemMapKey key = makeKey(id, type);
  std::lock_guard<std::mutex> lock(m_Lock);

  auto entry = m_ShmMemMap.find(key);
  if (entry == m_ShmMemMap.end() || entry->second.empty()) return -1;
  const std::map<int, ShmMemInfo>& records = entry->second;
  MGR_LOGD_LOOKUP("[%s] [User:%d, Sensor:%d, UserId:%llu] shmType:%d, fd:%d, size:%zu\n",
                  __FUNCTION__, id.user, id.sensorIdx, llu(id.userId), type, fd, records.size());
  if (fd == -1) {
    out = records.begin()->second;
    MGR_LOGD_LOOKUP("[%s] found, fd:%d, addr:0x%p, handle:%d, size:%d, name:%s\n", __FUNCTION__,
                    out.fd, out.addr, out.handle, out.size, out.name.c_str());
    return 0;
  }
  auto record = records.find(fd);
  if (record == records.end()) return -1;
  out = record->second;
  return 0;
}

int IPCClientShmMgr::getShmInfo(ShmMemInfo& out, IPC_USER user, unsigned int sensorIdx,
                                unsigned int type, int fd) {
  return getShmInfo(out, Identifier{user, sensorIdx, 0}, type, fd);
}

// ---- Release -----------------------------------------------------------------------------------

int IPCClientShmMgr::releaseShmMem(int size, int fd, void* addr) {
  munmap(addr, static_cast<size_t>(size));
  close(fd);
  return 0;
}

int IPCClientShmMgr::releaseShmMem(Identifier id, ShmMemAlloc* allocs, unsigned int count) {
  if (client() == nullptr) {
    MGR_LOGE("[%s] error: no Vro IPCClient\n", __FUNCTION__);
    return -1;
  }
  MGR_LOGD("[%s] [User:%d, Sensor:%u, UserId:%llu], vec size:%u\n", __FUNCTION__, id.user,
           id.sensorIdx, llu(id.userId), count);

  int ret = 0;
  for (unsigned int i = 0; i < count; ++i) {
    const unsigned int type = allocs[i].type;
    ret = releaseShmMem(id, type, true, -1);
    if (ret != 0) {
      MGR_LOGE("[%s] error: Error, unable to release shared memory on client side, type:%d\n",
               __FUNCTION__, type);
    }
    m_ShmMemMap.erase(makeKey(id, type));  // without the lock, by design
  }
  return ret;
}

int IPCClientShmMgr::releaseShmMem(IPC_USER user, unsigned int sensorIdx, ShmMemAlloc* allocs,
                                   unsigned int count) {
  return releaseShmMem(Identifier{user, sensorIdx, 0}, allocs, count);
}

int IPCClientShmMgr::releaseShmMem(Identifier id, unsigned int type, bool bReleaseBuf, int fd) {
  if (client() == nullptr) {
    MGR_LOGE("[%s] error: no Vro IPCClient\n", __FUNCTION__);
    return -1;
  }
  MGR_LOGD("[%s] [User:%d, Sensor:%u, UserId:%llu] type:%d, bReleaseBuf:%d, fd:%d\n", __FUNCTION__,
           id.user, id.sensorIdx, llu(id.userId), type, bReleaseBuf ? 1 : 0, fd);

  std::vector<ShmMemInfo> infos;
  if (fd == -1) {
    if (getShmInfo(infos, id, type) != 0) return 0;
  } else {
    // A single descriptor is looked up under user id 0, whatever the caller's user id.
    ShmMemInfo info;
    if (getShmInfo(info, Identifier{id.user, id.sensorIdx, 0}, type, fd) != 0) return 0;
    infos.push_back(info);
  }

  std::lock_guard<std::mutex> lock(m_Lock);
  const int ret = client()->deregisterShms(infos);
  if (ret != 0) {
    MGR_LOGE("[%s] error: unable to deregister buffers from vro IPC Client\n", __FUNCTION__);
  }
  if (bReleaseBuf) unmapAndClose(infos);
  if (fd == -1) {
    m_ShmMemMap.erase(makeKey(id, type));
  } else {
    m_ShmMemMap[makeKey(id, type)].erase(fd);  // the key stays, even when left empty
  }
  return ret;
}

int IPCClientShmMgr::releaseShmMem(IPC_USER user, unsigned int sensorIdx, unsigned int type,
                                   bool bReleaseBuf, int fd) {
  return releaseShmMem(Identifier{user, sensorIdx, 0}, type, bReleaseBuf, fd);
}

int IPCClientShmMgr::releaseShmMem(Identifier id, std::vector<unsigned int> types,
                                   bool bReleaseBuf) {
  if (client() == nullptr) {
    MGR_LOGE("[%s] error: no Vro IPCClient\n", __FUNCTION__);
    return -1;
  }
  MGR_LOGD("[%s] [User:%d, Sensor:%u, UserId:%llu] typeSize:%zu, bReleaseBuf:%d\n", __FUNCTION__,
           id.user, id.sensorIdx, llu(id.userId), types.size(), bReleaseBuf ? 1 : 0);

  std::vector<ShmMemInfo> infos;
  std::vector<ShmMemInfo> ofType;
  for (unsigned int type : types) {
    if (getShmInfo(ofType, id, type) == 0) infos.insert(infos.end(), ofType.begin(), ofType.end());
  }
  if (infos.empty()) return 0;

  std::lock_guard<std::mutex> lock(m_Lock);
  const int ret = client()->deregisterShms(infos);
  if (ret != 0) {
    MGR_LOGE("[%s] error: unable to deregister buffers from vro IPC Client\n", __FUNCTION__);
  }
  if (bReleaseBuf) unmapAndClose(infos);
  for (unsigned int type : types) m_ShmMemMap.erase(makeKey(id, type));
  return ret;
}

int IPCClientShmMgr::releaseAllShmMems() {
  std::lock_guard<std::mutex> lock(m_Lock);
  MGR_LOGD_ALWAYS("[%s] Release all registered shared memories.\n", __FUNCTION__);
  if (client() == nullptr) {
    MGR_LOGE("[%s] error: no Vro IPCClient\n", __FUNCTION__);
    return -1;
  }

  size_t count = 0;
  for (const auto& key : m_ShmMemMap) count += key.second.size();
  std::vector<ShmMemInfo> infos;
  infos.reserve(count);
  for (const auto& key : m_ShmMemMap) {
    for (const auto& record : key.second) infos.push_back(record.second);
  }
  const int ret = client()->deregisterShms(infos);
  if (ret != 0) {
    MGR_LOGE("[%s] error: unable to deregister buffers from vro IPC Client\n", __FUNCTION__);
  }
  unmapAndClose(infos);  // in the order they were sent
  m_ShmMemMap.clear();
  return ret;
}

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
