// SPDX-License-Identifier: Apache-2.0
// The bare system calls that the manager makes for one memory, as the baselines of the benchmarks:
// create (memfd_create, ftruncate, seals, duplicate, close the original, mmap) and release
// (munmap, close). withHostCalls adds the three fcntl calls the host stand-ins make on top
// (F_GET_SEALS in ashmem_set_prot_region and in ashmem_valid, F_GETFD in the loopback client).
#pragma once

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>

#include "IPCClientShmMgr.h"

namespace vrobench {

struct BareMemory {
  int fd = -1;
  void* addr = nullptr;
  size_t size = 0;
};

inline bool bareCreate(size_t size, bool withHostCalls, BareMemory* out) {
  const int region = memfd_create("bench", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (region < 0 || ftruncate(region, static_cast<off_t>(size)) != 0 ||
      fcntl(region, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK) != 0) {
    return false;
  }
  if (withHostCalls && (fcntl(region, F_GET_SEALS) < 0 || fcntl(region, F_GET_SEALS) < 0)) {
    return false;
  }
  out->fd = fcntl(region, F_DUPFD_CLOEXEC, 0);
  close(region);
  out->addr = mmap(nullptr, size, PROT_WRITE, MAP_SHARED, out->fd, 0);
  out->size = size;
  if (withHostCalls && fcntl(out->fd, F_GETFD) < 0) return false;
  return out->fd >= 0 && out->addr != MAP_FAILED;
}

inline void bareRelease(const BareMemory& memory) {
  munmap(memory.addr, memory.size);
  close(memory.fd);
}

// Benchmarks that hold thousands of memories need as many descriptors.
inline void raiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

inline NSCam::ipc::wrapper::IPCClientShmMgr::Identifier owner(int index) {
  return {static_cast<NSCam::ipc::wrapper::IPC_USER>(10 + index), 0, 0};
}

}  // namespace vrobench
