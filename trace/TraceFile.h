// SPDX-License-Identifier: Apache-2.0
// TraceFile: one process's trace of the IPC link, in the Chrome trace-event JSON format that
// Perfetto and the Chrome DevTools open: a JSON array whose events are one line each, timed on
// CLOCK_BOOTTIME (as Android's system traces are), so that the files of both sides line up.
//
// The file is bounded: events go into fixed slots, at most `limit` of them; past the limit it
// either stops (keeps the first) or keeps the newest, overwriting the oldest slot, and counts what
// it dropped in the event of its first slot. A file that ends because its process was killed still
// loads (its closing bracket missing, which the readers allow; an event cut by the kill is left out
// by the merge). Slots are written through a shared mapping of the file, so that an event costs no
// system call; the file is written with spaces a window ahead, and cut to its events at the end. A
// file that cannot be made or written is said once, and never stops the link.
//
// Locking: one mutex over the slots, held for one write; any thread may add events.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Mapping.h"
#include "UniqueFd.h"

namespace vrocam {
namespace trace {

// Now on CLOCK_BOOTTIME, in nanoseconds.
int64_t nowNs();

// The ids of this process and of the calling thread, asked of the system once (again in a child).
pid_t processId();
pid_t threadId();
// The name of thread tid of this process ("" when it cannot be read).
std::string threadName(pid_t tid);
// What names a flow, the arrow from a client's call to the peer's handling of it, on both sides.
std::string flowId(pid_t client, uint32_t seq);

// One event being written: its fields in the order added, as JSON.
class Event {
 public:
  // ph: "X", "i", "C", "M", "s" or "f".
  Event(const char* ph, const std::string& name, int64_t tsNs, pid_t tid);
  Event& dur(int64_t ns);
  Event& id(const std::string& flow);  // flow events; "f" ones bind to their enclosing slice's end
  // args, one by one: numbers, and strings (escaped for JSON, cut to keep events small).
  Event& arg(const char* key, long long value);
  Event& arg(const char* key, const std::string& value);
  std::string line() const;
  pid_t tid() const { return mTid; }

 private:
  std::string mHead;
  std::string mArgs;
  pid_t mTid;
  bool mFlowEnd;
};

struct TraceLimits {
  size_t events = 200000;  // about 64 MiB at most
  bool keepNewest = false;
};

// Says a problem of the trace once, as its process says things (its log); null: failed() tells.
using TraceReport = void (*)(const std::string& problem);

class TraceFile {
 public:
  // Opens ROLE-PID.json in dir (made and never followed: a file there already is an error), for
  // the process named processName; null when it cannot, said through report. A write that fails
  // later (a full disk) is said too, once, and the file is left as it stands.
  static std::unique_ptr<TraceFile> open(const std::string& dir, const char* role,
                                         const std::string& processName, const TraceLimits& limits,
                                         TraceReport report);
  // Writes what was dropped and the closing bracket.
  ~TraceFile();
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;

  // Adds events written together (a slice and its flow, say); the first time a thread adds any,
  // its name goes first.
  void add(const Event& event);
  void add(std::initializer_list<Event> events);
  void add(const std::vector<Event>& events);
  const std::string& path() const { return mPath; }
  // Whether a write failed (a full disk, say): nothing more is written then.
  bool failed() const;

  // Size of a slot: an event longer than that is cut to fit.
  static constexpr size_t kSlot = 320;
  // Where the slots start: "[\n", then the header (the process's name and what was dropped).
  static constexpr size_t kHeaderEnd = 2 + 512;

 private:
  TraceFile(host::UniqueFd fd, std::string path, const TraceLimits& limits, TraceReport report);
  // Writes text at offset; on failure says so (once) and writes nothing more.
  void put(const std::string& text, off_t offset);
  void fail(const char* what);
  void add(const Event* events, size_t count);
  void write(pid_t tid, const std::string* lines, size_t count);
  // Puts one line into the next slot, or counts it as dropped.
  void place(const std::string& line);
  // Slot number at in the mapped window, the window moved there first; null when that failed.
  char* slotAt(uint64_t at);
  void header();

  mutable std::mutex mLock;
  host::UniqueFd mFd;
  const std::string mPath;
  const TraceLimits mLimits;
  const TraceReport mReport;
  uint64_t mWritten = 0;  // events written, overwritten ones included
  uint64_t mDropped = 0;
  bool mFailed = false;  // a write failed (full disk): nothing more is written
  std::string mProcess;
  std::set<pid_t> mNamed;          // threads whose name was written
  host::Mapping mWindow;           // the slots being written, shared with the file
  uint64_t mWindowFirst = 0;       // the first slot in mWindow
  uint64_t mWindowStart = 0;       // where that slot is in mWindow
  uint64_t mFileEnd = kHeaderEnd;  // the file is written (spaces at least) up to here
};

}  // namespace trace
}  // namespace vrocam
