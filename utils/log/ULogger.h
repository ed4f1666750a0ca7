// SPDX-License-Identifier: Apache-2.0
// The unified logger of the closed logging library: its global switches and its message sink.
#pragma once

#include <cstdint>

namespace NSCam {
namespace Utils {
namespace ULog {

class ULogger {
 public:
  // Detail lines need at least 5, warning lines at least 2.
  static uint32_t sDetailsLevel;
  // Module mask of detail lines: a bit of the module's group (bits 16-31) and of its sub-group
  // (bits 12-15) must both be set.
  static uint32_t sNormalDetailsMask;
  // Bit 0: debug-print sink on; bit 1 or bit 3: unified logger on.
  static uint32_t sMode;
  // Receiver of the unified logger's lines; null switches that sink off.
  static ULogger* sULogger;

  virtual ~ULogger();
  // One line. length is what the formatter reported, which can exceed what message holds.
  virtual void onLogMessage(uint32_t moduleId, const char* tag, int level, const char* message,
                            int length);
};

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam
