// SPDX-License-Identifier: Apache-2.0
// LeakGuard: descriptors from /proc/self/fd, mappings from /proc/self/maps.
#include "LeakGuard.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace vrotest {

std::map<int, std::string> LeakGuard::openDescriptors() {
  std::map<int, std::string> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return fds;
  const int own = dirfd(dir);
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const int fd = atoi(entry->d_name);
    if (fd == own) continue;
    char target[512] = {};
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    const ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
    fds[fd] = n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string("?");
  }
  closedir(dir);
  return fds;
}

std::set<std::string> LeakGuard::memfdMappings() {
  std::set<std::string> lines;
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    if (line.find("/memfd:") != std::string::npos) lines.insert(line);
  }
  return lines;
}

LeakGuard::LeakGuard() : mDescriptors(openDescriptors()), mMappings(memfdMappings()) {}

void LeakGuard::expectNoLeaks() const {
  for (const auto& fd : openDescriptors()) {
    auto before = mDescriptors.find(fd.first);
    if (before == mDescriptors.end() || before->second != fd.second) {
      ADD_FAILURE() << "descriptor left open: " << fd.first << " -> " << fd.second;
    }
  }
  for (const std::string& line : memfdMappings()) {
    if (mMappings.count(line) == 0) ADD_FAILURE() << "mapping left behind: " << line;
  }
}

std::string mappingOf(const void* addr) {
  const auto target = reinterpret_cast<uintptr_t>(addr);
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    std::istringstream range(line);
    uintptr_t start = 0;
    uintptr_t end = 0;
    char dash = 0;
    range >> std::hex >> start >> dash >> end;
    if (target >= start && target < end) return line;
  }
  return "";
}

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

}  // namespace vrotest
