// SPDX-License-Identifier: Apache-2.0
// getBootMode read from a temporary file standing in for the kernel's boot-mode file.
#include "BootMode.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <tuple>

#include "FaultInjection.h"
#include "LogCapture.h"
#include "ProcessState.h"

// One open and close per call: the leading number of 3 chars, or 0 and a warning if unreadable.
TEST(BootModeTest, ParsesLeadingDigitsAndWarnsWhenUnreadable) {
  const std::string path = "/sys/class/BOOT/BOOT/boot/boot_mode";
  const std::string file = testing::TempDir() + "boot_mode_" + std::to_string(getpid());
  // Content (null: no file), mode, and the one line logged: its debug-print level and text.
  const std::tuple<const char*, int, int, std::string> cases[] = {
      {"4\n", 4, 0, "Boot Mode 4"},
      {"7", 7, 0, "Boot Mode 7"},
      {"1234", 123, 0, "Boot Mode 123"},
      {"abc", 0, 0, "Boot Mode 0"},
      {"", 0, 2, "could not read boot mode sys file"},
      {nullptr, 0, 2, "fail to open: " + path}};
  for (const auto& [content, mode, level, line] : cases) {
    SCOPED_TRACE(line);
    vrocam::test::LeakGuard leaks;
    if (content != nullptr) std::ofstream(file) << content;
    vrocam::test::LogCapture log;
    std::optional<vrocam::test::DescriptorZeroFree> zero;
    if (mode == 4) zero.emplace();
    vrocam::test::FaultScope scope;
    scope.redirectOpen(path, file);
    EXPECT_EQ(NSCam::Utils::getBootMode(), mode);
    unlink(file.c_str());
    const auto opens = scope.calls(vrocam::test::Fn::Open);
    ASSERT_EQ(opens.size(), 1u);
    if (zero) {
      EXPECT_EQ(opens[0].result, 0);
    }
    EXPECT_EQ(std::tie(opens[0].name, opens[0].args),
              std::make_tuple(path, std::vector<long>{O_RDONLY}));
    EXPECT_EQ(scope.closedFds(), content ? std::vector{int(opens[0].result)} : std::vector<int>{});
    const auto logged = log.logged();
    const auto printed = log.printed();
    ASSERT_TRUE(logged.size() == 1 && printed.size() == 1);
    EXPECT_EQ(std::tie(logged[0].moduleId, logged[0].tag, logged[0].level, logged[0].text),
              std::make_tuple(0x40007001u, "VroCam/Utils", level == 0 ? 5 : 2, line));
    EXPECT_EQ(std::tie(printed[0].tag, printed[0].level), std::make_tuple("VroCam/Utils", level));
    EXPECT_THAT(printed[0].text, testing::EndsWith(" getBootMode() " + line));
    zero.reset();
    leaks.expectNoLeaks();
  }
  EXPECT_NE(access(file.c_str(), F_OK), 0);
}
