// SPDX-License-Identifier: Apache-2.0
// Clang's thread-safety analysis (-Wthread-safety) for the locks of the host code: the attribute
// macros and a mutex and lock guard that carry them. Other compilers see plain std::mutex code.
#pragma once

#include <mutex>

#if defined(__clang__)
#define VROCAM_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VROCAM_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) VROCAM_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY VROCAM_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) VROCAM_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) VROCAM_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VROCAM_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VROCAM_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VROCAM_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace vrocam {
namespace host {

class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mMutex.lock(); }
  void unlock() RELEASE() { mMutex.unlock(); }

 private:
  std::mutex mMutex;
};

// Holds a Mutex for its lifetime.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mMutex(mutex) { mMutex.lock(); }
  ~MutexLock() RELEASE() { mMutex.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mMutex;
};

}  // namespace host
}  // namespace vrocam
