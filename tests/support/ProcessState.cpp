// SPDX-License-Identifier: Apache-2.0
// What a test process holds: snapshots compared, probes, test regions.
#include "ProcessState.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include "ProcessSnapshot.h"

namespace vrocam {
namespace test {
std::multiset<std::string> LeakGuard::held() const {
  const host::ProcessSnapshot snapshot = host::ProcessSnapshot::of(mPid);
  std::multiset<std::string> out;
  for (const auto& fd : snapshot.descriptors) {
    out.insert("descriptor " + (fd.second.rfind("socket:", 0) == 0 ? "socket" : fd.second));
  }
  for (const std::string& line : snapshot.memfdMappings()) out.insert("mapping " + line);
  return out;
}

LeakGuard::LeakGuard(pid_t pid) : mPid(pid), mHeld(held()) {}

void LeakGuard::expectNoLeaks() const {
  // Another process (the peer) frees in its own time: it gets a few seconds to.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(mPid != 0 ? 5 : 0);
  std::vector<std::string> left;
  do {
    if (!left.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const std::multiset<std::string> now = held();
    left.clear();
    std::set_difference(now.begin(), now.end(), mHeld.begin(), mHeld.end(),
                        std::back_inserter(left));
  } while (!left.empty() && std::chrono::steady_clock::now() < deadline);
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

Region makeRegion(unsigned int size, const char* name, unsigned int seals) {
  Region region;
  region.size = size;
  region.fd = host::sealedMemfd(name, size, seals).release();
  EXPECT_GE(region.fd, 0);
  region.addr = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, region.fd, 0);
  EXPECT_NE(region.addr, MAP_FAILED);
  return region;
}

void freeRegion(const Region& region) {
  munmap(region.addr, region.size);
  close(region.fd);
}

}  // namespace test
}  // namespace vrocam
