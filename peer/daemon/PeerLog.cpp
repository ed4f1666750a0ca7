// SPDX-License-Identifier: Apache-2.0
// The peer daemon's log, never waiting on stderr.
#include "PeerLog.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "HostLogLine.h"
#include "PeerServer.h"

namespace vrocam {
namespace peer {
namespace {

using Clock = std::chrono::steady_clock;

// The allowance of one kind of line: a bucket of kLogBurst lines, refilled at kLogRate a second.
struct Allowance {
  double lines = kLogBurst;
  Clock::time_point filled = Clock::now();
  unsigned long suppressed = 0;
};

struct LogState {
  int fd = -1;          // where lines go: stderr, or a non-blocking reopening of it
  bool socket = false;  // stderr is a socket: sent with MSG_DONTWAIT
  unsigned long dropped = 0;
  unsigned long repeats = 0;
  char lastLevel = 0;
  std::string last;
  Clock::time_point reported;
  Allowance kinds[4];  // by LogKind
};

// What the lines of each LogKind are about.
const char* const kKindTexts[] = {"clients connecting", "clients disconnecting", "clients refused",
                                  "registrations given up"};

LogState& state() {
  static LogState* log = [] {
    auto* s = new LogState();  // lives as long as the process, as stderr does
    s->fd = STDERR_FILENO;
    struct stat st {};
    if (fstat(STDERR_FILENO, &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode))) {
      // A pipe or terminal of its own, non-blocking, leaves the shared one as it is.
      const int own = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      if (own >= 0) s->fd = own;
    }
    s->socket = S_ISSOCK(st.st_mode);
    return s;
  }();
  return *log;
}

// Writes one whole line now or counts it as dropped.
void emit(LogState& log, char level, const char* text) {
  char line[host::kMaxLogLine];
  const size_t size = host::formatLogLine(line, sizeof(line), level, "vrocam_ipc_peer", text);
  const ssize_t written = log.socket ? send(log.fd, line, size, MSG_DONTWAIT | MSG_NOSIGNAL)
                                     : write(log.fd, line, size);
  if (written != static_cast<ssize_t>(size)) ++log.dropped;
}

void report(LogState& log) {
  char text[160];
  if (log.repeats != 0) {
    snprintf(text, sizeof(text), "(the line before was repeated %lu more times)", log.repeats);
    log.repeats = 0;
    emit(log, log.lastLevel, text);
  }
  if (log.dropped != 0) {
    const unsigned long dropped = log.dropped;
    log.dropped = 0;
    snprintf(text, sizeof(text), "dropped %lu log lines: the log could not take them at once",
             dropped);
    emit(log, 'W', text);
    if (log.dropped != 0) log.dropped += dropped;  // still blocked: keep counting
  }
  for (Allowance& kind : log.kinds) {
    if (kind.suppressed == 0) continue;
    snprintf(text, sizeof(text), "suppressed %lu lines about %s: at most %d a second are logged",
             kind.suppressed, kKindTexts[&kind - log.kinds], kLogRate);
    kind.suppressed = 0;
    emit(log, 'W', text);
  }
  log.reported = Clock::now();
}

bool reportDue(const LogState& log) {
  if (log.repeats != 0 || log.dropped != 0) return true;
  for (const Allowance& kind : log.kinds) {
    if (kind.suppressed != 0) return true;
  }
  return false;
}

void add(LogState& log, char level, const char* format, va_list ap) {
  char text[1024];
  vsnprintf(text, sizeof(text), format, ap);
  if (level == log.lastLevel && log.last == text) {
    ++log.repeats;
    return;
  }
  if (log.repeats != 0 || log.dropped != 0) report(log);
  log.lastLevel = level;
  log.last = text;
  emit(log, level, text);
}

}  // namespace

void peerLog(char level, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  add(state(), level, format, ap);
  va_end(ap);
}

void peerLog(LogKind kind, char level, const char* format, ...) {
  LogState& log = state();
  Allowance& allowance = log.kinds[static_cast<int>(kind)];
  const Clock::time_point now = Clock::now();
  const std::chrono::duration<double> passed = now - allowance.filled;
  allowance.lines = std::min<double>(kLogBurst, allowance.lines + passed.count() * kLogRate);
  allowance.filled = now;
  if (allowance.lines < 1) {
    ++allowance.suppressed;
    return;
  }
  allowance.lines -= 1;
  va_list ap;
  va_start(ap, format);
  add(log, level, format, ap);
  va_end(ap);
}

std::string counted(size_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

void flushPeerLog() {
  LogState& log = state();
  if (reportDue(log) && Clock::now() - log.reported >= std::chrono::seconds(1)) {
    report(log);
    log.last.clear();  // what comes next is not a repeat of a line now summarised
  }
}

void setPeerLogFile(int fd) {
  state().fd = fd;
  state().socket = false;
}

bool peerLogPending() { return reportDue(state()); }

}  // namespace peer
}  // namespace vrocam
