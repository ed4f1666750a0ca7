// SPDX-License-Identifier: Apache-2.0
// The client's trace: opened once per process from the environment.
#include "ClientTrace.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "EnvSwitch.h"
#include "HostLogLine.h"

namespace NSCam {
namespace ipc {
namespace wrapper {
namespace {

struct Traces {
  std::mutex lock;
  pid_t owner = 0;  // the process the file belongs to
  std::unique_ptr<vrocam::trace::TraceFile> file;
  vrocam::trace::TraceFile* chosen = nullptr;  // setClientTrace's
  pid_t chooser = 0;                           // the process that chose it: a child does not
};

Traces& traces() {
  static Traces* all = new Traces();  // in use until the process ends, by threads of any kind
  return *all;
}

void say(const std::string& problem) {
  vrocam::host::writeLogLine('W', "VroIPCClient", problem.c_str());
}

// At exit the file is finished (what was dropped, the closing bracket); calls after it trace
// nothing.
void finish() {
  Traces& t = traces();
  std::lock_guard<std::mutex> guard(t.lock);
  if (t.owner == vrocam::trace::processId()) t.file.reset();
}

}  // namespace

vrocam::trace::TraceFile* clientTrace() {
  Traces& t = traces();
  std::lock_guard<std::mutex> guard(t.lock);
  if (t.chooser == vrocam::trace::processId()) return t.chosen;
  if (t.owner == vrocam::trace::processId()) return t.file.get();
  // The parent's file is the parent's to finish: a child forgets it and starts its own.
  (void)t.file.release();
  t.owner = vrocam::trace::processId();
  const char* dir = getenv("VROCAM_IPC_TRACE");
  if (dir == nullptr || *dir == '\0') return nullptr;
  vrocam::trace::TraceLimits limits;
  limits.events = vrocam::host::envSwitch("VROCAM_IPC_TRACE_LIMIT",
                                          static_cast<uint32_t>(limits.events), 1, INT_MAX);
  const char* keep = getenv("VROCAM_IPC_TRACE_KEEP");
  limits.keepNewest = keep != nullptr && strcmp(keep, "newest") == 0;
  const std::string name = vrocam::trace::threadName(vrocam::trace::processId());
  t.file = vrocam::trace::TraceFile::open(dir, "client", name + " (IPC client)", limits, say);
  if (t.file) atexit(finish);
  return t.file.get();
}

void setClientTrace(vrocam::trace::TraceFile* file) {
  Traces& t = traces();
  std::lock_guard<std::mutex> guard(t.lock);
  t.chosen = file;
  t.chooser = file != nullptr ? vrocam::trace::processId() : 0;
}

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
