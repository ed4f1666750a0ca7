// SPDX-License-Identifier: Apache-2.0
// ManagerTest and its helpers.
#include "ManagerFixture.h"

namespace vrocam {
namespace test {
namespace {

std::vector<int> fieldOf(const std::vector<ShmMemInfo>& infos, int ShmMemInfo::*field) {
  std::vector<int> out;
  for (const ShmMemInfo& info : infos) out.push_back(info.*field);
  return out;
}

}  // namespace

std::vector<int> fdsOf(const std::vector<ShmMemInfo>& infos) {
  return fieldOf(infos, &ShmMemInfo::fd);
}
std::vector<int> handlesOf(const std::vector<ShmMemInfo>& infos) {
  return fieldOf(infos, &ShmMemInfo::handle);
}

void setDbgLog(IPCClientShmMgr* mgr, const char* value) {
  NSCam::Utils::Properties::host_property_set("vendor.debug.ipc.log", value);
  mgr->init();
}

void ManagerTest::SetUp() {
  gFactoryGives = true;
  mgr = IPCClientShmMgr::getInstance();
  Inspector::setClient(*mgr, &client);
  Inspector::forgetRegistry(*mgr);
  setDbgLog(mgr, "1");
  log.clear();
}

void ManagerTest::TearDown() {
  setDbgLog(mgr, nullptr);
  EXPECT_TRUE(Inspector::lockFree(*mgr));
  Inspector::forgetRegistry(*mgr);
  Inspector::setClient(*mgr, nullptr);
  leaks.expectNoLeaks();
}

}  // namespace test
}  // namespace vrocam
