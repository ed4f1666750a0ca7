// SPDX-License-Identifier: Apache-2.0
// LeakGuard: descriptors from /proc/PID/fd, mappings from /proc/PID/maps; test regions from
// memfd_create.
#include "LeakGuard.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <vector>

namespace vrotest {
namespace {

std::string procPath(pid_t pid, const char* what) {
  return "/proc/" + (pid == 0 ? std::string("self") : std::to_string(pid)) + "/" + what;
}

// What now holds beyond before, each element as often as it is in excess.
std::vector<std::string> excess(const std::multiset<std::string>& now,
                                const std::multiset<std::string>& before) {
  std::vector<std::string> out;
  std::set_difference(now.begin(), now.end(), before.begin(), before.end(),
                      std::back_inserter(out));
  return out;
}

}  // namespace

std::map<int, std::string> LeakGuard::openDescriptors(pid_t pid) {
  std::map<int, std::string> fds;
  const std::string dirPath = procPath(pid, "fd");
  DIR* dir = opendir(dirPath.c_str());
  if (dir == nullptr) return fds;
  while (dirent* entry = readdir(dir)) {
    const int fd = atoi(entry->d_name);
    if (entry->d_name[0] == '.' || (pid == 0 && fd == dirfd(dir))) continue;
    char target[512] = {};
    const ssize_t n = readlink((dirPath + "/" + entry->d_name).c_str(), target, sizeof(target) - 1);
    fds[fd] = n > 0 ? target : "?";
  }
  closedir(dir);
  return fds;
}

std::multiset<std::string> LeakGuard::memfdMappings(pid_t pid) {
  std::multiset<std::string> lines;
  std::ifstream maps(procPath(pid, "maps"));
  for (std::string line; std::getline(maps, line);) {
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
  const std::string where = mPid != 0 ? " in pid " + std::to_string(mPid) : "";
  for (const std::string& fd : excess(targets(), mTargets)) {
    ADD_FAILURE() << "descriptor left open" << where << ": " << fd;
  }
  for (const std::string& map : excess(memfdMappings(mPid), mMappings)) {
    ADD_FAILURE() << "mapping left behind" << where << ": " << map;
  }
}

std::string mappingOf(const void* addr) {
  const auto target = reinterpret_cast<uintptr_t>(addr);
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    uintptr_t start = 0, end = 0;
    if (sscanf(line.c_str(), "%lx-%lx", &start, &end) == 2 && target >= start && target < end) {
      return line;
    }
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

Region makeRegion(unsigned int size, const char* name, int seals) {
  Region region;
  region.size = size;
  region.fd = memfd_create(name, MFD_CLOEXEC | (seals != 0 ? MFD_ALLOW_SEALING : 0));
  EXPECT_GE(region.fd, 0);
  EXPECT_EQ(ftruncate(region.fd, size), 0);
  EXPECT_EQ(seals != 0 ? fcntl(region.fd, F_ADD_SEALS, seals) : 0, 0);
  region.addr = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, region.fd, 0);
  EXPECT_NE(region.addr, MAP_FAILED);
  return region;
}

void freeRegion(const Region& region) {
  munmap(region.addr, region.size);
  close(region.fd);
}

}  // namespace vrotest
