// SPDX-License-Identifier: Apache-2.0
// TraceFile: events in fixed slots of a JSON array.
#include "TraceFile.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <vector>

#include "ErrnoText.h"
#include "Escape.h"

namespace vrocam {
namespace trace {
namespace {

// Where the slots start: "[\n", then the header (the process's name and what was dropped).
constexpr size_t kFirstSlot = TraceFile::kHeaderEnd;
constexpr size_t kHeader = kFirstSlot - 2;
// String arguments are cut at this length: an event must fit its slot.
constexpr size_t kLongestString = 120;
// Slots are written through a mapping of this many at a time.
constexpr uint64_t kWindowSlots = 4096;

// Whether line fits a slot of size bytes, padded.
bool fits(const std::string& line, size_t size) { return line.size() + 2 <= size; }

// Writes line padded into the size bytes at out: the line, a comma, spaces, a line break.
void pad(char* out, const std::string& line, size_t size) {
  memcpy(out, line.data(), line.size());
  out[line.size()] = ',';
  memset(out + line.size() + 1, ' ', size - 2 - line.size());
  out[size - 1] = '\n';
}

// line padded into a slot of size bytes; empty when it does not fit.
std::string slot(const std::string& line, size_t size) {
  if (!fits(line, size)) return "";
  std::string out(size, ' ');
  pad(&out[0], line, size);
  return out;
}

}  // namespace

int64_t nowNs() {
  timespec ts{};
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

namespace {

// The ids of this process and thread, asked once: a child after fork asks again.
thread_local pid_t tThread = 0;
std::atomic<pid_t> gProcess{0};

void forget() {
  tThread = 0;
  gProcess.store(0, std::memory_order_relaxed);
}

}  // namespace

pid_t processId() {
  static const int registered = pthread_atfork(nullptr, nullptr, forget);
  (void)registered;
  pid_t pid = gProcess.load(std::memory_order_relaxed);
  if (pid == 0) {
    pid = getpid();
    gProcess.store(pid, std::memory_order_relaxed);
  }
  return pid;
}

pid_t threadId() {
  if (tThread == 0) {
    processId();  // the fork handler is there before any id is kept
    tThread = static_cast<pid_t>(syscall(SYS_gettid));
  }
  return tThread;
}

namespace {

void appendNumber(std::string& out, long long value) {
  char text[24];
  out.append(text, std::to_chars(text, text + sizeof(text), value).ptr);
}

// ns as JSON microseconds, nanoseconds kept as the fraction.
void appendMicros(std::string& out, int64_t ns) {
  appendNumber(out, ns / 1000);
  char fraction[4] = {'.', static_cast<char>('0' + ns / 100 % 10),
                      static_cast<char>('0' + ns / 10 % 10), static_cast<char>('0' + ns % 10)};
  out.append(fraction, sizeof(fraction));
}

// text quoted for JSON, cut to kLongestString bytes; plain text is copied as it is.
void appendQuoted(std::string& out, const std::string& text) {
  const size_t length = std::min(text.size(), kLongestString);
  const bool plain = std::all_of(text.begin(), text.begin() + length, [](char c) {
    return c >= 0x20 && c < 0x7f && c != '"' && c != '\\';
  });
  if (!plain) {
    out += host::jsonQuoted(text.substr(0, length));
    return;
  }
  out += '"';
  out.append(text, 0, length);
  out += '"';
}

}  // namespace

Event::Event(const char* ph, const std::string& name, int64_t tsNs, pid_t tid)
    : mTid(tid), mFlowEnd(ph[0] == 'f') {
  mHead.reserve(TraceFile::kSlot);
  mHead += "{\"ph\":\"";
  mHead += ph;
  mHead += "\",\"name\":";
  appendQuoted(mHead, name);
  mHead += ",\"cat\":\"ipc\",\"pid\":";
  appendNumber(mHead, processId());
  mHead += ",\"tid\":";
  appendNumber(mHead, tid);
  mHead += ",\"ts\":";
  appendMicros(mHead, tsNs);
  if (ph[0] == 'i') mHead += ",\"s\":\"t\"";  // an instant on its thread's track
}

Event& Event::dur(int64_t ns) {
  mHead += ",\"dur\":";
  appendMicros(mHead, ns < 0 ? 0 : ns);
  return *this;
}

Event& Event::id(const std::string& flow) {
  mHead += ",\"id\":";
  appendQuoted(mHead, flow);
  if (mFlowEnd) mHead += ",\"bp\":\"e\"";
  return *this;
}

Event& Event::arg(const char* key, long long value) {
  mArgs += mArgs.empty() ? "\"" : ",\"";
  mArgs += key;
  mArgs += "\":";
  appendNumber(mArgs, value);
  return *this;
}

Event& Event::arg(const char* key, const std::string& value) {
  mArgs += mArgs.empty() ? "\"" : ",\"";
  mArgs += key;
  mArgs += "\":";
  appendQuoted(mArgs, value);
  return *this;
}

std::string Event::line() const {
  std::string out;
  out.reserve(mHead.size() + mArgs.size() + 11);
  out += mHead;
  out += ",\"args\":{";
  out += mArgs;
  out += "}}";
  return out;
}

std::unique_ptr<TraceFile> TraceFile::open(const std::string& dir, const char* role,
                                           const std::string& processName,
                                           const TraceLimits& limits, TraceReport report) {
  const std::string path = dir + "/" + role + "-" + std::to_string(processId()) + ".json";
  // O_EXCL: never a file, or a link, that someone put there.
  host::UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd) {
    if (report != nullptr) {
      report("cannot make the trace " + path + ": " + host::errnoText(-errno) +
             "; the link goes on without it");
    }
    return nullptr;
  }
  std::unique_ptr<TraceFile> file(new TraceFile(std::move(fd), path, limits, report));
  file->mProcess = processName;
  file->header();
  return file->mFailed ? nullptr : std::move(file);
}

TraceFile::TraceFile(host::UniqueFd fd, std::string path, const TraceLimits& limits,
                     TraceReport report)
    : mFd(std::move(fd)), mPath(std::move(path)), mLimits(limits), mReport(report) {}

TraceFile::~TraceFile() {
  std::lock_guard<std::mutex> guard(mLock);
  mWindow = host::Mapping();
  header();
  const uint64_t slots = mWritten < mLimits.events ? mWritten : mLimits.events;
  const std::string last = Event("M", "trace_end", nowNs(), processId()).line() + "]\n";
  const off_t end = static_cast<off_t>(kFirstSlot + slots * kSlot);
  put(last, end);
  // The spaces made ready past the last slot go.
  if (!mFailed && ftruncate(mFd.get(), end + static_cast<off_t>(last.size())) != 0) fail("write");
}

void TraceFile::fail(const char* what) {
  if (mFailed) return;
  mFailed = true;
  if (mReport != nullptr) {
    mReport(std::string("cannot ") + what + " the trace " + mPath + ": " +
            host::errnoText(errno != 0 ? -errno : -ENOSPC) + "; it ends here, the link goes on");
  }
}

void TraceFile::put(const std::string& text, off_t offset) {
  if (mFailed) return;
  errno = 0;
  if (pwrite(mFd.get(), text.data(), text.size(), offset) != static_cast<ssize_t>(text.size())) {
    fail("write");
  }
}

void TraceFile::header() {
  const int64_t now = nowNs();
  const std::string text =
      "[\n" + slot(Event("M", "process_name", now, processId()).arg("name", mProcess).line(), 256) +
      slot(Event("M", "vrocam_trace", now, processId())
               .arg("dropped", static_cast<long long>(mDropped))
               .arg("limit", static_cast<long long>(mLimits.events))
               .arg("keep", mLimits.keepNewest ? "newest" : "first")
               .line(),
           kHeader - 256);
  put(text, 0);
}

bool TraceFile::failed() const {
  std::lock_guard<std::mutex> guard(mLock);
  return mFailed;
}

void TraceFile::add(const Event& event) { add(&event, 1); }

void TraceFile::add(std::initializer_list<Event> events) { add(events.begin(), events.size()); }

void TraceFile::add(const std::vector<Event>& events) { add(events.data(), events.size()); }

void TraceFile::add(const Event* events, size_t count) {
  std::vector<std::string> lines;
  lines.reserve(count);
  for (size_t i = 0; i < count; ++i) lines.push_back(events[i].line());
  if (count != 0) write(events[0].tid(), lines.data(), count);
}

std::string threadName(pid_t tid) {
  char name[32] = "";
  FILE* comm = fopen(("/proc/self/task/" + std::to_string(tid) + "/comm").c_str(), "re");
  if (comm != nullptr && fgets(name, sizeof(name), comm) != nullptr) name[strcspn(name, "\n")] = 0;
  if (comm != nullptr) fclose(comm);
  return name;
}

std::string flowId(pid_t client, uint32_t seq) {
  return std::to_string(client) + "." + std::to_string(seq);
}

void TraceFile::write(pid_t tid, const std::string* lines, size_t count) {
  std::lock_guard<std::mutex> guard(mLock);
  if (mFailed) return;
  if (mNamed.insert(tid).second) {
    place(Event("M", "thread_name", nowNs(), tid).arg("name", threadName(tid)).line());
  }
  for (size_t i = 0; i < count; ++i) place(lines[i]);
}

void TraceFile::place(const std::string& line) {
  // The count in the header is brought up to date now and then, and at the end.
  if (!fits(line, kSlot) || (!mLimits.keepNewest && mWritten >= mLimits.events)) {
    if (++mDropped % 4096 == 1) header();
    return;
  }
  char* slot = slotAt(mWritten % mLimits.events);
  if (slot == nullptr) return;
  // The oldest gives way.
  if (mWritten >= mLimits.events && ++mDropped % 4096 == 1) header();
  pad(slot, line, kSlot);
  ++mWritten;
}

char* TraceFile::slotAt(uint64_t at) {
  if (!mWindow || at < mWindowFirst || at >= mWindowFirst + kWindowSlots) {
    mWindow = host::Mapping();
    const uint64_t first = at / kWindowSlots * kWindowSlots;
    const uint64_t slots = std::min<uint64_t>(kWindowSlots, mLimits.events - first);
    const uint64_t start = kFirstSlot + first * kSlot;
    const uint64_t end = start + slots * kSlot;
    // The file is written up to the window's end first, with spaces: a file whose process is
    // killed ends in spaces, and a full disk shows here, not as a fault in the mapping.
    static const std::string spaces(64 * 1024, ' ');
    for (errno = 0; mFileEnd < end && !mFailed;) {
      const size_t size = static_cast<size_t>(std::min<uint64_t>(spaces.size(), end - mFileEnd));
      const ssize_t done = pwrite(mFd.get(), spaces.data(), size, static_cast<off_t>(mFileEnd));
      if (done <= 0) fail("write");
      if (done > 0) mFileEnd += static_cast<uint64_t>(done);
    }
    if (mFailed) return nullptr;
    static const uint64_t kPage = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const uint64_t page = start / kPage * kPage;
    mWindow = host::Mapping(mmap(nullptr, end - page, PROT_READ | PROT_WRITE,
                                 MAP_SHARED | MAP_POPULATE, mFd.get(), static_cast<off_t>(page)),
                            end - page);
    if (!mWindow) {
      fail("map");
      return nullptr;
    }
    mWindowFirst = first;
    mWindowStart = start - page;
  }
  return reinterpret_cast<char*>(mWindow.data()) + mWindowStart + (at - mWindowFirst) * kSlot;
}

}  // namespace trace
}  // namespace vrocam
