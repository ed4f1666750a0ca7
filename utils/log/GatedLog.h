// SPDX-License-Identifier: Apache-2.0
// The gated logging front end: decides from the back ends' switches whether a line is wanted and
// hands it to the debug-print sink and the unified logger. Expanded at each logging site.
//
// A site defines LOG_TAG and LOG_MODULE_ID, then uses
//   GLOG_DETAIL(cond, fmt, ...)  detail line; cond is tested first, then the level, then the mask
//   GLOG_WARNING(fmt, ...)       warning line
//   GLOG_ERROR(fmt, ...)         error line; the debug-print sink gets the location suffix
// Nothing is formatted when a gate is closed.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "DebugPrint.h"
#include "ULogger.h"

namespace NSCam {
namespace Utils {
namespace GatedLog {

constexpr size_t kLineSize = 1024;
constexpr int kDetailLevel = 5;
constexpr int kErrorLevel = 1;
constexpr int kWarningLevel = 2;

inline bool detailWanted(uint32_t moduleId) {
  using ULog::ULogger;
  if (ULogger::sDetailsLevel < static_cast<uint32_t>(kDetailLevel)) return false;
  const uint32_t mask = ULogger::sNormalDetailsMask;
  return (mask & moduleId & 0xFFFF0000u) != 0 && (mask & moduleId & 0x0000F000u) != 0;
}

inline bool warningWanted() {
  return ULog::ULogger::sDetailsLevel >= static_cast<uint32_t>(kWarningLevel);
}

inline bool debugPrintOn(cam_debug_level_t level) {
  return (ULog::ULogger::sMode & 0x1u) != 0 && (g_logInfoLv[level].flags & kLogLevelEnabled) != 0;
}

inline bool unifiedLoggerOn() { return (ULog::ULogger::sMode & 0xAu) != 0; }

// Formats into buf; a text that does not fit ends the process.
__attribute__((format(printf, 2, 3))) inline void formatChecked(char* buf, const char* format,
                                                                ...) {
  va_list ap;
  va_start(ap, format);
  const int n = vsnprintf(buf, kLineSize, format, ap);
  va_end(ap);
  if (n < 0 || static_cast<size_t>(n) >= kLineSize) abort();
}

// Hands a formatted line to the unified logger. n < 0 means the formatter failed.
inline void toUnifiedLogger(uint32_t moduleId, const char* tag, int level, char* buf, int n) {
  if (n < 0) return;
  buf[kLineSize - 1] = '\0';
  if (ULog::ULogger* logger = ULog::ULogger::sULogger) {
    logger->onLogMessage(moduleId, tag, level, buf, n);
  }
}

}  // namespace GatedLog
}  // namespace Utils
}  // namespace NSCam

// Source path of the site, relative to the repository root (see -fmacro-prefix-map).
#define GLOG_PATH_ __FILE__

// Both sinks for one line whose gate is open. errFmt is fmt or fmt with the location suffix;
// SUFFIX_ARGS supplies the suffix's arguments (or nothing).
#define GLOG_EMIT_(dbgLevel, ulogLevel, errFmt, SUFFIX_ARGS, fmt, ...)                       \
  do {                                                                                       \
    char glogBuf_[::NSCam::Utils::GatedLog::kLineSize];                                      \
    if (::NSCam::Utils::GatedLog::debugPrintOn(dbgLevel)) {                                  \
      memset(glogBuf_, 0, sizeof(glogBuf_));                                                 \
      ::NSCam::Utils::GatedLog::formatChecked(                                               \
          glogBuf_, "%s[%s] %s:%d %s() %s", g_logInfoLv[dbgLevel].prefix, LOG_TAG,           \
          get_filename_log_control(GLOG_PATH_), __LINE__, __FUNCTION__, errFmt);             \
      log_dbg_print(LOG_TAG, dbgLevel, glogBuf_, ##__VA_ARGS__ SUFFIX_ARGS);                 \
    }                                                                                        \
    if (::NSCam::Utils::GatedLog::unifiedLoggerOn()) {                                       \
      memset(glogBuf_, 0, sizeof(glogBuf_));                                                 \
      const int glogLen_ = snprintf(glogBuf_, sizeof(glogBuf_), fmt, ##__VA_ARGS__);         \
      ::NSCam::Utils::GatedLog::toUnifiedLogger(LOG_MODULE_ID, LOG_TAG, ulogLevel, glogBuf_, \
                                                glogLen_);                                   \
    }                                                                                        \
  } while (0)

#define GLOG_NO_SUFFIX_
#define GLOG_SUFFIX_ARGS_ , __FUNCTION__, __LINE__, GLOG_PATH_

#define GLOG_DETAIL(cond, fmt, ...)                                                 \
  do {                                                                              \
    if ((cond) && ::NSCam::Utils::GatedLog::detailWanted(LOG_MODULE_ID)) {          \
      GLOG_EMIT_(CAM_DBG_LEVEL_DETAIL, ::NSCam::Utils::GatedLog::kDetailLevel, fmt, \
                 GLOG_NO_SUFFIX_, fmt, ##__VA_ARGS__);                              \
    }                                                                               \
  } while (0)

#define GLOG_WARNING(fmt, ...)                                                        \
  do {                                                                                \
    if (::NSCam::Utils::GatedLog::warningWanted()) {                                  \
      GLOG_EMIT_(CAM_DBG_LEVEL_WARNING, ::NSCam::Utils::GatedLog::kWarningLevel, fmt, \
                 GLOG_NO_SUFFIX_, fmt, ##__VA_ARGS__);                                \
    }                                                                                 \
  } while (0)

#define GLOG_ERROR(fmt, ...)                                                                  \
  GLOG_EMIT_(CAM_DBG_LEVEL_ERROR, ::NSCam::Utils::GatedLog::kErrorLevel, fmt " (%s){#%d:%s}", \
             GLOG_SUFFIX_ARGS_, fmt, ##__VA_ARGS__)
