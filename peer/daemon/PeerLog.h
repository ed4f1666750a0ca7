// SPDX-License-Identifier: Apache-2.0
// The peer daemon's log: one line per call on stderr, written without ever waiting. A line that
// cannot be written at once is counted and dropped, and the count reported when writing works
// again; a line repeated at once is counted and summarised; the lines that clients cause as often
// as they like are limited per kind, and what was suppressed is counted and reported. Used from
// the serving thread only.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace vrocam {
namespace peer {

// Writes one line ('I', 'W' or 'E').
void peerLog(char level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The kinds of line that a client causes at will. Each kind gets kLogBurst lines at once, and
// kLogRate a second after that; the rest are suppressed and counted.
enum class LogKind { Connected, Disconnected, Refused, Undone };
constexpr int kLogBurst = 20;
constexpr int kLogRate = 10;
// Writes one line of kind, unless too many of its kind came lately.
void peerLog(LogKind kind, char level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// "1 memory", "2 memories".
std::string counted(size_t count, const char* one, const char* many);
// Reports repeats and dropped lines not yet reported, once a second at most.
void flushPeerLog();
// Whether a report is still due (the serving loop then wakes up to flush).
bool peerLogPending();

}  // namespace peer
}  // namespace vrocam
