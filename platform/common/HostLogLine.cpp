// SPDX-License-Identifier: Apache-2.0
// Host log lines in logcat's threadtime layout.
#include "HostLogLine.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

namespace vrocam_host {

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
  // The line breaks that end a message end the line; every other control character is shown as
  // an escape, so that a message (a name from another process, say) cannot break or forge lines.
  size_t length = text != nullptr ? strlen(text) : 0;
  while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) --length;
  for (size_t i = 0; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    char escape[5];
    size_t size = 1;
    escape[0] = static_cast<char>(c);
    if (c == '\n' || c == '\r' || c == '\t') {
      escape[0] = '\\';
      escape[1] = c == '\n' ? 'n' : c == '\r' ? 'r' : 't';
      size = 2;
    } else if (c < 0x20 || c == 0x7F) {
      snprintf(escape, sizeof(escape), "\\x%02x", c);
      size = 4;
    }
    if (capacity - 1 - used < size) break;  // a long line is cut, never an escape in it
    memcpy(line + used, escape, size);
    used += size;
  }
  line[used++] = '\n';
  return used;
}

void writeLogLine(char levelLetter, const char* tag, const char* text) {
  char line[kMaxLogLine];
  const size_t size = formatLogLine(line, sizeof(line), levelLetter, tag, text);
  ssize_t ignored = write(STDERR_FILENO, line, size);
  (void)ignored;
}

}  // namespace vrocam_host
