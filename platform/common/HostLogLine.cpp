// SPDX-License-Identifier: Apache-2.0
// Host log output shared by the logging stand-ins.
#include "HostLogLine.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vrocam_host {

void writeLogLine(char levelLetter, const char* tag, const char* text) {
  char line[1200];
  int n = snprintf(line, sizeof(line), "%c/%s(%d): ", levelLetter, tag != nullptr ? tag : "",
                   static_cast<int>(getpid()));
  if (n < 0) return;
  size_t used = static_cast<size_t>(n) < sizeof(line) ? static_cast<size_t>(n) : sizeof(line) - 1;
  for (const char* p = text; p != nullptr && *p != '\0' && used < sizeof(line) - 1; ++p) {
    line[used++] = (*p == '\n' || *p == '\r') ? ' ' : *p;
  }
  while (used > 0 && line[used - 1] == ' ') --used;
  line[used++] = '\n';
  ssize_t ignored = write(STDERR_FILENO, line, used);
  (void)ignored;
}

uint32_t envSwitch(const char* name, uint32_t fallback) {
  const char* text = getenv(name);
  if (text == nullptr || *text == '\0') return fallback;
  char* end = nullptr;
  const unsigned long value = strtoul(text, &end, 0);
  if (*end != '\0' || value > 0xFFFFFFFFul) return fallback;
  return static_cast<uint32_t>(value);
}

}  // namespace vrocam_host
