// SPDX-License-Identifier: Apache-2.0
// Fault injection: definitions that interpose libc's and libcutils' calls for the whole process.
#include "FaultInjection.h"

#include <cutils/ashmem.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <mutex>

namespace vrotest {
namespace {

struct Plan {
  int nth = 0;  // 0: not armed; -1: every call
  long result = 0;
  int err = 0;
};

struct State {
  std::mutex lock;
  std::array<int, static_cast<size_t>(Fn::kCount)> counts{};
  std::array<Plan, static_cast<size_t>(Fn::kCount)> plans{};
  std::vector<int> closed;
  std::vector<MmapCall> mmaps;
  std::vector<MunmapCall> munmaps;
  std::vector<OpenCall> opens;
  std::vector<CreateCall> creates;
  std::string redirectFrom;
  std::string redirectTo;
};

// Zero-initialised before any constructor runs; used only while a scope is alive.
std::atomic<bool> gActive{false};
State* gState = nullptr;

// Counts a call of fn; true (with *result and errno set) when the call is to fail instead.
bool intercept(Fn fn, long* result) {
  if (!gActive.load(std::memory_order_acquire)) return false;
  std::lock_guard<std::mutex> guard(gState->lock);
  const size_t i = static_cast<size_t>(fn);
  const int n = ++gState->counts[i];
  const Plan& plan = gState->plans[i];
  if (plan.nth == -1 || plan.nth == n) {
    *result = plan.result;
    if (plan.err != 0) errno = plan.err;
    return true;
  }
  return false;
}

template <typename Record, typename Member>
void record(Member member, Record value) {
  if (!gActive.load(std::memory_order_acquire)) return;
  std::lock_guard<std::mutex> guard(gState->lock);
  (gState->*member).push_back(std::move(value));
}

template <typename F>
F next(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

FaultScope::FaultScope() {
  gState = new State();
  gActive.store(true, std::memory_order_release);
}

FaultScope::~FaultScope() {
  gActive.store(false, std::memory_order_release);
  State* state = gState;
  {
    // Wait for calls that are still inside the state.
    std::lock_guard<std::mutex> guard(state->lock);
  }
  delete state;
  gState = nullptr;
}

void FaultScope::fail(Fn fn, int nth, long result, int err) {
  std::lock_guard<std::mutex> guard(gState->lock);
  gState->plans[static_cast<size_t>(fn)] = Plan{nth, result, err};
}

void FaultScope::failAll(Fn fn, long result, int err) { fail(fn, -1, result, err); }

void FaultScope::redirectOpen(const std::string& from, const std::string& to) {
  std::lock_guard<std::mutex> guard(gState->lock);
  gState->redirectFrom = from;
  gState->redirectTo = to;
}

int FaultScope::count(Fn fn) const {
  std::lock_guard<std::mutex> guard(gState->lock);
  return gState->counts[static_cast<size_t>(fn)];
}

#define VROTEST_COPY(member)                       \
  std::lock_guard<std::mutex> guard(gState->lock); \
  return gState->member

std::vector<int> FaultScope::closedFds() const { VROTEST_COPY(closed); }
std::vector<MmapCall> FaultScope::mmaps() const { VROTEST_COPY(mmaps); }
std::vector<MunmapCall> FaultScope::munmaps() const { VROTEST_COPY(munmaps); }
std::vector<OpenCall> FaultScope::opens() const { VROTEST_COPY(opens); }
std::vector<CreateCall> FaultScope::creates() const { VROTEST_COPY(creates); }
#undef VROTEST_COPY

namespace {

// The path to open instead of path, or path itself.
std::string openTarget(const char* path) {
  if (!gActive.load(std::memory_order_acquire) || path == nullptr) return path ? path : "";
  std::lock_guard<std::mutex> guard(gState->lock);
  if (!gState->redirectFrom.empty() && gState->redirectFrom == path) return gState->redirectTo;
  return path;
}

int interposedOpen(const char* path, int flags, mode_t mode) {
  long failed = 0;
  if (intercept(Fn::Open, &failed)) {
    record(&State::opens, OpenCall{path ? path : "", flags, static_cast<int>(failed)});
    return static_cast<int>(failed);
  }
  using OpenFn = int (*)(const char*, int, ...);
  static const OpenFn realOpen = next<OpenFn>("open");
  const std::string target = openTarget(path);
  const int fd = realOpen(target.c_str(), flags, mode);
  record(&State::opens, OpenCall{path ? path : "", flags, fd});
  return fd;
}

}  // namespace
}  // namespace vrotest

using vrotest::Fn;
using vrotest::intercept;

extern "C" void* mmap(void* addr, size_t length, int prot, int flags, int fd,
                      off_t offset) noexcept {
  long failed = 0;
  void* result = nullptr;
  if (intercept(Fn::Mmap, &failed)) {
    result = reinterpret_cast<void*>(failed);
  } else {
    using MmapFn = void* (*)(void*, size_t, int, int, int, off_t);
    static const MmapFn realMmap = vrotest::next<MmapFn>("mmap");
    result =
        realMmap != nullptr
            ? realMmap(addr, length, prot, flags, fd, offset)
            : reinterpret_cast<void*>(syscall(SYS_mmap, addr, length, prot, flags, fd, offset));
  }
  vrotest::record(&vrotest::State::mmaps,
                  vrotest::MmapCall{length, prot, flags, fd, offset, result});
  return result;
}

extern "C" int munmap(void* addr, size_t length) noexcept {
  vrotest::record(&vrotest::State::munmaps, vrotest::MunmapCall{addr, length});
  long failed = 0;
  if (intercept(Fn::Munmap, &failed)) return static_cast<int>(failed);
  using MunmapFn = int (*)(void*, size_t);
  static const MunmapFn realMunmap = vrotest::next<MunmapFn>("munmap");
  return realMunmap != nullptr ? realMunmap(addr, length)
                               : static_cast<int>(syscall(SYS_munmap, addr, length));
}

extern "C" int close(int fd) {
  vrotest::record(&vrotest::State::closed, fd);
  long failed = 0;
  if (intercept(Fn::Close, &failed)) return static_cast<int>(failed);
  using CloseFn = int (*)(int);
  static const CloseFn realClose = vrotest::next<CloseFn>("close");
  return realClose != nullptr ? realClose(fd) : static_cast<int>(syscall(SYS_close, fd));
}

extern "C" int dup(int fd) noexcept {
  long failed = 0;
  if (intercept(Fn::Dup, &failed)) return static_cast<int>(failed);
  using DupFn = int (*)(int);
  static const DupFn realDup = vrotest::next<DupFn>("dup");
  return realDup(fd);
}

extern "C" int fcntl(int fd, int cmd, ...) {
  va_list ap;
  va_start(ap, cmd);
  void* arg = va_arg(ap, void*);
  va_end(ap);
  if (cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC) {
    long failed = 0;
    if (intercept(Fn::Dup, &failed)) return static_cast<int>(failed);
  }
  using FcntlFn = int (*)(int, int, ...);
  static const FcntlFn realFcntl = vrotest::next<FcntlFn>("fcntl");
  return realFcntl(fd, cmd, arg);
}

extern "C" int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list ap;
    va_start(ap, flags);
    mode = static_cast<mode_t>(va_arg(ap, int));
    va_end(ap);
  }
  return vrotest::interposedOpen(path, flags, mode);
}

extern "C" int __open_2(const char* path, int flags) {
  return vrotest::interposedOpen(path, flags, 0);
}

extern "C" int ashmem_create_region(const char* name, size_t size) {
  long failed = 0;
  int fd = 0;
  if (intercept(Fn::AshmemCreate, &failed)) {
    fd = static_cast<int>(failed);
  } else {
    using CreateFn = int (*)(const char*, size_t);
    static const CreateFn realCreate = vrotest::next<CreateFn>("ashmem_create_region");
    fd = realCreate(name, size);
  }
  vrotest::record(&vrotest::State::creates, vrotest::CreateCall{name ? name : "", size, fd});
  return fd;
}

extern "C" int ashmem_set_prot_region(int fd, int prot) {
  long failed = 0;
  if (intercept(Fn::AshmemSetProt, &failed)) return static_cast<int>(failed);
  using ProtFn = int (*)(int, int);
  static const ProtFn realProt = vrotest::next<ProtFn>("ashmem_set_prot_region");
  return realProt(fd, prot);
}

extern "C" int ashmem_valid(int fd) {
  long failed = 0;
  if (intercept(Fn::AshmemValid, &failed)) return static_cast<int>(failed);
  using ValidFn = int (*)(int);
  static const ValidFn realValid = vrotest::next<ValidFn>("ashmem_valid");
  return realValid(fd);
}
