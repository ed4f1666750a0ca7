// SPDX-License-Identifier: Apache-2.0
// Shared memory made by a test itself: a memfd mapped read-write, optionally sealed.
#pragma once

#include <fcntl.h>

namespace vrotest {

struct Region {
  int fd = -1;
  void* addr = nullptr;
  unsigned int size = 0;
};

// A memfd of size bytes named name, with seals added when not 0 (the host ashmem seals regions
// with F_SEAL_SHRINK | F_SEAL_GROW; the peer takes only memory sealed against shrinking).
Region makeRegion(unsigned int size, const char* name = "test-region", int seals = 0);
// Unmaps and closes a region the manager did not release.
void freeRegion(const Region& region);

constexpr int kRegionSeals = F_SEAL_SHRINK | F_SEAL_GROW;

}  // namespace vrotest
