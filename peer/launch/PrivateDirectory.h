// SPDX-License-Identifier: Apache-2.0
// PrivateDirectory: a directory of this process's own under /tmp (mode 0700, a fresh name) for a
// peer's socket, removed with what is in it when its owner goes; or only a fresh name for one,
// which the peer makes and removes.
#pragma once

#include <string>

namespace vrocam {
namespace peer {

class PrivateDirectory {
 public:
  // prefix: the start of the path, such as "/tmp/vrocam-demo-". leftToPeer: only a name that is
  // free now is chosen, for the peer serving a socket there to make the directory (and to refuse
  // one that another user made first), and to remove it when it stops, also when this process is
  // killed; nothing is made and nothing removed here. path() is empty when no name could be had.
  explicit PrivateDirectory(const std::string& prefix, bool leftToPeer = false);
  // Removes the files directly in the directory, then the directory (not when left to the peer).
  ~PrivateDirectory();
  PrivateDirectory(const PrivateDirectory&) = delete;
  PrivateDirectory& operator=(const PrivateDirectory&) = delete;

  const std::string& path() const { return mPath; }
  // The peer's socket in it.
  std::string socket() const { return mPath + "/peer.sock"; }

 private:
  std::string mPath;
  bool mMade = false;
};

}  // namespace peer
}  // namespace vrocam
