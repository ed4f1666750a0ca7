// SPDX-License-Identifier: Apache-2.0
// Host unified logger: switches from the environment at start, lines on stderr.
#include "ULogger.h"

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
uint32_t ULogger::sDetailsLevel = vrocam_host::envSwitch("VROCAM_LOG_LEVEL", 2);
uint32_t ULogger::sNormalDetailsMask = vrocam_host::envSwitch("VROCAM_LOG_MASK", 0xFFFFFFFFu);
uint32_t ULogger::sMode = vrocam_host::envSwitch("VROCAM_LOG_MODE", 0x2);
ULogger* ULogger::sULogger = &gStderrLogger;

ULogger::~ULogger() = default;

void ULogger::onLogMessage(uint32_t /*moduleId*/, const char* tag, int level, const char* message,
                           int /*length*/) {
  vrocam_host::writeLogLine(levelLetter(level), tag, message);
}

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam
