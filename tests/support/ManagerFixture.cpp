// SPDX-License-Identifier: Apache-2.0
// ManagerTest and the test's own regions.
#include "ManagerFixture.h"

#include <cstdarg>
#include <cstdio>

namespace vrotest {

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
