// SPDX-License-Identifier: Apache-2.0
// What a test process holds and leaves behind: the leak guard over snapshots of descriptors and
// shared-memory mappings, probes of one descriptor or address, and the shared memory a test makes
// itself.
#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>

#include "SealedMemfd.h"

namespace vrocam {
namespace test {

class LeakGuard {
 public:
  explicit LeakGuard(pid_t pid = 0);

  // Fails the current test, naming every descriptor target open more often than at the snapshot
  // (sockets count alike, whatever their inode: a reconnection is no leak), and every memfd
  // mapping that was not there. Another process gets a few seconds to let go of what it holds.
  void expectNoLeaks() const;

 private:
  std::multiset<std::string> held() const;  // descriptor targets and memfd mappings

  pid_t mPid;
  std::multiset<std::string> mHeld;
};

// The /proc/self/maps line of the mapping that contains addr, or "" when none does.
std::string mappingOf(const void* addr);
// Whether fd is open in this process.
bool isOpen(int fd);

// Frees descriptor 0 for its lifetime, so that the next descriptor made gets it; then puts back
// what was there (or leaves it closed, as it was).
class DescriptorZeroFree {
 public:
  DescriptorZeroFree();
  ~DescriptorZeroFree();
  DescriptorZeroFree(const DescriptorZeroFree&) = delete;
  DescriptorZeroFree& operator=(const DescriptorZeroFree&) = delete;

 private:
  int mSaved;
};

// Why a test that needs what nothing else in its process has touched (the manager, the socket
// client) was skipped.
constexpr char kOwnProcess[] = "needs a process of its own, as ctest gives each test";

// A memfd made by a test itself, mapped read-write.
struct Region {
  int fd = -1;
  void* addr = nullptr;
  unsigned int size = 0;
};

// A memfd of size bytes named name, mapped read-write, with seals added when not 0 (the host
// ashmem seals regions with kRegionSeals; the peer takes only memory sealed against shrinking).
Region makeRegion(unsigned int size, const char* name = "test-region", unsigned int seals = 0);
// Unmaps and closes a region the manager did not release.
void freeRegion(const Region& region);

using host::kRegionSeals;

}  // namespace test
}  // namespace vrocam
