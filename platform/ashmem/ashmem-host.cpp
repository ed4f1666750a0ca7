// SPDX-License-Identifier: Apache-2.0
// Host ashmem: a region is a memfd sized once and sealed against growing and shrinking.
#include <cutils/ashmem.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "SealedMemfd.h"

namespace {

using vrocam::host::kRegionSeals;
#ifdef F_SEAL_FUTURE_WRITE
constexpr int kReadOnlySeal = F_SEAL_FUTURE_WRITE;
#else
constexpr int kReadOnlySeal = F_SEAL_WRITE;
#endif

// The region's seals, or -1 with errno (EBADF for a bad descriptor, EINVAL for a non-memfd).
int regionSeals(int fd) { return fcntl(fd, F_GET_SEALS); }

bool isRegion(int seals) {
  return seals >= 0 && (seals & kRegionSeals) == kRegionSeals && (seals & F_SEAL_SEAL) == 0;
}

}  // namespace

extern "C" int ashmem_create_region(const char* name, size_t size) {
  return vrocam::host::sealedMemfd(name != nullptr ? name : "none", size, kRegionSeals).release();
}

extern "C" int ashmem_set_prot_region(int fd, int prot) {
  const int seals = regionSeals(fd);
  if (seals < 0) return -1;
  if (!isRegion(seals)) {
    errno = EINVAL;
    return -1;
  }
  if ((prot & PROT_WRITE) != 0) {
    // Like ashmem, a region that lost its write protection cannot get it back.
    if ((seals & (F_SEAL_WRITE | kReadOnlySeal)) != 0) {
      errno = EINVAL;
      return -1;
    }
    return 0;
  }
  return fcntl(fd, F_ADD_SEALS, kReadOnlySeal) == 0 ? 0 : -1;
}

extern "C" int ashmem_get_prot_region(int fd) {
  const int seals = regionSeals(fd);
  if (seals < 0) return -1;
  return (seals & (F_SEAL_WRITE | kReadOnlySeal)) != 0 ? PROT_READ
                                                       : PROT_READ | PROT_WRITE | PROT_EXEC;
}

// Regions are never purged, so pinning has nothing to do; a bad descriptor is still an error.
extern "C" int ashmem_pin_region(int fd, size_t /*offset*/, size_t /*len*/) {
  return fcntl(fd, F_GETFD) < 0 ? -1 : ASHMEM_NOT_PURGED;
}

extern "C" int ashmem_unpin_region(int fd, size_t /*offset*/, size_t /*len*/) {
  return fcntl(fd, F_GETFD) < 0 ? -1 : ASHMEM_IS_UNPINNED;
}

extern "C" int ashmem_get_size_region(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0) return -1;
  if (st.st_size > INT_MAX) {
    errno = EOVERFLOW;
    return -1;
  }
  return static_cast<int>(st.st_size);
}

extern "C" int ashmem_valid(int fd) {
  const int seals = regionSeals(fd);
  if (seals < 0) return errno == EBADF ? -1 : 0;
  return isRegion(seals) ? 1 : 0;
}
