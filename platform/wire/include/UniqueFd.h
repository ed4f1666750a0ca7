// SPDX-License-Identifier: Apache-2.0
// UniqueFd: the move-only owner of one descriptor, closed when the owner goes away.
#pragma once

#include <unistd.h>

namespace vrowire {

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
  // Gives up ownership without closing.
  int release() {
    const int fd = mFd;
    mFd = -1;
    return fd;
  }
  void reset(int fd = -1) {
    if (mFd >= 0) ::close(mFd);
    mFd = fd;
  }

 private:
  int mFd = -1;
};

}  // namespace vrowire
