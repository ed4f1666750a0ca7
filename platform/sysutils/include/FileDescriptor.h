// SPDX-License-Identifier: Apache-2.0
// FileDescriptor: the move-only owner of one descriptor, from the closed system-utilities library.
#pragma once

namespace NSCam {
namespace utils {
namespace sys {

class FileDescriptor {
 public:
  // Takes ownership of fd (negative: holds none). The second argument is reserved; pass 0.
  FileDescriptor(int fd, unsigned long flags);
  FileDescriptor(FileDescriptor&& other) noexcept;
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  // Closes the held descriptor.
  ~FileDescriptor();

  // The held descriptor; negative when none is held.
  int get() const;
  // A new close-on-exec descriptor for the same open file, or negative; the held one is untouched.
  int dup() const;
#ifndef __ANDROID__
  // Host stand-in only, for tests: the second argument the constructor was given.
  unsigned long flags() const;
#endif

 private:
  int mFd;
  unsigned long mFlags;
};

}  // namespace sys
}  // namespace utils
}  // namespace NSCam
