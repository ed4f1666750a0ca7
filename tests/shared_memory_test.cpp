// SPDX-License-Identifier: Apache-2.0
// SharedMemory::allocate: the failure paths with their log lines, and the region handed back.
#include "SharedMemory.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <tuple>

#include "FaultInjection.h"
#include "LogCapture.h"
#include "ProcessState.h"

using NSCam::utils::sys::SharedMemory;
using vrocam::test::Fn;

// Each failing step returns -1, closes only the new descriptor, and logs on both sinks.
TEST(SharedMemoryTest, FailuresCloseOnlyTheNewDescriptorAndLogEachStep) {
  const std::string prot = std::string("set memory protection failed(") + strerror(EPERM) + ")";
  const std::string created = "create shared memory failed", invalid = "invalid ashem fd";
  const std::tuple<Fn, long, int, bool, std::string, std::string> cases[] = {
      {Fn::AshmemCreate, -1, ENOMEM, false, created, created},
      {Fn::AshmemSetProt, -1, EPERM, false, "set memory protection failed(%s)", prot},
      {Fn::AshmemValid, 0, 0, false, invalid, invalid},
      {Fn::AshmemValid, -1, EBADF, false, invalid, invalid},
      {Fn::AshmemSetProt, -1, EPERM, true, "set memory protection failed(%s)", prot},
      {Fn::AshmemValid, 0, 0, true, invalid, invalid}};
  for (const auto& [fn, result, err, closeFails, format, text] : cases) {
    SCOPED_TRACE(text + (closeFails ? ", close fails" : ""));
    vrocam::test::LeakGuard leaks;
    vrocam::test::LogCapture log;
    vrocam::test::FaultScope scope;
    scope.fail(fn, 1, result, err);
    if (closeFails) scope.fail(Fn::Close, 1, -1, EIO);
    const auto failed = SharedMemory::allocate("vrocam-fail", 4096);
    EXPECT_EQ(std::make_pair(failed.get(), failed.flags()), std::make_pair(-1, 0ul));
    const int fd = int(scope.calls(Fn::AshmemCreate).at(0).result);
    EXPECT_EQ(scope.closedFds(), fn == Fn::AshmemCreate ? std::vector<int>{} : std::vector{fd});
    EXPECT_EQ(scope.count(Fn::AshmemSetProt), fn == Fn::AshmemCreate ? 0 : 1);
    EXPECT_EQ(scope.count(Fn::AshmemValid), fn == Fn::AshmemValid ? 1 : 0);
    std::vector<std::pair<std::string, std::string>> want = {{format, text}};
    if (closeFails) {
      want.emplace_back(
          "close file descriptor (%d) failed: %s",
          "close file descriptor (" + std::to_string(fd) + ") failed: " + strerror(EIO));
    }
    const auto logged = log.logged();
    const auto printed = log.printed();
    ASSERT_TRUE(logged.size() == want.size() && printed.size() == want.size());
    for (size_t i = 0; i < want.size(); ++i) {
      EXPECT_EQ(std::tie(logged[i].moduleId, logged[i].tag, logged[i].level, logged[i].text),
                std::make_tuple(0x101001u, "SharedMemory", 1, want[i].second));
      EXPECT_EQ(std::tie(printed[i].tag, printed[i].level), std::make_tuple("SharedMemory", 1));
      // The line number of the site shows in the head and in the suffix.
      const std::string site = "<E>[SharedMemory] SharedMemory.cpp:";
      const std::string line = std::to_string(atoi(printed[i].format.c_str() + site.size()));
      const std::string head = site + line + " allocate() ";
      EXPECT_EQ(printed[i].format, head + want[i].first + " (%s){#%d:%s}");
      EXPECT_EQ(printed[i].text,
                head + want[i].second + " (allocate){#" + line + ":utils/sys/SharedMemory.cpp}");
    }
    // The failed close did not run: the descriptor is still ours to close.
    EXPECT_EQ(closeFails ? close(fd) : 0, 0);
    leaks.expectNoLeaks();
  }
}

// On success the wrapper owns the created region, unchanged, shared, with nothing closed or logged.
TEST(SharedMemoryTest, SuccessOwnsTheCreatedRegionWhichIsShared) {
  const std::pair<std::string, size_t> cases[] = {{"vrocam-buf", 4096}, {"", 1}, {"odd", 12345}};
  for (const auto& [name, size] : cases) {
    vrocam::test::LeakGuard leaks;
    {
      vrocam::test::LogCapture log;
      vrocam::test::FaultScope scope;
      const auto fd = SharedMemory::allocate(name, size);
      const auto made = scope.calls(Fn::AshmemCreate).at(0);
      EXPECT_TRUE(made.name == name && made.args[0] == long(size) && made.result == fd.get())
          << name;
      EXPECT_GE(fd.get(), 0);
      EXPECT_EQ(fd.flags(), 0u);
      EXPECT_TRUE(scope.closedFds().empty() && log.logged().empty() && log.printed().empty());
      auto* a = static_cast<char*>(mmap(nullptr, size, PROT_WRITE, MAP_SHARED, fd.get(), 0));
      auto* b = static_cast<char*>(mmap(nullptr, size, PROT_READ, MAP_SHARED, fd.get(), 0));
      ASSERT_TRUE(a != MAP_FAILED && b != MAP_FAILED);
      a[size - 1] = 'w';
      EXPECT_EQ(b[size - 1], 'w');
      EXPECT_EQ(munmap(a, size) | munmap(b, size), 0);
    }
    leaks.expectNoLeaks();
  }
}
