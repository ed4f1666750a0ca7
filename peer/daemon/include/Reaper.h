// SPDX-License-Identifier: Apache-2.0
// Reaper: the peer's second thread, which unmaps and closes the memories that clients let go of
// (deregistered, undone, dropped with their batch or their connection, or left at stop), a slice
// of mapping at a time, so that giving back gigabytes holds up no client: the serving thread only
// hands them over. What it has still to free counts against the peer's totals until it is freed.
//
// Locking: one mutex over the queue and the counts. The thread holds it only to take work and to
// count what it finished, never over an unmap or a close.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <thread>
#include <vector>

#include "ClientTable.h"
#include "ThreadSafety.h"

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
  // Waits until every memory taken is freed.
  void drain() EXCLUDES(mLock);

 private:
  void run() EXCLUDES(mLock);

  mutable host::Mutex mLock;
  std::condition_variable_any mWake;  // work came, or the queue ran empty
  std::deque<Memory> mQueue GUARDED_BY(mLock);
  uint64_t mLength GUARDED_BY(mLock) = 0;
  bool mStopping GUARDED_BY(mLock) = false;
  std::thread mThread;  // last: starts when everything above is ready
};

}  // namespace peer
}  // namespace vrocam
