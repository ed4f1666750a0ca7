// SPDX-License-Identifier: Apache-2.0
// Host log output shared by the logging stand-ins: one "L/TAG(PID): text" line on stderr.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vrocam_host {

// The longest line written; a longer one is cut.
constexpr size_t kMaxLogLine = 1200;

// Formats one line into buffer: its size, line break included. Trailing line breaks of text end
// the line; every other control character is written as an escape (\n, \r, \t, \xHH), so that
// each line is exactly one line.
size_t formatLogLine(char* buffer, size_t capacity, char levelLetter, const char* tag,
                     const char* text);

// Writes one line with a single write, so that lines of several threads never interleave.
void writeLogLine(char levelLetter, const char* tag, const char* text);

// The unsigned value of the environment variable name (decimal or 0x hex), or fallback.
uint32_t envSwitch(const char* name, uint32_t fallback);

}  // namespace vrocam_host
