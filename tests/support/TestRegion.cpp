// SPDX-License-Identifier: Apache-2.0
// Test regions: memfd_create, ftruncate, seals, mmap.
#include "TestRegion.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace vrotest {

Region makeRegion(unsigned int size, const char* name, int seals) {
  Region region;
  region.size = size;
  region.fd = memfd_create(name, MFD_CLOEXEC | (seals != 0 ? MFD_ALLOW_SEALING : 0));
  EXPECT_GE(region.fd, 0);
  EXPECT_EQ(ftruncate(region.fd, size), 0);
  if (seals != 0) {
    EXPECT_EQ(fcntl(region.fd, F_ADD_SEALS, seals), 0);
  }
  region.addr = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, region.fd, 0);
  EXPECT_NE(region.addr, MAP_FAILED);
  return region;
}

void freeRegion(const Region& region) {
  munmap(region.addr, region.size);
  close(region.fd);
}

}  // namespace vrotest
