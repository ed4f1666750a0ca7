// SPDX-License-Identifier: Apache-2.0
// Host log lines in logcat's threadtime layout.
#include "HostLogLine.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "Escape.h"

namespace vrocam {
namespace host {

size_t formatLogLine(char* line, size_t capacity, char levelLetter, const char* tag,
                     const char* text) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char when[32];
  strftime(when, sizeof(when), "%m-%d %H:%M:%S", &local);
  int n = snprintf(line, capacity, "%s.%03ld %5d %5d %c %-8s: ", when, now.tv_nsec / 1000000,
                   static_cast<int>(getpid()), static_cast<int>(syscall(SYS_gettid)), levelLetter,
                   tag != nullptr ? tag : "");
  if (n < 0) n = 0;
  size_t used = static_cast<size_t>(n) < capacity ? static_cast<size_t>(n) : capacity - 1;
  // The line breaks that end a message end the line; the rest cannot break or forge lines.
  size_t length = text != nullptr ? strlen(text) : 0;
  while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) --length;
  used += escapeInto(line + used, capacity - 1 - used, text, length);
  line[used++] = '\n';
  return used;
}

void writeLogLine(char levelLetter, const char* tag, const char* text) {
  char line[kMaxLogLine];
  const size_t size = formatLogLine(line, sizeof(line), levelLetter, tag, text);
  ssize_t ignored = write(STDERR_FILENO, line, size);
  (void)ignored;
}

}  // namespace host
}  // namespace vrocam
