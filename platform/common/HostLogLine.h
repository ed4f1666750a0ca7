// SPDX-License-Identifier: Apache-2.0
// Host log output shared by the logging stand-ins: one "L/TAG(PID): text" line on stderr.
#pragma once

#include <cstdint>

namespace vrocam_host {

// Writes one line with a single write, so that lines of several threads never interleave.
// Trailing line breaks end the line; every other control character of text is written as an
// escape (\n, \r, \t, \xHH), so that each call writes exactly one line.
void writeLogLine(char levelLetter, const char* tag, const char* text);

// The unsigned value of the environment variable name (decimal or 0x hex), or fallback.
uint32_t envSwitch(const char* name, uint32_t fallback);

}  // namespace vrocam_host
