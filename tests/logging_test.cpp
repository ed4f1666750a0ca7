// SPDX-License-Identifier: Apache-2.0
// Tests of the gated logging front end: its gates, both sinks, line formats and long lines.
#define LOG_TAG "LogTest"
#define LOG_MODULE_ID 0x101002u
#include "GatedLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include "LogCapture.h"

namespace {

using NSCam::Utils::ULog::ULogger;
using ::testing::ElementsAre;
using vrocam::test::LogCapture;

int gConds = 0, gArgs[4] = {};  // evaluations of the detail condition and of each site's arguments

// Logs a detail, a warning and an error line.
void eachKind(bool cond = true) {
  GLOG_DETAIL((++gConds, cond), "Detail %d\n", (++gArgs[0], 7));
  GLOG_WARNING("Warning %d\n", (++gArgs[1], 7));
  GLOG_ERROR("Error %d\n", (++gArgs[2], 7));
}
void textLine(const std::string& text) { GLOG_WARNING("%s", text.c_str()); }

#undef LOG_TAG
#undef LOG_MODULE_ID
#define LOG_TAG "VroCam/Utils"
#define LOG_MODULE_ID 0x40007001u
void bootLine() { GLOG_DETAIL(true, "Boot Mode %d", (++gArgs[3], 4)); }

// One line of each site; returns "unified|debug-print" with one letter per line received, and
// checks that the detail condition was evaluated once and arguments only for lines that went out.
std::string emitAll(LogCapture& log) {
  log.clear();
  gConds = gArgs[0] = gArgs[1] = gArgs[2] = gArgs[3] = 0;
  eachKind(), bootLine();
  std::string out;
  for (const auto& line : log.logged()) out += line.text[0];
  out += '|';
  for (const auto& line : log.printed()) out += line.text[line.text.find("() ") + 3];
  EXPECT_EQ(gConds, 1);
  for (int k = 0; k < 4; ++k) EXPECT_EQ(gArgs[k] > 0, out.find("DWEB"[k]) != out.npos) << k;
  return out;
}

// Level, mask and mode open exactly their lines and sinks; a closed gate evaluates no argument.
TEST(GatedLogTest, SwitchesGateEachKindOfLine) {
  LogCapture log;
  uint32_t *const level = &ULogger::sDetailsLevel, *const mask = &ULogger::sNormalDetailsMask,
                  *const mode = &ULogger::sMode;
  // clang-format off
  const std::tuple<uint32_t*, uint32_t, const char*> cases[] = {
      {level, 5, "DWEB|DWEB"}, {level, ~0u, "DWEB|DWEB"}, {level, 4, "WE|WE"}, {level, 2, "WE|WE"},
      {level, 1, "E|E"}, {mask, 0x100000, "WE|WE"}, {mask, 0x1000, "WE|WE"},
      {mask, 0x100002, "WE|WE"}, {mask, 0x101000, "DWE|DWE"}, {mask, 0x40001000, "WEB|WEB"},
      {mask, 0x40000000, "WE|WE"}, {mask, 0x40000001, "WE|WE"}, {mask, 0xF001, "WE|WE"},
      {mode, 0, "|"}, {mode, 4, "|"}, {mode, 1, "|DWEB"},
      {mode, 2, "DWEB|"}, {mode, 8, "DWEB|"}};
  // clang-format on
  for (const auto& [sw, value, expected] : cases) {
    *level = 5, *mask = ~0u, *mode = 3;
    *sw = value;
    EXPECT_EQ(emitAll(log), expected) << std::hex << value;
  }
  log.clear();
  gConds = gArgs[0] = 0;
  ULogger::sMode = 3;
  eachKind(false);
  EXPECT_TRUE(gConds == 1 && gArgs[0] == 0);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"Warning 7\n", "Error 7\n"}));
}

MATCHER_P4(Logged, module, tag, level, text, "") {
  return arg.moduleId == module && arg.tag == tag && arg.level == level && arg.text == text &&
         arg.length == static_cast<int>(arg.text.size());
}
// A level's enable bit and prefix act on the debug-print sink only; a null logger mutes its own.
TEST(GatedLogTest, LevelRecordsAndLoggerObject) {
  LogCapture log;
  const char* const expected[] = {"DWEB|WE", "DWEB|DWB", "DWEB|DEB"};
  for (int level = 0; level < CAM_DBG_LEVEL_NUM; ++level) {
    g_logInfoLv[level].flags = 0x7F;
    EXPECT_EQ(emitAll(log), expected[level]) << level;
    g_logInfoLv[level].flags = kLogLevelEnabled;
  }
  g_logInfoLv[CAM_DBG_LEVEL_WARNING].prefix = "<warn>";
  ULogger::sULogger = nullptr;
  EXPECT_EQ(emitAll(log), "|DWEB");
  EXPECT_EQ(log.printed()[1].format.rfind("<warn>[LogTest] ", 0), 0u);
}

// Unified lines are cut to 1023 chars keeping their length; a 1024-char debug print aborts.
TEST(GatedLogTest, LongLines) {
  GTEST_FLAG_SET(death_test_style, "fast");  // a new process of the executable needs no emulator
  LogCapture log;
  textLine("");
  EXPECT_THAT(log.logged(), ElementsAre(Logged(0x101002u, "LogTest", 2, "")));
  log.clear();
  textLine(std::string(2000, 'x'));
  ASSERT_EQ(log.logged().size(), 1u);
  EXPECT_EQ(log.logged()[0].text, std::string(1023, 'x'));
  EXPECT_EQ(log.logged()[0].length, 2000);
  g_logInfoLv[CAM_DBG_LEVEL_WARNING].prefix = "";
  log.clear();
  eachKind();
  std::string prefix(1023 - log.printed().at(1).format.size(), '<');  // a 1023-character line
  g_logInfoLv[CAM_DBG_LEVEL_WARNING].prefix = prefix.c_str();
  log.clear();
  eachKind();
  EXPECT_EQ(log.printed().at(1).format.size(), 1023u);
  prefix += '<';
  g_logInfoLv[CAM_DBG_LEVEL_WARNING].prefix = prefix.c_str();
  ULogger::sMode = 2;
  eachKind();  // the unified logger alone does not mind
  ULogger::sMode = 1;
  EXPECT_DEATH(eachKind(), "");
}

}  // namespace
