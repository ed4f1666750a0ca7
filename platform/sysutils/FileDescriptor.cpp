// SPDX-License-Identifier: Apache-2.0
// Host FileDescriptor: closes what it holds, duplicates with close-on-exec.
#include "FileDescriptor.h"

#include <fcntl.h>
#include <unistd.h>

namespace NSCam {
namespace utils {
namespace sys {

FileDescriptor::FileDescriptor(int fd, unsigned long flags) : mFd(fd), mFlags(flags) {}

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept
    : mFd(other.mFd), mFlags(other.mFlags) {
  other.mFd = -1;
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    if (mFd >= 0) ::close(mFd);
    mFd = other.mFd;
    mFlags = other.mFlags;
    other.mFd = -1;
  }
  return *this;
}

FileDescriptor::~FileDescriptor() {
  if (mFd >= 0) ::close(mFd);
}

int FileDescriptor::get() const { return mFd; }

unsigned long FileDescriptor::flags() const { return mFlags; }

int FileDescriptor::dup() const {
  if (mFd < 0) return -1;
  return ::fcntl(mFd, F_DUPFD_CLOEXEC, 0);
}

}  // namespace sys
}  // namespace utils
}  // namespace NSCam
