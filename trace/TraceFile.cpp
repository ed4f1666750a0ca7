// SPDX-License-Identifier: Apache-2.0
// TraceFile: events in fixed slots of a JSON array.
#include "TraceFile.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "ErrnoText.h"
#include "Escape.h"

namespace vrocam {
namespace trace {
namespace {

// Where the slots start: "[\n", then the header (the process's name and what was dropped).
constexpr size_t kHeader = 512;
constexpr size_t kFirstSlot = 2 + kHeader;
// String arguments are cut at this length: an event must fit its slot.
constexpr size_t kLongestString = 120;

// ns as JSON microseconds, nanoseconds kept as the fraction.
std::string micros(int64_t ns) {
  char text[32];
  snprintf(text, sizeof(text), "%lld.%03lld", static_cast<long long>(ns / 1000),
           static_cast<long long>(ns % 1000));
  return text;
}

// line padded into a slot of size bytes: the line, a comma, spaces, a line break. Empty when it
// does not fit.
std::string slot(const std::string& line, size_t size) {
  if (line.size() + 2 > size) return "";
  std::string out = line + ",";
  out.resize(size - 1, ' ');
  return out + "\n";
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
pid_t gProcess = 0;

void forget() {
  tThread = 0;
  gProcess = 0;
}

pid_t processId() {
  static const int registered = pthread_atfork(nullptr, nullptr, forget);
  (void)registered;
  if (gProcess == 0) gProcess = getpid();
  return gProcess;
}

}  // namespace

pid_t threadId() {
  if (tThread == 0) {
    processId();  // the fork handler is there before any id is kept
    tThread = static_cast<pid_t>(syscall(SYS_gettid));
  }
  return tThread;
}

Event::Event(const char* ph, const std::string& name, int64_t tsNs, pid_t tid) : mTid(tid) {
  mHead = std::string("{\"ph\":\"") + ph +
          "\",\"name\":" + host::jsonQuoted(name.substr(0, kLongestString)) +
          ",\"cat\":\"ipc\",\"pid\":" + std::to_string(processId()) +
          ",\"tid\":" + std::to_string(tid) + ",\"ts\":" + micros(tsNs);
  if (ph[0] == 'i') mHead += ",\"s\":\"t\"";  // an instant on its thread's track
}

Event& Event::dur(int64_t ns) {
  mHead += ",\"dur\":" + micros(ns < 0 ? 0 : ns);
  return *this;
}

Event& Event::id(const std::string& flow) {
  mHead += ",\"id\":" + host::jsonQuoted(flow);
  if (mHead.find("\"ph\":\"f\"") != std::string::npos) mHead += ",\"bp\":\"e\"";
  return *this;
}

Event& Event::arg(const char* key, long long value) {
  mArgs += std::string(mArgs.empty() ? "" : ",") + "\"" + key + "\":" + std::to_string(value);
  return *this;
}

Event& Event::arg(const char* key, const std::string& value) {
  mArgs += std::string(mArgs.empty() ? "" : ",") + "\"" + key +
           "\":" + host::jsonQuoted(value.substr(0, kLongestString));
  return *this;
}

std::string Event::line() const { return mHead + ",\"args\":{" + mArgs + "}}"; }

std::unique_ptr<TraceFile> TraceFile::open(const std::string& dir, const char* role,
                                           const std::string& processName,
                                           const TraceLimits& limits, TraceReport report) {
  const std::string path = dir + "/" + role + "-" + std::to_string(getpid()) + ".json";
  // O_EXCL: never a file, or a link, that someone put there.
  host::UniqueFd fd(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
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
  header();
  const uint64_t slots = mWritten < mLimits.events ? mWritten : mLimits.events;
  const std::string last = Event("M", "trace_end", nowNs(), getpid()).line() + "]\n";
  put(last, static_cast<off_t>(kFirstSlot + slots * kSlot));
}

void TraceFile::put(const std::string& text, off_t offset) {
  if (mFailed) return;
  if (pwrite(mFd.get(), text.data(), text.size(), offset) == static_cast<ssize_t>(text.size())) {
    return;
  }
  mFailed = true;
  if (mReport != nullptr) {
    mReport("cannot write the trace " + mPath + ": " +
            host::errnoText(errno != 0 ? -errno : -ENOSPC) + "; it ends here, the link goes on");
  }
}

void TraceFile::header() {
  const int64_t now = nowNs();
  const std::string text =
      "[\n" + slot(Event("M", "process_name", now, getpid()).arg("name", mProcess).line(), 256) +
      slot(Event("M", "vrocam_trace", now, getpid())
               .arg("dropped", static_cast<long long>(mDropped))
               .arg("limit", static_cast<long long>(mLimits.events))
               .arg("keep", mLimits.keepNewest ? "newest" : "first")
               .line(),
           kHeader - 256);
  put(text, 0);
}

uint64_t TraceFile::dropped() const {
  std::lock_guard<std::mutex> guard(mLock);
  return mDropped;
}

bool TraceFile::failed() const {
  std::lock_guard<std::mutex> guard(mLock);
  return mFailed;
}

void TraceFile::add(const Event& event) {
  const std::string line = event.line();
  write(event.tid(), &line, 1);
}

void TraceFile::add(std::initializer_list<Event> events) { add(std::vector<Event>(events)); }

void TraceFile::add(const std::vector<Event>& events) {
  std::vector<std::string> lines;
  for (const Event& event : events) lines.push_back(event.line());
  if (!lines.empty()) write(events.front().tid(), lines.data(), lines.size());
}

void TraceFile::write(pid_t tid, const std::string* lines, size_t count) {
  std::lock_guard<std::mutex> guard(mLock);
  if (mFailed) return;
  std::vector<std::string> all;
  if (mNamed.insert(tid).second) {
    char name[32] = "";
    FILE* comm = fopen(("/proc/self/task/" + std::to_string(tid) + "/comm").c_str(), "re");
    if (comm != nullptr && fgets(name, sizeof(name), comm) != nullptr)
      name[strcspn(name, "\n")] = 0;
    if (comm != nullptr) fclose(comm);
    all.push_back(Event("M", "thread_name", nowNs(), tid).arg("name", name).line());
  }
  all.insert(all.end(), lines, lines + count);
  // Slots that follow each other in the file go in one write.
  std::string run;
  run.reserve(all.size() * kSlot);
  uint64_t runStart = 0;
  for (const std::string& line : all) {
    if (line.size() + 2 > kSlot || (!mLimits.keepNewest && mWritten >= mLimits.events)) {
      // The count in the header is brought up to date now and then, and at the end.
      if (++mDropped % 4096 == 1) header();
      continue;
    }
    if (mWritten >= mLimits.events) ++mDropped;  // the oldest gives way
    const uint64_t at = mWritten % mLimits.events;
    if (!run.empty() && at != runStart + run.size() / kSlot) {
      put(run, static_cast<off_t>(kFirstSlot + runStart * kSlot));
      run.clear();
    }
    if (run.empty()) runStart = at;
    run += line;  // padded into its slot: a comma, spaces, a line break
    run += ',';
    run.append(kSlot - 2 - line.size(), ' ');
    run += '\n';
    ++mWritten;
  }
  if (!run.empty()) put(run, static_cast<off_t>(kFirstSlot + runStart * kSlot));
  if (mFailed) mWritten -= run.size() / kSlot;
  if (mLimits.keepNewest && mDropped % 4096 == 1) header();
}

}  // namespace trace
}  // namespace vrocam
