// SPDX-License-Identifier: Apache-2.0
// Host unified logger: switches from the environment at start, lines on stderr.
#include "ULogger.h"

#include "EnvSwitch.h"
#include "HostLogLine.h"

namespace NSCam {
namespace Utils {
namespace ULog {
namespace {

char levelLetter(int level) {
  switch (level) {
    case 1:
      return 'E';
    case 2:
      return 'W';
    case 3:
    case 4:
      return 'I';
    default:
      return 'D';
  }
}

ULogger gStderrLogger;

}  // namespace

// Defaults: warnings and errors shown, details off, only this sink on (one line per message).
uint32_t ULogger::sDetailsLevel = vrocam::host::envSwitch("VROCAM_LOG_LEVEL", 2);
uint32_t ULogger::sNormalDetailsMask = vrocam::host::envSwitch("VROCAM_LOG_MASK", 0xFFFFFFFFu);
uint32_t ULogger::sMode = vrocam::host::envSwitch("VROCAM_LOG_MODE", 0x2);
ULogger* ULogger::sULogger = &gStderrLogger;

ULogger::~ULogger() = default;

// In a build with UBSan's vptr check, the first call on a logger of a given type makes the
// sanitizer probe the object's vtable through a pipe, which takes two descriptors; later calls
// hit its cache. Make that first call as the logger is installed, not at the first line logged,
// which may come when the process has run out of descriptors (the check would then call the
// object invalid). A logger installed later should do the same. A null message prints nothing.
[[maybe_unused]] static const bool gTypeChecked =
    (ULogger::sULogger->onLogMessage(0, "", 0, nullptr, 0), true);

void ULogger::onLogMessage(uint32_t /*moduleId*/, const char* tag, int level, const char* message,
                           int /*length*/) {
  if (message == nullptr) return;
  vrocam::host::writeLogLine(levelLetter(level), tag, message);
}

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam
