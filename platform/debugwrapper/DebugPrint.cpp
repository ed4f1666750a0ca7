// SPDX-License-Identifier: Apache-2.0
// Host debug-print back end: per-level switches, file names without folders, lines on stderr.
#include "DebugPrint.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "EnvSwitch.h"
#include "HostDebugPrint.h"
#include "HostLogLine.h"

namespace {

// Bit n of VROCAM_LOG_DBG_LEVELS enables level n (default: all).
uint8_t levelFlags(cam_debug_level_t level) {
  const uint32_t enabled = vrocam::host::envSwitch("VROCAM_LOG_DBG_LEVELS", 0x7);
  return (enabled & (1u << level)) != 0 ? kLogLevelEnabled : 0;
}

log_level_info_t levelInfo(cam_debug_level_t level, const char* prefix) {
  log_level_info_t info{};
  info.flags = levelFlags(level);
  info.prefix = prefix;
  return info;
}

std::atomic<DebugPrintHook> gHook{nullptr};

}  // namespace

extern "C" {

log_level_info_t g_logInfoLv[CAM_DBG_LEVEL_NUM] = {
    levelInfo(CAM_DBG_LEVEL_DETAIL, "<D>"),
    levelInfo(CAM_DBG_LEVEL_ERROR, "<E>"),
    levelInfo(CAM_DBG_LEVEL_WARNING, "<W>"),
};

void log_dbg_print(const char* tag, cam_debug_level_t level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (DebugPrintHook hook = gHook.load()) {
    hook(tag, level, format, args);
  } else {
    char text[1024];
    (void)vsnprintf(text, sizeof(text), format, args);  // a cut line is still printed
    static const char kLetters[] = {'D', 'E', 'W'};
    const char letter = level >= 0 && level < CAM_DBG_LEVEL_NUM ? kLetters[level] : 'I';
    vrocam::host::writeLogLine(letter, tag, text);
  }
  va_end(args);
}

const char* get_filename_log_control(const char* path) {
  if (path == nullptr) return "";
  const char* slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

}  // extern "C"

DebugPrintHook host_set_debug_print_hook(DebugPrintHook hook) { return gHook.exchange(hook); }
