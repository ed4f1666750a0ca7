// SPDX-License-Identifier: Apache-2.0
// UniqueFd: the move-only owner of one descriptor, with the rules of Android's libbase: the
// descriptor is closed when the owner goes or takes another; reset() leaves errno as it was, so
// that an error can be read after the descriptor that caused it is closed; release() gives up
// ownership and must be used.
#pragma once

#include <unistd.h>

#include <cerrno>

namespace vrocam {
namespace host {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : mFd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : mFd(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return mFd; }
  explicit operator bool() const { return mFd >= 0; }
  // Gives up ownership without closing: the caller now owns the descriptor.
  [[nodiscard]] int release() {
    const int fd = mFd;
    mFd = -1;
    return fd;
  }
  // Closes the descriptor held, if any, and holds fd; errno is left as it was.
  void reset(int fd = -1) {
    if (mFd >= 0) {
      const int saved = errno;
      ::close(mFd);
      errno = saved;
    }
    mFd = fd;
  }

 private:
  int mFd = -1;
};

}  // namespace host
}  // namespace vrocam
