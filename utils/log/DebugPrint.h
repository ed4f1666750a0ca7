// SPDX-License-Identifier: Apache-2.0
// The debug-print back end of the closed logging library: levels, per-level switches, the sink.
#pragma once

#include <cstddef>
#include <cstdint>

enum cam_debug_level_t : int {
  CAM_DBG_LEVEL_DETAIL = 0,
  CAM_DBG_LEVEL_ERROR = 1,
  CAM_DBG_LEVEL_WARNING = 2,
  CAM_DBG_LEVEL_NUM,
};

// One record per level. Only the flags byte and the prefix are read by the front end.
struct log_level_info_t {
  uint8_t reserved0[6];
  uint8_t flags;  // bit 7: the level prints through log_dbg_print
  uint8_t reserved1;
  const char* prefix;  // shown in front of each line of the level
  uint8_t reserved2[16];
};
static_assert(sizeof(log_level_info_t) == 32, "log_level_info_t is a 32-byte record");
static_assert(offsetof(log_level_info_t, flags) == 6, "flags at byte 6");
static_assert(offsetof(log_level_info_t, prefix) == 8, "prefix at byte 8");

constexpr uint8_t kLogLevelEnabled = 0x80;

extern "C" {
extern log_level_info_t g_logInfoLv[CAM_DBG_LEVEL_NUM];
void log_dbg_print(const char* tag, cam_debug_level_t level, const char* format, ...);
const char* get_filename_log_control(const char* path);
}
