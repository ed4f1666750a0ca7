// SPDX-License-Identifier: Apache-2.0
// Host ashmem calls: regions are named, fixed-size and protectable memfds.
#include <cutils/ashmem.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "LeakGuard.h"

using vrotest::LeakGuard;

// A region is named, fixed-size, closed on exec, and write-protectable once and for good.
TEST(AshmemHostTest, RegionIsNamedFixedSizeAndProtectable) {
  LeakGuard leaks;
  for (const size_t size : {size_t{1}, size_t{12345}, size_t{1} << 20}) {
    const int fd = ashmem_create_region(size == 1 ? nullptr : "vrocam-region", size);
    EXPECT_EQ(ashmem_get_size_region(fd), static_cast<int>(size));
    const std::string name = size == 1 ? "/memfd:none" : "/memfd:vrocam-region";
    EXPECT_EQ(LeakGuard::openDescriptors()[fd].rfind(name, 0), 0u);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    for (const off_t other : {off_t{0}, off_t(size + 4096)}) {
      EXPECT_TRUE(ftruncate(fd, other) == -1 && errno == EPERM) << size;
    }
    close(fd);
  }
  const int fd = ashmem_create_region("prot", 8192);
  EXPECT_EQ(ashmem_pin_region(fd, 0, 0), ASHMEM_NOT_PURGED);
  EXPECT_EQ(ashmem_unpin_region(fd, 0, 4096), ASHMEM_IS_UNPINNED);
  EXPECT_EQ(ashmem_get_prot_region(fd), PROT_READ | PROT_WRITE | PROT_EXEC);
  EXPECT_EQ(ashmem_set_prot_region(fd, PROT_READ | PROT_WRITE), 0);
  EXPECT_EQ(ashmem_set_prot_region(fd, PROT_READ), 0);
  EXPECT_EQ(ashmem_get_prot_region(fd), PROT_READ);
  EXPECT_EQ(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0), MAP_FAILED);
  EXPECT_EQ(errno, EPERM);
  void* readOnly = mmap(nullptr, 8192, PROT_READ, MAP_SHARED, fd, 0);
  EXPECT_TRUE(readOnly != MAP_FAILED && munmap(readOnly, 8192) == 0);
  EXPECT_EQ(ashmem_set_prot_region(fd, PROT_READ | PROT_WRITE), -1);
  close(fd);
  leaks.expectNoLeaks();
}

// ashmem_valid knows only own regions; bad descriptors, sizes or names give -1 with errno, no leak.
TEST(AshmemHostTest, ValidOnlyForOwnRegionsAndBadRequestsFailCleanly) {
  LeakGuard leaks;
  int pipeFds[2] = {-1, -1};
  ASSERT_EQ(pipe(pipeFds), 0);
  const int own[] = {ashmem_create_region("own", 4096), ashmem_create_region("empty", 0)};
  const int plain = memfd_create("plain", 0),
            sealable = memfd_create("sealable", MFD_ALLOW_SEALING);
  const int closed = dup(plain);
  close(closed);
  const std::pair<int, int> cases[] = {{own[0], 1},   {own[1], 1}, {pipeFds[0], 0}, {plain, 0},
                                       {sealable, 0}, {-1, -1},    {closed, -1}};
  for (const auto& [fd, valid] : cases) EXPECT_EQ(ashmem_valid(fd), valid) << fd;
  for (const int fd : {own[0], own[1], plain, sealable, pipeFds[0], pipeFds[1]}) close(fd);
  for (const auto call :
       {+[] { return ashmem_pin_region(-1, 0, 0); }, +[] { return ashmem_unpin_region(-1, 0, 0); },
        +[] { return ashmem_get_size_region(-1); }, +[] { return ashmem_get_prot_region(-1); },
        +[] { return ashmem_set_prot_region(-1, 0); }}) {
    errno = 0;
    EXPECT_TRUE(call() == -1 && errno == EBADF);
  }
  for (const auto& [name, size] : {std::pair<std::string, size_t>{"max", SIZE_MAX},
                                   {"half", SIZE_MAX / 2 + 1},
                                   {std::string(300, 'n'), 1}}) {
    errno = 0;
    const int fd = ashmem_create_region(name.c_str(), size);
    EXPECT_TRUE(fd >= 0 ? ashmem_valid(fd) == 1 && close(fd) == 0 : fd == -1 && errno != 0) << size;
  }
  leaks.expectNoLeaks();
}
