// SPDX-License-Identifier: Apache-2.0
// The peer daemon's log: one line per call on stderr, written without ever waiting. A line that
// cannot be written at once is counted and dropped, and the count reported when writing works
// again; a line repeated at once is counted and summarised. Used from the serving thread only.
#pragma once

#include <chrono>

namespace vrocam {
namespace peer {

// Writes one line ('I', 'W' or 'E').
void peerLog(char level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// Reports repeats and dropped lines not yet reported, once a second at most.
void flushPeerLog();
// Whether a report is still due (the serving loop then wakes up to flush).
bool peerLogPending();

}  // namespace peer
}  // namespace vrocam
