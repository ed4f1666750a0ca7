// SPDX-License-Identifier: Apache-2.0
// Records shared by the shared-memory manager and the IPC client: IPC_USER, ShmMemAlloc,
// ShmMemInfo.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace NSCam {
namespace ipc {
namespace wrapper {

// The component on whose behalf memory is created. Any signed 32-bit value is valid; the
// manager only carries it, orders the registry by it (signed) and prints it with "%d".
enum IPC_USER : int {
  IPC_USER_PIPELINE = 0,
  IPC_USER_ISP = 1,
  IPC_USER_3A = 2,
  IPC_USER_FACE = 3,
  IPC_USER_NUM,
};

// A request to create one shared memory. The manager only reads it.
struct ShmMemAlloc {
  std::string name;   // region name, also the name of the resulting record
  unsigned int type;  // caller's type code; with the owner it forms the registry key
  unsigned int size;  // bytes
};

// One shared memory as registered with the IPC client and kept in the registry. This record
// crosses into the IPC client library: its field order and widths must not change.
struct ShmMemInfo {
  std::string name;
  unsigned int type;
  unsigned int size;
  int fd;      // descriptor in this process; -1 means none
  void* addr;  // mapping in this process; null means none
  int handle;  // handle given at registration; -1 means none

  ShmMemInfo() : name(), type(0), size(0), fd(-1), addr(nullptr), handle(-1) {}
  ShmMemInfo(const std::string& name_, unsigned int type_, unsigned int size_, int fd_, void* addr_,
             int handle_)
      : name(name_), type(type_), size(size_), fd(fd_), addr(addr_), handle(handle_) {}
};

#if defined(_LIBCPP_VERSION)
static_assert(sizeof(ShmMemInfo) == 56, "ShmMemInfo layout (libc++)");
static_assert(offsetof(ShmMemInfo, type) == 24 && offsetof(ShmMemInfo, size) == 28 &&
                  offsetof(ShmMemInfo, fd) == 32 && offsetof(ShmMemInfo, addr) == 40 &&
                  offsetof(ShmMemInfo, handle) == 48,
              "ShmMemInfo layout (libc++)");
#elif defined(__GLIBCXX__)
static_assert(sizeof(ShmMemInfo) == 64, "ShmMemInfo layout (libstdc++)");
static_assert(offsetof(ShmMemInfo, type) == 32 && offsetof(ShmMemInfo, size) == 36 &&
                  offsetof(ShmMemInfo, fd) == 40 && offsetof(ShmMemInfo, addr) == 48 &&
                  offsetof(ShmMemInfo, handle) == 56,
              "ShmMemInfo layout (libstdc++)");
#endif
static_assert(offsetof(ShmMemInfo, name) == 0, "ShmMemInfo starts with its name");

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
