// SPDX-License-Identifier: Apache-2.0
// PrivateDirectory: a directory of this process's own under /tmp (mode 0700, a fresh name) for a
// peer's socket, removed with what is in it when its owner goes.
#pragma once

#include <string>

namespace vrocam {
namespace peer {

class PrivateDirectory {
 public:
  // prefix: the start of the path, such as "/tmp/vrocam-demo-". leftToPeer: the name is taken and
  // the directory removed again, for the peer serving a socket in it to make, and to remove when it
  // stops, also when this process is killed. path() is empty when no name could be had.
  explicit PrivateDirectory(const std::string& prefix, bool leftToPeer = false);
  // Removes the files directly in the directory, then the directory.
  ~PrivateDirectory();
  PrivateDirectory(const PrivateDirectory&) = delete;
  PrivateDirectory& operator=(const PrivateDirectory&) = delete;

  const std::string& path() const { return mPath; }
  // The peer's socket in it.
  std::string socket() const { return mPath + "/peer.sock"; }

 private:
  std::string mPath;
};

}  // namespace peer
}  // namespace vrocam
