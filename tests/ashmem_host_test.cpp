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

// A region shows its name, keeps its size against a peer's truncation, and once its write
// protection is dropped maps read-only but never writable again.
TEST(AshmemHostTest, RegionIsNamedSealedAndProtectable) {
  vrotest::LeakGuard leaks;
  const int fd = ashmem_create_region("vrocam-region", 8192);
  const int peer = dup(fd);
  EXPECT_EQ(vrotest::LeakGuard::openDescriptors()[fd].rfind("/memfd:vrocam-region", 0), 0u);
  for (const off_t size : {16384, 4096, 0}) {
    EXPECT_TRUE(ftruncate(peer, size) == -1 && errno == EPERM) << size;
  }
  EXPECT_EQ(ashmem_set_prot_region(fd, PROT_READ | PROT_WRITE), 0);
  EXPECT_EQ(ashmem_set_prot_region(fd, PROT_READ), 0);
  EXPECT_EQ(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, peer, 0), MAP_FAILED);
  void* readOnly = mmap(nullptr, 8192, PROT_READ, MAP_SHARED, peer, 0);
  EXPECT_TRUE(readOnly != MAP_FAILED && munmap(readOnly, 8192) == 0);
  EXPECT_EQ(ashmem_set_prot_region(fd, PROT_READ | PROT_WRITE), -1);
  EXPECT_EQ(ashmem_valid(peer), 1);
  EXPECT_EQ(close(peer) | close(fd), 0);
  leaks.expectNoLeaks();
}

// ashmem_valid is 1 only for the stand-in's own regions, 0 for other open descriptors, -1 for bad
// ones; sizes or names the kernel refuses give -1 with errno, never a crash or a leak.
TEST(AshmemHostTest, ValidOnlyForOwnRegionsAndBadRequestsFailCleanly) {
  vrotest::LeakGuard leaks;
  int pipeFds[2] = {-1, -1};
  ASSERT_EQ(pipe(pipeFds), 0);
  const int file = open("/proc/self/exe", O_RDONLY);
  const int own[] = {ashmem_create_region("own", 4096), ashmem_create_region("empty", 0)};
  const int plain = memfd_create("plain", 0),
            sealable = memfd_create("sealable", MFD_ALLOW_SEALING);
  const int closed = dup(plain);
  close(closed);
  const std::pair<int, int> cases[] = {{own[0], 1}, {own[1], 1},   {pipeFds[0], 0}, {file, 0},
                                       {plain, 0},  {sealable, 0}, {-1, -1},        {closed, -1}};
  for (const auto& [fd, valid] : cases) EXPECT_EQ(ashmem_valid(fd), valid) << fd;
  for (const int fd : {own[0], own[1], plain, sealable, pipeFds[0], pipeFds[1], file}) close(fd);
  for (const auto& [name, size] : {std::pair<std::string, size_t>{"max", SIZE_MAX},
                                   {"half", SIZE_MAX / 2 + 1},
                                   {std::string(300, 'n'), 1}}) {
    errno = 0;
    const int fd = ashmem_create_region(name.c_str(), size);
    EXPECT_TRUE(fd >= 0 ? ashmem_valid(fd) == 1 && close(fd) == 0 : fd == -1 && errno != 0) << size;
  }
  leaks.expectNoLeaks();
}
