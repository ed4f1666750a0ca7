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

std::multiset<std::string> LeakGuard::held() const {
  std::multiset<std::string> out;
  for (const auto& fd : openDescriptors(mPid)) {
    out.insert("descriptor " + (fd.second.rfind("socket:", 0) == 0 ? "socket" : fd.second));
  }
  std::ifstream maps(procPath(mPid, "maps"));
  for (std::string line; std::getline(maps, line);) {
    if (line.find("/memfd:") != std::string::npos) out.insert("mapping " + line);
  }
  return out;
}

LeakGuard::LeakGuard(pid_t pid) : mPid(pid), mHeld(held()) {}

void LeakGuard::expectNoLeaks() const {
  const std::multiset<std::string> now = held();
  std::vector<std::string> left;
  std::set_difference(now.begin(), now.end(), mHeld.begin(), mHeld.end(), std::back_inserter(left));
  const std::string where = mPid != 0 ? " in pid " + std::to_string(mPid) : "";
  for (const std::string& item : left) ADD_FAILURE() << "left behind" << where << ": " << item;
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
