// SPDX-License-Identifier: Apache-2.0
// LeakGuard: descriptors from /proc/PID/fd, mappings from /proc/PID/maps.
#include "LeakGuard.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace vrotest {

namespace {

std::string procPath(pid_t pid, const char* what) {
  return (pid == 0 ? std::string("/proc/self") : "/proc/" + std::to_string(pid)) + "/" + what;
}

}  // namespace

std::map<int, std::string> LeakGuard::openDescriptors(pid_t pid) {
  std::map<int, std::string> fds;
  const std::string dirPath = procPath(pid, "fd");
  DIR* dir = opendir(dirPath.c_str());
  if (dir == nullptr) return fds;
  const int own = pid == 0 ? dirfd(dir) : -1;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const int fd = atoi(entry->d_name);
    if (fd == own) continue;
    char target[512] = {};
    const std::string link = dirPath + "/" + entry->d_name;
    const ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
    fds[fd] = n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string("?");
  }
  closedir(dir);
  return fds;
}

std::multiset<std::string> LeakGuard::memfdMappings(pid_t pid) {
  std::multiset<std::string> lines;
  std::ifstream maps(procPath(pid, "maps"));
  std::string line;
  while (std::getline(maps, line)) {
    if (line.find("/memfd:") != std::string::npos) lines.insert(line);
  }
  return lines;
}

std::multiset<std::string> LeakGuard::targets() const {
  std::multiset<std::string> out;
  for (const auto& fd : openDescriptors(mPid)) {
    out.insert(fd.second.rfind("socket:", 0) == 0 ? "socket" : fd.second);
  }
  return out;
}

LeakGuard::LeakGuard(pid_t pid) : mPid(pid), mTargets(targets()), mMappings(memfdMappings(pid)) {}

void LeakGuard::expectNoLeaks() const {
  const std::multiset<std::string> now = targets();
  for (auto it = now.begin(); it != now.end(); it = now.upper_bound(*it)) {
    const size_t more = now.count(*it);
    const size_t before = mTargets.count(*it);
    if (more > before) {
      ADD_FAILURE() << "descriptor left open"
                    << (mPid != 0 ? " in pid " + std::to_string(mPid) : "") << ": " << *it << " ("
                    << more - before << " more)";
    }
  }
  const std::multiset<std::string> mappings = memfdMappings(mPid);
  for (auto it = mappings.begin(); it != mappings.end(); it = mappings.upper_bound(*it)) {
    if (mappings.count(*it) > mMappings.count(*it)) ADD_FAILURE() << "mapping left behind: " << *it;
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

DescriptorZeroFree::DescriptorZeroFree() : mSaved(fcntl(0, F_DUPFD_CLOEXEC, 3)) { close(0); }

DescriptorZeroFree::~DescriptorZeroFree() {
  if (mSaved < 0) {
    close(0);
    return;
  }
  dup2(mSaved, 0);
  close(mSaved);
}

}  // namespace vrotest
