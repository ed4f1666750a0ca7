// SPDX-License-Identifier: Apache-2.0
// Tests of the host stand-ins of the closed libraries and of what they share: ashmem regions are
// named, fixed-size and protectable memfds; properties come from the process or the environment;
// log lines cannot be broken or forged; the descriptor owner keeps errno.
#include <cutils/ashmem.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "HostProperties.h"
#include "LogCapture.h"
#include "ProcessSnapshot.h"
#include "ProcessState.h"
#include "Properties.h"
#include "ULogger.h"
#include "UniqueFd.h"

namespace vrocam {
namespace test {
namespace {

using NSCam::Utils::Properties::host_property_set;
using NSCam::Utils::Properties::property_get_int32;
using NSCam::Utils::ULog::ULogger;

// A region is named, fixed-size, closed on exec, and write-protectable once and for good.
TEST(AshmemHostTest, RegionIsNamedFixedSizeAndProtectable) {
  LeakGuard leaks;
  for (const size_t size : {size_t{1}, size_t{12345}, size_t{1} << 20}) {
    const int fd = ashmem_create_region(size == 1 ? nullptr : "vrocam-region", size);
    EXPECT_EQ(ashmem_get_size_region(fd), static_cast<int>(size));
    const std::string name = size == 1 ? "/memfd:none" : "/memfd:vrocam-region";
    EXPECT_EQ(host::ProcessSnapshot::of().descriptors[fd].rfind(name, 0), 0u);
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

// Only in-range whole numbers are read; the environment applies when no in-process value is set.
TEST(HostPropertiesTest, ValuesAndEnvironment) {
  constexpr char kKey[] = "vendor.debug.test.value";
  const std::pair<const char*, int32_t> cases[] = {
      {"7", 7}, {"-2147483648", INT32_MIN}, {"", 42}, {"12abc", 42}, {"2147483648", 42}};
  for (const auto& [text, value] : cases) {
    host_property_set(kKey, text);
    EXPECT_EQ(property_get_int32(kKey, 42), value) << '"' << text << '"';
  }
  ASSERT_EQ(setenv(kKey, "5", 1), 0);
  host_property_set(kKey, "9");
  EXPECT_EQ(property_get_int32(kKey, 42), 9);
  host_property_set(kKey, nullptr);
  EXPECT_EQ(property_get_int32(kKey, 42), 5);
  unsetenv(kKey);
  EXPECT_EQ(property_get_int32(kKey, 42), 42);
}

// What the host's stderr logger writes for message, without its time stamp and head.
std::string hostLine(const char* message) {
  ::testing::internal::CaptureStderr();
  ULogger().onLogMessage(0, "Tag", 2, message, 0);
  const std::string line = capturedStderr();
  const std::string head = logHead('W', "Tag");
  return line.compare(0, head.size(), head) == 0 ? line.substr(head.size()) : "bad head: " + line;
}

// Host log lines end at their trailing breaks, escape other controls, and are cut between escapes.
TEST(HostLogLineTest, ControlCharactersShowAsEscapes) {
  const std::pair<std::string, std::string> cases[] = {
      {"[init] m_DbgLog:0\n", "[init] m_DbgLog:0\n"},
      {"plain", "plain\n"},
      {"name:\x1b[2Jx\tend\r\n\n", "name:\\x1b[2Jx\\tend\n"},
      {"a\nE/Forged(1): b\n", "a\\nE/Forged(1): b\n"},
      {"\x01\x7f\\ \xc3\xa9", "\\x01\\x7f\\ \xc3\xa9\n"},
      {"", "\n"},
  };
  for (const auto& [message, expected] : cases) EXPECT_EQ(hostLine(message.c_str()), expected);
  const std::string longLine = hostLine(std::string(1500, '\x01').c_str());
  EXPECT_EQ(longLine.size() % 4, 1u);
  EXPECT_LT(longLine.size(), 1200u);
  EXPECT_EQ(longLine.back(), '\n');
}

// The descriptor owner closes what it holds and keeps errno, so that an error survives the close.
TEST(UniqueFdTest, ResetClosesAndKeepsErrno) {
  host::UniqueFd fd(dup(STDERR_FILENO));
  const int held = fd.get();
  errno = ENOSPC;
  fd.reset();
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_FALSE(isOpen(held));
}

}  // namespace
}  // namespace test
}  // namespace vrocam
