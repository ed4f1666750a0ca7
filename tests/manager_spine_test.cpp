// SPDX-License-Identifier: Apache-2.0
// Tests of the manager's spine: records, registry key order, the instance and init().

#include <climits>
#include <cstdlib>
#include <thread>

#include "ManagerFixture.h"

namespace vrocam {
namespace test {
namespace {

using Key = IPCClientShmMgr::ShmMemMapKey;
using Texts = std::vector<std::string>;
constexpr char kDbgLog[] = "vendor.debug.ipc.log";

// Keys order by signed user, then unsigned sensor, user id and type; a record starts out empty.
TEST(ShmRecordsTest, KeyOrderAndRecords) {
  const Key ordered[][2] = {
      {{IPC_USER(-1), ~0u, ~0ull, ~0u}, {IPC_USER(0), 0, 0, 0}},
      {{IPC_USER(INT_MIN), 0, 0, 0}, {IPC_USER(INT_MAX), 0, 0, 0}},
      {{IPC_USER(1), 0, ~0ull, ~0u}, {IPC_USER(1), 0xFFFFFFFF, 0, 0}},
      {{IPC_USER(1), 5, 1, ~0u}, {IPC_USER(1), 5, 1ull << 63, 0}},
      {{IPC_USER(1), 5, 1, 0}, {IPC_USER(1), 5, 1, 0xFFFFFFFF}},
  };
  for (const auto& pair : ordered) {
    EXPECT_TRUE(pair[0] < pair[1] && !(pair[1] < pair[0]) && !(pair[1] < Key(pair[1])))
        << pair[0].user << " " << pair[0].sensorIdx << " " << pair[0].type;
  }
  EXPECT_THAT(ShmMemInfo(), InfoIs("", 0, 0, -1, nullptr, -1));
}

// Without a client the first instance logs one error and stays unconnected until a client comes.
TEST(ManagerInstanceTest, FirstInstanceWithoutClientConnectsLater) {
  if (gFactoryCalls != 0) GTEST_SKIP() << kOwnProcess;
  unsetenv(kDbgLog);
  LogCapture log;
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  EXPECT_TRUE(!Inspector::inited(*mgr) && Inspector::client(*mgr) == nullptr);
  EXPECT_EQ(Inspector::nextHandle(*mgr), 1);
  EXPECT_EQ(gFactoryCalls, 1);
  EXPECT_EQ(gFactoryLastType, 0);
  EXPECT_EQ(log.texts(),
            (Texts{"[init] m_DbgLog:0\n", "[init] error: Unable to get Vro IPCClient\n"}));
  for (const auto& line : log.logged())
    EXPECT_TRUE(line.tag == "IPCClientShmMgr" && line.moduleId == 0x101002u) << line.text;
  EXPECT_THAT(log.printed().at(1).text,
              ::testing::MatchesRegex(".*IPCClient\n \\(init\\)\\{#[0-9]+:ipc/wrapper/common/src/"
                                      "IPCClientShmMgr.cpp\\}"));
  EXPECT_EQ(mgr->init(), -1);
  gFactoryGives = true;
  EXPECT_EQ(IPCClientShmMgr::getInstance(), mgr);
  EXPECT_TRUE(Inspector::inited(*mgr) && Inspector::client(*mgr) == factoryClient());
  EXPECT_EQ(mgr->init(), 0);
  EXPECT_EQ(gFactoryCalls, 3);
}

// Concurrent first calls build one instance and obtain the client exactly once.
TEST(ManagerInstanceTest, ConcurrentFirstCallsAskFactoryOnce) {
  if (gFactoryCalls != 0) GTEST_SKIP() << kOwnProcess;
  gFactoryGives = true;
  IPCClientShmMgr* seen[8] = {};
  std::vector<std::thread> threads;
  for (auto& slot : seen) threads.emplace_back([&slot] { slot = IPCClientShmMgr::getInstance(); });
  for (auto& thread : threads) thread.join();
  for (IPCClientShmMgr* mgr : seen) EXPECT_EQ(mgr, seen[0]);
  EXPECT_EQ(gFactoryCalls, 1);
}

// Each init() re-reads the verbosity and changes nothing else; the factory is asked until it gives.
TEST_F(ManagerTest, InitRereadsVerbosityAndAsksFactoryOnce) {
  Inspector::setClient(*mgr, nullptr);
  gFactoryCalls = 0;
  const int handle = Inspector::nextHandle(*mgr);
  for (const char* value : {"2", "-1"}) {
    NSCam::Utils::Properties::host_property_set(kDbgLog, value);
    EXPECT_EQ(mgr->init(), 0);
    EXPECT_EQ(Inspector::dbgLog(*mgr), atoi(value));
    NSCam::Utils::Properties::host_property_set(kDbgLog, "3");
    EXPECT_EQ(IPCClientShmMgr::getInstance(), mgr);
    EXPECT_EQ(Inspector::dbgLog(*mgr), 3);
  }
  EXPECT_EQ(gFactoryCalls, 1);
  EXPECT_TRUE(Inspector::inited(*mgr) && Inspector::client(*mgr) == factoryClient());
  EXPECT_EQ(Inspector::nextHandle(*mgr), handle);
  EXPECT_TRUE(Inspector::registry(*mgr).empty());
}

}  // namespace
}  // namespace test
}  // namespace vrocam
