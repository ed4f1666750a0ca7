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
#include <initializer_list>
#include <mutex>

namespace vrocam {
namespace test {
namespace {

constexpr size_t kFns = static_cast<size_t>(Fn::kCount);

struct Plan {
  int nth = 0;  // 0: not armed; -1: every call
  long result = 0;
  int err = 0;
};

struct State {
  std::mutex lock;
  std::array<int, kFns> counts{};
  std::array<Plan, kFns> plans{};
  std::array<std::vector<Call>, kFns> calls;
  std::string redirectFrom, redirectTo;
};

// Zero-initialised before any constructor runs; the state is used only while a scope is alive.
std::atomic<bool> gActive{false};
State* gState = nullptr;
// The next definition of each call after this executable's, looked up on first use. No
// function-local statics: these run before the sanitizers' runtimes are ready.
std::array<std::atomic<void*>, kFns> gReal{};

template <typename F>
F real(Fn fn, const char* name) {
  std::atomic<void*>& slot = gReal[static_cast<size_t>(fn)];
  void* found = slot.load(std::memory_order_acquire);
  if (found == nullptr) slot.store(found = dlsym(RTLD_NEXT, name), std::memory_order_release);
  return reinterpret_cast<F>(found);
}

// A call of fn: run, or failed as planned, and recorded while a scope is alive.
template <typename Run>
long call(Fn fn, const char* name, std::initializer_list<long> args, Run run) {
  if (!gActive.load(std::memory_order_acquire)) return run();
  const size_t i = static_cast<size_t>(fn);
  Plan plan;
  {
    std::lock_guard<std::mutex> guard(gState->lock);
    const int n = ++gState->counts[i];
    if (gState->plans[i].nth == -1 || gState->plans[i].nth == n) plan = gState->plans[i];
  }
  const long result = plan.nth != 0 ? plan.result : run();
  const int err = plan.nth != 0 && plan.err != 0 ? plan.err : errno;
  {
    std::lock_guard<std::mutex> guard(gState->lock);
    gState->calls[i].push_back(Call{name != nullptr ? name : "", args, result});
  }
  errno = err;
  return result;
}

int interposedOpen(const char* path, int flags, mode_t mode) {
  return static_cast<int>(call(Fn::Open, path, {flags}, [&] {
    std::string target = path != nullptr ? path : "";
    if (gActive.load(std::memory_order_acquire)) {
      std::lock_guard<std::mutex> guard(gState->lock);
      if (!gState->redirectFrom.empty() && gState->redirectFrom == target) {
        target = gState->redirectTo;
      }
    }
    return real<int (*)(const char*, int, ...)>(Fn::Open, "open")(target.c_str(), flags, mode);
  }));
}

}  // namespace

FaultScope::FaultScope() {
  gState = new State();
  gActive.store(true, std::memory_order_release);
}

FaultScope::~FaultScope() {
  gActive.store(false, std::memory_order_release);
  { std::lock_guard<std::mutex> guard(gState->lock); }  // calls still inside the state finish
  delete gState;
  gState = nullptr;
}

void FaultScope::fail(Fn fn, int nth, long result, int err) {
  std::lock_guard<std::mutex> guard(gState->lock);
  gState->plans[static_cast<size_t>(fn)] = Plan{nth, result, err};
}

void FaultScope::redirectOpen(const std::string& from, const std::string& to) {
  std::lock_guard<std::mutex> guard(gState->lock);
  gState->redirectFrom = from;
  gState->redirectTo = to;
}

std::vector<Call> FaultScope::calls(Fn fn) const {
  std::lock_guard<std::mutex> guard(gState->lock);
  return gState->calls[static_cast<size_t>(fn)];
}

std::vector<int> FaultScope::closedFds() const {
  std::vector<int> fds;
  for (const Call& close : calls(Fn::Close)) fds.push_back(static_cast<int>(close.args[0]));
  return fds;
}

}  // namespace test
}  // namespace vrocam

using vrocam::test::call;
using vrocam::test::Fn;
using vrocam::test::real;

// Before the sanitizers' runtimes are ready dlsym can find nothing: mmap, munmap and close then
// make the system call themselves.
extern "C" void* mmap(void* addr, size_t length, int prot, int flags, int fd,
                      off_t offset) noexcept {
  return reinterpret_cast<void*>(
      call(Fn::Mmap, nullptr, {long(length), prot, flags, fd, offset}, [&] {
        const auto realMmap = real<decltype(&mmap)>(Fn::Mmap, "mmap");
        return realMmap ? reinterpret_cast<long>(realMmap(addr, length, prot, flags, fd, offset))
                        : syscall(SYS_mmap, addr, length, prot, flags, fd, offset);
      }));
}

extern "C" int munmap(void* addr, size_t length) noexcept {
  return static_cast<int>(
      call(Fn::Munmap, nullptr, {reinterpret_cast<long>(addr), long(length)}, [&] {
        const auto realMunmap = real<decltype(&munmap)>(Fn::Munmap, "munmap");
        return realMunmap ? realMunmap(addr, length) : syscall(SYS_munmap, addr, length);
      }));
}

extern "C" int close(int fd) {
  return static_cast<int>(call(Fn::Close, nullptr, {fd}, [&] {
    const auto realClose = real<decltype(&close)>(Fn::Close, "close");
    return realClose ? realClose(fd) : syscall(SYS_close, fd);
  }));
}

extern "C" int fcntl(int fd, int cmd, ...) {
  va_list ap;
  va_start(ap, cmd);
  void* arg = va_arg(ap, void*);
  va_end(ap);
  const auto realFcntl = [&] {
    return long(real<decltype(&fcntl)>(Fn::Dup, "fcntl")(fd, cmd, arg));
  };
  if (cmd != F_DUPFD && cmd != F_DUPFD_CLOEXEC) return static_cast<int>(realFcntl());
  return static_cast<int>(call(Fn::Dup, nullptr, {fd}, realFcntl));
}

extern "C" int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list ap;
    va_start(ap, flags);
    mode = static_cast<mode_t>(va_arg(ap, int));
    va_end(ap);
  }
  return vrocam::test::interposedOpen(path, flags, mode);
}

extern "C" int __open_2(const char* path, int flags) {
  return vrocam::test::interposedOpen(path, flags, 0);
}

extern "C" int ashmem_create_region(const char* name, size_t size) {
  return static_cast<int>(call(Fn::AshmemCreate, name, {long(size)}, [&] {
    return real<decltype(&ashmem_create_region)>(Fn::AshmemCreate, "ashmem_create_region")(name,
                                                                                           size);
  }));
}

extern "C" int ashmem_set_prot_region(int fd, int prot) {
  return static_cast<int>(call(Fn::AshmemSetProt, nullptr, {fd, prot}, [&] {
    return real<decltype(&ashmem_set_prot_region)>(Fn::AshmemSetProt, "ashmem_set_prot_region")(
        fd, prot);
  }));
}

extern "C" int ashmem_valid(int fd) {
  return static_cast<int>(call(Fn::AshmemValid, nullptr, {fd}, [&] {
    return real<decltype(&ashmem_valid)>(Fn::AshmemValid, "ashmem_valid")(fd);
  }));
}
