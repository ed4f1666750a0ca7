// SPDX-License-Identifier: Apache-2.0
// Host ashmem calls: regions are named, fixed-size and protectable memfds.
#include <cutils/ashmem.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "LeakGuard.h"

using vrotest::LeakGuard;

// A region is named, fixed-size, shared across fork, closed on exec, and write-protectable once.
TEST(AshmemHostTest, RegionIsNamedSealedSharedAndProtectable) {
  LeakGuard leaks;
  std::vector<int> fds;
  for (const size_t size : {size_t{1}, size_t{12345}, size_t{1} << 20, size_t{8192}}) {
    fds.push_back(ashmem_create_region(size == 8192 ? "vrocam-region" : nullptr, size));
    EXPECT_EQ(ashmem_get_size_region(fds.back()), static_cast<int>(size));
    const std::string name = size == 8192 ? "/memfd:vrocam-region" : "/memfd:none";
    EXPECT_EQ(LeakGuard::openDescriptors()[fds.back()].rfind(name, 0), 0u);
  }
  const int fd = fds.back(), peer = dup(fd);
  for (const off_t size : {16384, 4096, 0}) {
    EXPECT_TRUE(ftruncate(peer, size) == -1 && errno == EPERM) << size;
  }
  EXPECT_EQ(ashmem_pin_region(fd, 0, 0), ASHMEM_NOT_PURGED);
  EXPECT_EQ(ashmem_unpin_region(fd, 0, 4096), ASHMEM_IS_UNPINNED);
  std::vector<char*> maps;
  for (const int region : fds) {
    maps.push_back(static_cast<char*>(mmap(nullptr, 1, PROT_READ, MAP_SHARED, region, 0)));
  }
  const pid_t child = fork();
  if (child == 0) {  // writes every region through mappings of its own
    for (const int region : fds) {
      void* addr = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, region, 0);
      if (addr == MAP_FAILED) _exit(1);
      *static_cast<char*>(addr) = static_cast<char>('a' + region % 26);
    }
    _exit(0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  for (size_t i = 0; i < fds.size(); ++i) EXPECT_EQ(*maps[i], 'a' + fds[i] % 26) << i;
  EXPECT_EQ(system(("test ! -e /proc/self/fd/" + std::to_string(fd)).c_str()), 0)
      << "a region's descriptor survived exec";

  EXPECT_EQ(ashmem_get_prot_region(fd), PROT_READ | PROT_WRITE | PROT_EXEC);
  EXPECT_EQ(ashmem_set_prot_region(fd, PROT_READ | PROT_WRITE), 0);
  EXPECT_EQ(ashmem_set_prot_region(fd, PROT_READ), 0);
  EXPECT_EQ(ashmem_get_prot_region(fd), PROT_READ);
  errno = 0;
  EXPECT_EQ(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, peer, 0), MAP_FAILED);
  EXPECT_EQ(errno, EPERM);
  void* readOnly = mmap(nullptr, 8192, PROT_READ, MAP_SHARED, peer, 0);
  EXPECT_TRUE(readOnly != MAP_FAILED && munmap(readOnly, 8192) == 0);
  EXPECT_EQ(ashmem_set_prot_region(fd, PROT_READ | PROT_WRITE), -1);
  for (size_t i = 0; i < fds.size(); ++i) EXPECT_EQ(munmap(maps[i], 1) | close(fds[i]), 0);
  EXPECT_EQ(close(peer), 0);
  leaks.expectNoLeaks();
}

// ashmem_valid knows only own regions; bad descriptors, sizes or names give -1 with errno, no leak.
TEST(AshmemHostTest, ValidOnlyForOwnRegionsAndBadRequestsFailCleanly) {
  LeakGuard leaks;
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
  for (const auto call :
       {+[] { return ashmem_pin_region(-1, 0, 0); }, +[] { return ashmem_unpin_region(-1, 0, 0); },
        +[] { return ashmem_get_size_region(-1); }, +[] { return ashmem_get_prot_region(-1); }}) {
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
