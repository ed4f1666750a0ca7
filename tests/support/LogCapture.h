// SPDX-License-Identifier: Apache-2.0
// LogCapture: records what the unified logger and the debug-print sink receive, and restores the
// logging switches when it goes.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "DebugPrint.h"
#include "ULogger.h"

namespace vrocam {
namespace test {

// A line as the unified logger received it.
struct LoggedLine {
  uint32_t moduleId;
  std::string tag;
  int level;
  std::string text;
  int length;  // as passed, which can exceed text.size()
};

// A line as log_dbg_print received it: the format it was given, and the text it would print.
struct PrintedLine {
  std::string tag;
  int level;
  std::string format, text;
};

// While alive, both sinks feed this capture (nothing reaches stderr). It saves every switch the
// front end reads and opens them fully (details level 5, every mask bit, both sinks, every
// debug-print level, prefixes "<D>", "<E>", "<W>"); tests narrow them, and it puts them back.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LoggedLine> logged() const;
  std::vector<PrintedLine> printed() const;
  std::vector<std::string> texts() const;  // the unified logger's, in order
  void clear();

 private:
  uint32_t mDetailsLevel, mMask, mMode;
  NSCam::Utils::ULog::ULogger* mLogger;
  log_level_info_t mLevels[CAM_DBG_LEVEL_NUM];
};

// Ends GoogleTest's capture of stderr (testing::internal::CaptureStderr()): what was written,
// each line without its time stamp ("MM-DD HH:MM:SS.mmm").
std::string capturedStderr();

// The length of a host log line's time stamp.
constexpr size_t kTimeStamp = 18;

// What follows the time stamp in a host log line of pid's main thread: " PID   PID L TAG     : ".
std::string logHead(char level, const std::string& tag, pid_t pid = getpid());

}  // namespace test
}  // namespace vrocam
