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

// The next definition of name after this executable's, looked up once. No function-local static:
// these run before the sanitizers' runtimes are ready, where guarded statics are not safe.
template <typename F>
F next(std::atomic<F>& slot, const char* name) {
  F fn = slot.load(std::memory_order_acquire);
  if (fn == nullptr) {
    fn = reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
    slot.store(fn, std::memory_order_release);
  }
  return fn;
}

using OpenFn = int (*)(const char*, int, ...);
using MmapFn = void* (*)(void*, size_t, int, int, int, off_t);
using MunmapFn = int (*)(void*, size_t);
using FdFn = int (*)(int);
using FcntlFn = int (*)(int, int, ...);
using CreateFn = int (*)(const char*, size_t);
using ProtFn = int (*)(int, int);

std::atomic<OpenFn> gOpen{nullptr};
std::atomic<MmapFn> gMmap{nullptr};
std::atomic<MunmapFn> gMunmap{nullptr};
std::atomic<FdFn> gClose{nullptr};
std::atomic<FcntlFn> gFcntl{nullptr};
std::atomic<CreateFn> gCreate{nullptr};
std::atomic<ProtFn> gProt{nullptr};
std::atomic<FdFn> gValid{nullptr};

int interposedOpen(const char* path, int flags, mode_t mode) {
  const OpenFn realOpen = next(gOpen, "open");
  if (!gActive.load(std::memory_order_acquire)) return realOpen(path, flags, mode);
  long failed = 0;
  int fd = 0;
  if (intercept(Fn::Open, &failed)) {
    fd = static_cast<int>(failed);
  } else {
    std::string target = path != nullptr ? path : "";
    {
      std::lock_guard<std::mutex> guard(gState->lock);
      if (!gState->redirectFrom.empty() && gState->redirectFrom == target) {
        target = gState->redirectTo;
      }
    }
    fd = realOpen(target.c_str(), flags, mode);
  }
  record(&State::opens, OpenCall{path != nullptr ? path : "", flags, fd});
  return fd;
}

}  // namespace
}  // namespace vrotest

using vrotest::Fn;
using vrotest::intercept;
using vrotest::next;

extern "C" void* mmap(void* addr, size_t length, int prot, int flags, int fd,
                      off_t offset) noexcept {
  long failed = 0;
  void* result = nullptr;
  if (intercept(Fn::Mmap, &failed)) {
    result = reinterpret_cast<void*>(failed);
  } else if (const vrotest::MmapFn realMmap = next(vrotest::gMmap, "mmap")) {
    result = realMmap(addr, length, prot, flags, fd, offset);
  } else {
    result = reinterpret_cast<void*>(syscall(SYS_mmap, addr, length, prot, flags, fd, offset));
  }
  vrotest::record(&vrotest::State::mmaps,
                  vrotest::MmapCall{length, prot, flags, fd, offset, result});
  return result;
}

extern "C" int munmap(void* addr, size_t length) noexcept {
  vrotest::record(&vrotest::State::munmaps, vrotest::MunmapCall{addr, length});
  long failed = 0;
  if (intercept(Fn::Munmap, &failed)) return static_cast<int>(failed);
  if (const vrotest::MunmapFn realMunmap = next(vrotest::gMunmap, "munmap")) {
    return realMunmap(addr, length);
  }
  return static_cast<int>(syscall(SYS_munmap, addr, length));
}

extern "C" int close(int fd) {
  vrotest::record(&vrotest::State::closed, fd);
  long failed = 0;
  if (intercept(Fn::Close, &failed)) return static_cast<int>(failed);
  if (const vrotest::FdFn realClose = next(vrotest::gClose, "close")) return realClose(fd);
  return static_cast<int>(syscall(SYS_close, fd));
}

extern "C" int fcntl(int fd, int cmd, ...) {
  va_list ap;
  va_start(ap, cmd);
  void* arg = va_arg(ap, void*);
  va_end(ap);
  long failed = 0;
  if ((cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC) && intercept(Fn::Dup, &failed)) {
    return static_cast<int>(failed);
  }
  return next(vrotest::gFcntl, "fcntl")(fd, cmd, arg);
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
  const int fd = intercept(Fn::AshmemCreate, &failed)
                     ? static_cast<int>(failed)
                     : next(vrotest::gCreate, "ashmem_create_region")(name, size);
  vrotest::record(&vrotest::State::creates, vrotest::CreateCall{name ? name : "", size, fd});
  return fd;
}

extern "C" int ashmem_set_prot_region(int fd, int prot) {
  long failed = 0;
  if (intercept(Fn::AshmemSetProt, &failed)) return static_cast<int>(failed);
  return next(vrotest::gProt, "ashmem_set_prot_region")(fd, prot);
}

extern "C" int ashmem_valid(int fd) {
  long failed = 0;
  if (intercept(Fn::AshmemValid, &failed)) return static_cast<int>(failed);
  return next(vrotest::gValid, "ashmem_valid")(fd);
}
