// SPDX-License-Identifier: Apache-2.0
// Environment switches, checked.
#include "EnvSwitch.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "HostLogLine.h"

namespace vrocam {
namespace host {

uint32_t envSwitch(const char* name, uint32_t fallback, uint32_t min, uint32_t max) {
  const char* text = getenv(name);
  if (text == nullptr || *text == '\0') return fallback;
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = strtoull(text, &end, 0);
  if (errno == 0 && *end == '\0' && text[0] != '-' && value >= min && value <= max) {
    return static_cast<uint32_t>(value);
  }
  char line[256];
  snprintf(line, sizeof(line), "%s=%s is not a whole number from %u to %u: %u is used", name, text,
           min, max, fallback);
  writeLogLine('W', "VroHost", line);
  return fallback;
}

}  // namespace host
}  // namespace vrocam
