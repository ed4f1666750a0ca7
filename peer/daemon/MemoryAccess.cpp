// SPDX-License-Identifier: Apache-2.0
// Client memory, read through its descriptor and written under a SIGBUS guard.
#include "MemoryAccess.h"

#include <setjmp.h>
#include <signal.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>
#include <mutex>

namespace vrocam {
namespace peer {
namespace {

// Where a fault of the guarded access goes. volatile: the stores around the access are seen by
// the signal handler, so they must not be optimised away.
thread_local sigjmp_buf* volatile tGuard = nullptr;

void onBusError(int signal, siginfo_t*, void*) {
  if (tGuard != nullptr) siglongjmp(*tGuard, 1);
  // Not ours: the default action ends the process when the faulting access runs again.
  ::signal(signal, SIG_DFL);
}

void installGuard() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction action {};
    action.sa_sigaction = onBusError;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    sigaction(SIGBUS, &action, nullptr);
  });
}

}  // namespace

int guardedFill(uint8_t* data, size_t size, uint8_t value) {
  installGuard();
  sigjmp_buf here;
  if (sigsetjmp(here, 1) != 0) {
    tGuard = nullptr;
    return -EFAULT;
  }
  tGuard = &here;
  memset(data, value, size);
  tGuard = nullptr;
  return 0;
}

int checksumRange(int fd, uint64_t offset, size_t size, uint32_t* crc,
                  std::vector<uint8_t>* buffer) {
  buffer->resize(256 << 10);
  while (size > 0) {
    const size_t want = size < buffer->size() ? size : buffer->size();
    const ssize_t got = pread(fd, buffer->data(), want, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -errno;
    if (got == 0) return -EIO;
    *crc = static_cast<uint32_t>(crc32_z(*crc, buffer->data(), static_cast<size_t>(got)));
    offset += static_cast<uint64_t>(got);
    size -= static_cast<size_t>(got);
  }
  return 0;
}

}  // namespace peer
}  // namespace vrocam
