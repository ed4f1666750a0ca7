// SPDX-License-Identifier: Apache-2.0
// Reaper: the peer's second thread, which unmaps and closes the memories that clients let go of
// (deregistered, undone, dropped with their batch or their connection, or left at stop), a slice
// of mapping at a time, so that giving back gigabytes holds up no client: the serving thread only
// hands them over. What it has still to free counts against the peer's totals until it is freed.
//
// Locking: one mutex over the queue and the counts. The thread holds it only to take work and to
// count what it finished, never over an unmap or a close.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <thread>
#include <vector>

#include "ClientTable.h"
#include "ThreadSafety.h"
#include "TraceFile.h"

namespace vrocam {
namespace peer {

class Reaper {
 public:
  Reaper();
  // Frees whatever is still queued, then ends the thread.
  ~Reaper();
  Reaper(const Reaper&) = delete;
  Reaper& operator=(const Reaper&) = delete;

  // Takes the memories, to unmap and close them.
  void take(std::vector<Memory>&& memories) EXCLUDES(mLock);
  // Memories taken and not freed yet, and the address space their mappings still take.
  size_t memories() const EXCLUDES(mLock);
  uint64_t length() const EXCLUDES(mLock);
  // Puts a slice of each free into file (null: none); file outlives the reaper.
  void traceTo(trace::TraceFile* file) { mTrace = file; }

 private:
  void run() EXCLUDES(mLock);

  mutable host::Mutex mLock;
  std::condition_variable_any mWake;  // work came, or the reaper stops
  std::deque<Memory> mQueue GUARDED_BY(mLock);
  uint64_t mLength GUARDED_BY(mLock) = 0;
  bool mStopping GUARDED_BY(mLock) = false;
  std::atomic<trace::TraceFile*> mTrace{nullptr};
  std::thread mThread;  // last: starts when everything above is ready
};

}  // namespace peer
}  // namespace vrocam
