// SPDX-License-Identifier: Apache-2.0
// PrivateDirectory: mkdtemp, and removal of what it holds; or a free name.
#include "PrivateDirectory.h"

#include <dirent.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace vrocam {
namespace peer {

PrivateDirectory::PrivateDirectory(const std::string& prefix, bool leftToPeer) {
  if (leftToPeer) {
    // Never made here and freed again: a name freed could be taken by another user at once.
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    for (int attempt = 0; attempt < 100; ++attempt) {
      unsigned char random[12];
      if (getrandom(random, sizeof(random), 0) != sizeof(random)) return;
      std::string name = prefix;
      for (const unsigned char byte : random) name += kLetters[byte % (sizeof(kLetters) - 1)];
      struct stat st {};
      if (lstat(name.c_str(), &st) != 0 && errno == ENOENT) {
        mPath = name;
        return;
      }
    }
    return;
  }
  std::vector<char> name(prefix.begin(), prefix.end());
  name.insert(name.end(), {'X', 'X', 'X', 'X', 'X', 'X', '\0'});
  if (mkdtemp(name.data()) == nullptr) return;
  mPath = name.data();
  mMade = true;
}

PrivateDirectory::~PrivateDirectory() {
  if (!mMade) return;
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
