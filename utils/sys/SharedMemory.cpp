// SPDX-License-Identifier: Apache-2.0
// SharedMemory::allocate: create, protect (read and write), then check an ashmem region.
#include "SharedMemory.h"

#include <cutils/ashmem.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#define LOG_TAG "SharedMemory"
#define LOG_MODULE_ID 0x101001u
#include "GatedLog.h"

namespace NSCam {
namespace utils {
namespace sys {

FileDescriptor SharedMemory::allocate(const std::string& name, size_t size) {
  const int fd = ashmem_create_region(name.c_str(), size);
  if (fd < 0) {
    GLOG_ERROR("create shared memory failed");
    return FileDescriptor(-1, 0);
  }

  if (ashmem_set_prot_region(fd, PROT_READ | PROT_WRITE) < 0) {
    GLOG_ERROR("set memory protection failed(%s)", strerror(errno));
    if (close(fd) == -1) {
      GLOG_ERROR("close file descriptor (%d) failed: %s", fd, strerror(errno));
    }
    return FileDescriptor(-1, 0);
  }

  if (ashmem_valid(fd) != 1) {
    GLOG_ERROR("invalid ashem fd");
    if (close(fd) == -1) {
      GLOG_ERROR("close file descriptor (%d) failed: %s", fd, strerror(errno));
    }
    return FileDescriptor(-1, 0);
  }

  return FileDescriptor(fd, 0);
}

}  // namespace sys
}  // namespace utils
}  // namespace NSCam
