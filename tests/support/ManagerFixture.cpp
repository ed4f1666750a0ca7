// SPDX-License-Identifier: Apache-2.0
// ManagerTest and the test's own regions.
#include "ManagerFixture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

namespace vrotest {

Region makeRegion(unsigned int size, const char* name) {
  Region region;
  region.size = size;
  region.fd = memfd_create(name, MFD_CLOEXEC);
  EXPECT_GE(region.fd, 0);
  EXPECT_EQ(ftruncate(region.fd, size), 0);
  region.addr = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, region.fd, 0);
  EXPECT_NE(region.addr, MAP_FAILED);
  return region;
}

void freeRegion(const Region& region) {
  munmap(region.addr, region.size);
  close(region.fd);
}

std::string format(const char* fmt, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof(text), fmt, ap);
  va_end(ap);
  return text;
}

void setDbgLog(IPCClientShmMgr* mgr, const char* value) {
  NSCam::Utils::Properties::host_property_set("vendor.debug.ipc.log", value);
  mgr->init();
}

void ManagerTest::SetUp() {
  TestClientFactory::setAvailable(true);
  TestClientFactory::setTarget(&client);
  mgr = IPCClientShmMgr::getInstance();
  Inspector::setClient(*mgr, TestClientFactory::forwarder());
  Inspector::forgetRegistry(*mgr);
  setDbgLog(mgr, "1");
  log.clear();
}

void ManagerTest::TearDown() {
  setDbgLog(mgr, nullptr);
  EXPECT_TRUE(Inspector::lockFree(*mgr));
  Inspector::forgetRegistry(*mgr);
  TestClientFactory::setTarget(nullptr);
  leaks.expectNoLeaks();
}

}  // namespace vrotest
