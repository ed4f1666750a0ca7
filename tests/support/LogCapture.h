// SPDX-License-Identifier: Apache-2.0
// LogCapture: records what the unified logger and the debug-print sink receive, and restores the
// logging switches when it goes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "DebugPrint.h"
#include "ULogger.h"

namespace vrotest {

// Saves every switch the front end reads (and the logger), and puts them back on destruction.
class SwitchGuard {
 public:
  SwitchGuard();
  ~SwitchGuard();
  SwitchGuard(const SwitchGuard&) = delete;
  SwitchGuard& operator=(const SwitchGuard&) = delete;

 private:
  uint32_t mDetailsLevel;
  uint32_t mMask;
  uint32_t mMode;
  NSCam::Utils::ULog::ULogger* mLogger;
  log_level_info_t mLevels[CAM_DBG_LEVEL_NUM];
};

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
  std::string format;
  std::string text;
};

// While alive, both sinks feed this capture (nothing reaches stderr). The switches start fully
// open (details level 5, every mask bit, both sinks, every debug-print level, prefixes
// "<D>", "<E>", "<W>"); tests narrow them and the guard restores them.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LoggedLine> logged() const;
  std::vector<PrintedLine> printed() const;
  // The unified logger's texts, in order.
  std::vector<std::string> texts() const;
  // How many unified-logger lines contain needle.
  int countContaining(const std::string& needle) const;
  void clear();

 private:
  SwitchGuard mSwitches;
};

}  // namespace vrotest
