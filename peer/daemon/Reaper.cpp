// SPDX-License-Identifier: Apache-2.0
// Reaper: unmaps in slices, then closes.
#include "Reaper.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>

namespace vrocam {
namespace peer {
namespace {

// Mapping unmapped at once: the kernel's lock of the address space, which the serving thread
// needs to map a new memory, is held for one slice at a time.
constexpr size_t kUnmapSlice = 64 << 20;

// Unmaps and closes memory, a slice at a time where it has that many pages.
void free(Memory& memory) {
  size_t length = 0;
  uint8_t* data = memory.mapping.release(&length);
  struct stat st {};
  const bool known = fstat(memory.fd.get(), &st) == 0;
  // Huge pages are unmapped in whole pages; a mapping of a memory with hardly any pages (sparse)
  // goes at once, as quickly as a slice.
  const size_t page = known && st.st_blksize > 0 ? st.st_blksize : 4096;
  const uint64_t allocated = known ? static_cast<uint64_t>(st.st_blocks) * 512 : UINT64_MAX;
  const size_t slice =
      allocated <= kUnmapSlice ? length : std::max(kUnmapSlice / page * page, page);
  for (size_t done = 0; done < length; done += slice) {
    munmap(data + done, std::min(slice, length - done));
  }
  memory.fd.reset();  // when it was the last reference, the pages go back now
}

}  // namespace

Reaper::Reaper()
    : mThread([this] {
        pthread_setname_np(pthread_self(), "reaper");
        run();
      }) {}

Reaper::~Reaper() {
  {
    host::MutexLock guard(mLock);
    mStopping = true;
  }
  mWake.notify_all();
  mThread.join();
}

void Reaper::take(std::vector<Memory>&& memories) {
  if (memories.empty()) return;
  {
    host::MutexLock guard(mLock);
    for (Memory& memory : memories) {
      mLength += memory.mapping.size();
      mQueue.push_back(std::move(memory));
    }
  }
  memories.clear();
  mWake.notify_all();
}

size_t Reaper::memories() const {
  host::MutexLock guard(mLock);
  return mQueue.size();
}

uint64_t Reaper::length() const {
  host::MutexLock guard(mLock);
  return mLength;
}

void Reaper::run() {
  mLock.lock();
  for (;;) {
    mWake.wait(mLock, [this]() REQUIRES(mLock) { return !mQueue.empty() || mStopping; });
    if (mQueue.empty()) break;  // stopping, with nothing left
    // The front stays queued, and counted, until it is freed; what is queued behind it does not
    // move it.
    Memory& front = mQueue.front();
    const size_t length = front.mapping.size();
    mLock.unlock();
    const int64_t start = trace::nowNs();
    free(front);
    if (trace::TraceFile* file = mTrace.load()) {
      file->add(trace::Event("X", "free", start, trace::threadId())
                    .dur(trace::nowNs() - start)
                    .arg("bytes", static_cast<long long>(length)));
    }
    mLock.lock();
    mLength -= length;
    mQueue.pop_front();
  }
  mLock.unlock();
}

}  // namespace peer
}  // namespace vrocam
