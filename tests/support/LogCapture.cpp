// SPDX-License-Identifier: Apache-2.0
// LogCapture: a capturing unified logger and a debug-print hook.
#include "LogCapture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "HostDebugPrint.h"

namespace vrocam {
namespace test {
namespace {

using NSCam::Utils::ULog::ULogger;

std::mutex gLock;
std::vector<LoggedLine> gLogged;
std::vector<PrintedLine> gPrinted;

class CapturingLogger : public ULogger {
 public:
  void onLogMessage(uint32_t moduleId, const char* tag, int level, const char* message,
                    int length) override {
    if (message == nullptr) return;  // the type check at installation
    std::lock_guard<std::mutex> guard(gLock);
    gLogged.push_back(LoggedLine{moduleId, tag, level, message, length});
  }
} gCapturingLogger;

void capturePrint(const char* tag, cam_debug_level_t level, const char* format, va_list args) {
  char text[4096];
  vsnprintf(text, sizeof(text), format, args);
  std::lock_guard<std::mutex> guard(gLock);
  gPrinted.push_back(PrintedLine{tag, level, format, text});
}

}  // namespace

LogCapture::LogCapture()
    : mDetailsLevel(ULogger::sDetailsLevel),
      mMask(ULogger::sNormalDetailsMask),
      mMode(ULogger::sMode),
      mLogger(ULogger::sULogger) {
  memcpy(mLevels, g_logInfoLv, sizeof(mLevels));
  clear();
  ULogger::sDetailsLevel = 5;
  ULogger::sNormalDetailsMask = 0xFFFFFFFFu;
  ULogger::sMode = 0x3;
  ULogger::sULogger = &gCapturingLogger;
  ULogger::sULogger->onLogMessage(0, "", 0, nullptr, 0);  // see the host ULogger
  static const char* const kPrefixes[CAM_DBG_LEVEL_NUM] = {"<D>", "<E>", "<W>"};
  for (int level = 0; level < CAM_DBG_LEVEL_NUM; ++level) {
    g_logInfoLv[level].flags |= kLogLevelEnabled;
    g_logInfoLv[level].prefix = kPrefixes[level];
  }
  host_set_debug_print_hook(&capturePrint);
}

LogCapture::~LogCapture() {
  host_set_debug_print_hook(nullptr);
  ULogger::sDetailsLevel = mDetailsLevel;
  ULogger::sNormalDetailsMask = mMask;
  ULogger::sMode = mMode;
  ULogger::sULogger = mLogger;
  memcpy(g_logInfoLv, mLevels, sizeof(mLevels));
}

std::vector<LoggedLine> LogCapture::logged() const {
  std::lock_guard<std::mutex> guard(gLock);
  return gLogged;
}

std::vector<PrintedLine> LogCapture::printed() const {
  std::lock_guard<std::mutex> guard(gLock);
  return gPrinted;
}

std::vector<std::string> LogCapture::texts() const {
  std::vector<std::string> out;
  for (const LoggedLine& line : logged()) out.push_back(line.text);
  return out;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> guard(gLock);
  gLogged.clear();
  gPrinted.clear();
}

std::string capturedStderr() {
  const std::string all = ::testing::internal::GetCapturedStderr();
  std::string out;
  for (size_t at = 0; at < all.size();) {
    const size_t end = std::min(all.find('\n', at), all.size() - 1) + 1;
    const size_t skip = std::min(kTimeStamp, end - at);
    out.append(all, at + skip, end - at - skip);
    at = end;
  }
  return out;
}

std::string logHead(char level, const std::string& tag, pid_t pid) {
  char head[64];
  snprintf(head, sizeof(head), " %5d %5d %c %-8s: ", pid, pid, level, tag.c_str());
  return head;
}

}  // namespace test
}  // namespace vrocam
