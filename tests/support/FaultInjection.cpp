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
  std::vector<int> closed;
  std::vector<MmapCall> mmaps;
  std::vector<MunmapCall> munmaps;
  std::vector<OpenCall> opens;
  std::vector<CreateCall> creates;
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

// Counts a call of fn; true (with *result and errno set) when the call is to fail instead.
bool intercept(Fn fn, long* result) {
  if (!gActive.load(std::memory_order_acquire)) return false;
  std::lock_guard<std::mutex> guard(gState->lock);
  const int n = ++gState->counts[static_cast<size_t>(fn)];
  const Plan& plan = gState->plans[static_cast<size_t>(fn)];
  if (plan.nth != -1 && plan.nth != n) return false;
  *result = plan.result;
  if (plan.err != 0) errno = plan.err;
  return true;
}

template <typename Record, typename Member>
void record(Member member, Record value) {
  if (!gActive.load(std::memory_order_acquire)) return;
  std::lock_guard<std::mutex> guard(gState->lock);
  (gState->*member).push_back(std::move(value));
}

int interposedOpen(const char* path, int flags, mode_t mode) {
  const auto realOpen = real<int (*)(const char*, int, ...)>(Fn::Open, "open");
  if (!gActive.load(std::memory_order_acquire)) return realOpen(path, flags, mode);
  long fd = 0;
  if (!intercept(Fn::Open, &fd)) {
    std::string target = path != nullptr ? path : "";
    {
      std::lock_guard<std::mutex> guard(gState->lock);
      if (!gState->redirectFrom.empty() && gState->redirectFrom == target) {
        target = gState->redirectTo;
      }
    }
    fd = realOpen(target.c_str(), flags, mode);
  }
  record(&State::opens, OpenCall{path != nullptr ? path : "", flags, static_cast<int>(fd)});
  return static_cast<int>(fd);
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

#define VROTEST_COPY(member)                       \
  std::lock_guard<std::mutex> guard(gState->lock); \
  return gState->member
int FaultScope::count(Fn fn) const { VROTEST_COPY(counts)[static_cast<size_t>(fn)]; }
std::vector<int> FaultScope::closedFds() const { VROTEST_COPY(closed); }
std::vector<MmapCall> FaultScope::mmaps() const { VROTEST_COPY(mmaps); }
std::vector<MunmapCall> FaultScope::munmaps() const { VROTEST_COPY(munmaps); }
std::vector<OpenCall> FaultScope::opens() const { VROTEST_COPY(opens); }
std::vector<CreateCall> FaultScope::creates() const { VROTEST_COPY(creates); }
#undef VROTEST_COPY

}  // namespace vrotest

using vrotest::Fn;
using vrotest::intercept;
using vrotest::real;

// Before the sanitizers' runtimes are ready dlsym can find nothing: mmap, munmap and close then
// make the system call themselves.
extern "C" void* mmap(void* addr, size_t length, int prot, int flags, int fd,
                      off_t offset) noexcept {
  long failed = 0;
  void* result = nullptr;
  if (intercept(Fn::Mmap, &failed)) {
    result = reinterpret_cast<void*>(failed);
  } else if (const auto realMmap = real<decltype(&mmap)>(Fn::Mmap, "mmap")) {
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
  const auto realMunmap = real<decltype(&munmap)>(Fn::Munmap, "munmap");
  return realMunmap ? realMunmap(addr, length)
                    : static_cast<int>(syscall(SYS_munmap, addr, length));
}

extern "C" int close(int fd) {
  vrotest::record(&vrotest::State::closed, fd);
  long failed = 0;
  if (intercept(Fn::Close, &failed)) return static_cast<int>(failed);
  const auto realClose = real<decltype(&close)>(Fn::Close, "close");
  return realClose ? realClose(fd) : static_cast<int>(syscall(SYS_close, fd));
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
  return real<decltype(&fcntl)>(Fn::Dup, "fcntl")(fd, cmd, arg);
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
  long fd = 0;
  if (!intercept(Fn::AshmemCreate, &fd)) {
    fd =
        real<decltype(&ashmem_create_region)>(Fn::AshmemCreate, "ashmem_create_region")(name, size);
  }
  vrotest::record(&vrotest::State::creates,
                  vrotest::CreateCall{name ? name : "", size, static_cast<int>(fd)});
  return static_cast<int>(fd);
}

extern "C" int ashmem_set_prot_region(int fd, int prot) {
  long failed = 0;
  if (intercept(Fn::AshmemSetProt, &failed)) return static_cast<int>(failed);
  return real<decltype(&ashmem_set_prot_region)>(Fn::AshmemSetProt, "ashmem_set_prot_region")(fd,
                                                                                              prot);
}

extern "C" int ashmem_valid(int fd) {
  long failed = 0;
  if (intercept(Fn::AshmemValid, &failed)) return static_cast<int>(failed);
  return real<decltype(&ashmem_valid)>(Fn::AshmemValid, "ashmem_valid")(fd);
}
