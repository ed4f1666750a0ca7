// SPDX-License-Identifier: Apache-2.0
// Host log output shared by the stand-ins, the socket client and the peer: one line per message
// on stderr, laid out as logcat's threadtime format shows the device's lines:
// "MM-DD HH:MM:SS.mmm   PID   TID L TAG     : text".
#pragma once

#include <cstddef>

namespace vrocam {
namespace host {

// The longest line written; a longer one is cut.
constexpr size_t kMaxLogLine = 1200;

// Formats one line into buffer: its size, line break included. Trailing line breaks of text end
// the line; the rest is escaped (Escape.h), so that each line is exactly one line.
size_t formatLogLine(char* buffer, size_t capacity, char levelLetter, const char* tag,
                     const char* text);

// Writes one line with a single write, so that lines of several threads never interleave.
void writeLogLine(char levelLetter, const char* tag, const char* text);

}  // namespace host
}  // namespace vrocam
