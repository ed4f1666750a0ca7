// SPDX-License-Identifier: Apache-2.0
// PrivateDirectory: mkdtemp, and removal of what it holds.
#include "PrivateDirectory.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace vrocam {
namespace peer {

PrivateDirectory::PrivateDirectory(const std::string& prefix, bool leftToPeer) {
  std::vector<char> name(prefix.begin(), prefix.end());
  name.insert(name.end(), {'X', 'X', 'X', 'X', 'X', 'X', '\0'});
  if (mkdtemp(name.data()) == nullptr) return;
  mPath = name.data();
  if (leftToPeer) rmdir(mPath.c_str());
}

PrivateDirectory::~PrivateDirectory() {
  if (mPath.empty()) return;
  if (DIR* dir = opendir(mPath.c_str())) {
    while (dirent* entry = readdir(dir)) {
      const std::string file = entry->d_name;
      if (file != "." && file != "..") unlink((mPath + "/" + file).c_str());
    }
    closedir(dir);
  }
  rmdir(mPath.c_str());
}

}  // namespace peer
}  // namespace vrocam
