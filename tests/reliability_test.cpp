// SPDX-License-Identifier: Apache-2.0
// The manager under several threads and under descriptor exhaustion, with the host's loopback
// IPC client.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "HostProperties.h"
#include "IPCClient.h"
#include "IPCClientShmMgr.h"
#include "LeakGuard.h"
#include "LogCapture.h"
#include "ManagerInspector.h"
#include "PeerCommands.h"
#include "TestRegion.h"

namespace vrotest {
namespace {

using namespace NSCam::ipc::wrapper;
using Id = IPCClientShmMgr::Identifier;
using Inspector = IPCClientShmMgrInspector;

// Records in the registry, and what the IPC client holds, as {memories, bytes}.
std::pair<uint64_t, uint64_t> registryTotals(IPCClientShmMgr& mgr) {
  std::pair<uint64_t, uint64_t> totals{0, 0};
  for (const auto& key : Inspector::registry(mgr)) {
    for (const auto& record : key.second)
      totals = {totals.first + 1, totals.second + record.second.size};
  }
  return totals;
}
std::pair<uint64_t, uint64_t> clientTotals() {
  PeerHoldings holdings{};
  EXPECT_EQ(IPCClientFactory::getInstance(IPC_PLATFORM_DEFAULT)
                ->sendCommand(PEER_COMMAND_HOLDINGS, &holdings, sizeof(holdings)),
            0);
  return {holdings.memories, holdings.bytes};
}

constexpr int kThreads = 4;
constexpr int kRounds = 20;
constexpr int kCycles = 50;  // per thread and round: 10^4 operations per thread in all
constexpr unsigned int kSize = 4096;

// One cycle of every operation but the array-form release, on a thread's own key, each checked
// by a lookup; it adds the handles it saw to *handles and leaves nothing registered.
void cycle(IPCClientShmMgr* mgr, const Id& id, std::vector<int>* handles) {
  ASSERT_EQ(IPCClientShmMgr::getInstance(), mgr);
  ShmMemAlloc allocs[] = {{"stress-a", 0, kSize}, {"stress-b", 1, kSize}};
  ASSERT_EQ(mgr->allocateShmMem(id, allocs[0]), 0);
  ASSERT_EQ(mgr->allocateAllShmMems(id, allocs + 1, 1), 0);
  const Region own = makeRegion(kSize, "stress-own");
  ShmMemInfo out;
  ASSERT_EQ(mgr->registerShmMem(id, 1, "own", own.fd, kSize, own.addr, out), 0);
  std::vector<ShmMemInfo> batch;
  for (unsigned int type : {2u, 3u}) {
    const Region region = makeRegion(kSize, "stress-batch");
    batch.emplace_back("batch", type, kSize, region.fd, region.addr, -1);
  }
  ASSERT_EQ(mgr->registerShmMem(id, batch), 0);
  std::vector<int> seen;
  for (unsigned int type = 0; type < 4; ++type) {
    std::vector<ShmMemInfo> infos;
    ASSERT_EQ(mgr->getShmInfo(infos, id, type), 0);
    ASSERT_EQ(infos.size(), type == 1 ? 2u : 1u) << "type " << type;
    for (const ShmMemInfo& info : infos) seen.push_back(info.handle);
  }
  EXPECT_EQ(seen[4], seen[3] + 1) << "a batch takes consecutive handles";
  std::sort(seen.begin(), seen.end());
  EXPECT_TRUE(handles->empty() || seen[0] > handles->back()) << "handles went back";
  handles->insert(handles->end(), seen.begin(), seen.end());
  ASSERT_EQ(mgr->releaseShmMem(id.user, id.sensorIdx, 1, true, own.fd), 0);
  EXPECT_EQ(mgr->getShmInfo(out, id, 1, own.fd), -1);
  ASSERT_EQ(mgr->releaseShmMem(id, 0), 0);
  ASSERT_EQ(mgr->releaseShmMem(id, std::vector<unsigned int>{1, 2, 3}), 0);
  for (unsigned int type = 0; type < 4; ++type) EXPECT_EQ(mgr->getShmInfo(out, id, type, -1), -1);
}

// Threads running every operation at once keep handles unique and the registry equal to the client.
TEST(ManagerStressTest, EveryOperationFromSeveralThreads) {
  LeakGuard leaks;
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  ASSERT_EQ(clientTotals(), registryTotals(*mgr));
  std::vector<int> handles[kThreads];
  Id ids[kThreads];
  for (int i = 0; i < kThreads; ++i) ids[i] = Id{IPC_USER(100 + i), unsigned(i), 0};
  for (int round = 0; round < kRounds && !::testing::Test::HasFailure(); ++round) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        for (int n = 0; n < kCycles && !::testing::Test::HasFatalFailure(); ++n) {
          if (i == 0) {
            NSCam::Utils::Properties::host_property_set("vendor.debug.ipc.log", n % 2 ? "1" : "0");
          }
          cycle(mgr, ids[i], &handles[i]);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(Inspector::registry(*mgr).empty()) << "round " << round;
    ShmMemAlloc alloc{"stress-c", 3, kSize};
    for (const Id& id : ids) ASSERT_EQ(mgr->allocateShmMem(id, alloc), 0);
    EXPECT_EQ(clientTotals(), registryTotals(*mgr));
    for (const Id& id : ids) {
      EXPECT_EQ(round % 4 == 3 ? 0 : mgr->releaseShmMem(id, &alloc, 1), 0);
    }
    EXPECT_EQ(round % 4 == 3 ? mgr->releaseAllShmMems() : 0, 0);
    EXPECT_TRUE(Inspector::registry(*mgr).empty()) << "round " << round;
    EXPECT_EQ(clientTotals(), std::make_pair(uint64_t{0}, uint64_t{0}));
  }
  NSCam::Utils::Properties::host_property_set("vendor.debug.ipc.log", nullptr);
  std::set<int> all;
  size_t count = 0;
  for (const std::vector<int>& mine : handles) {
    all.insert(mine.begin(), mine.end());
    count += mine.size();
  }
  EXPECT_EQ(all.size(), count) << "a handle was given twice";
  EXPECT_LT(*all.rbegin(), Inspector::nextHandle(*mgr));
  leaks.expectNoLeaks();
}

// Holds every descriptor below a lowered limit but `spare`, and gives all back when it goes.
class DescriptorSqueeze {
 public:
  explicit DescriptorSqueeze(int spare) {
    getrlimit(RLIMIT_NOFILE, &mSaved);
    rlimit lowered = mSaved;
    lowered.rlim_cur = LeakGuard::openDescriptors().rbegin()->first + 32;
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    for (int fd; (fd = dup(STDERR_FILENO)) >= 0;) mHeld.push_back(fd);
    for (int i = 0; i < spare; ++i, mHeld.pop_back()) close(mHeld.back());
  }
  ~DescriptorSqueeze() {
    for (int fd : mHeld) close(fd);
    setrlimit(RLIMIT_NOFILE, &mSaved);
  }

 private:
  rlimit mSaved;
  std::vector<int> mHeld;
};

// Out of descriptors allocation fails with -1 and its lines, keeps nothing, and works again later.
TEST(ManagerExhaustionTest, AllocationFailsCleanlyAndRecovers) {
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  LeakGuard leaks;
  LogCapture log;
  const Id id{IPC_USER(7), 2, 0};
  const std::string tail =
      "[allocateShmMem] error: [User:7, Sensor:2, UserId:0] Unable to "
      "allocate shared memory for frame, size:4096\n";
  const struct {
    int spare;
    std::vector<std::string> errors;
  } cases[] = {
      {0,
       {"create shared memory failed",
        "[allocateShmMem] error: [Sensor:2] unable to allocate shared memory via IPC "
        "SharedMemory\n",
        tail}},
      {1, {"[allocateShmMem] error: [Sensor:2] call dup fail\n", tail}},
  };
  for (const auto& c : cases) {
    log.clear();
    ShmMemAlloc alloc{"frame", 1, 4096};
    {
      DescriptorSqueeze squeeze(c.spare);
      EXPECT_EQ(mgr->allocateShmMem(id, alloc), -1);
      EXPECT_EQ(mgr->allocateAllShmMems(id, &alloc, 1), -1);
    }
    std::vector<std::string> expected = c.errors;
    expected.insert(expected.end(), c.errors.begin(), c.errors.end());
    expected.back().replace(1, 14, "allocateAllShmMems");
    EXPECT_EQ(log.texts(), expected) << c.spare << " spare";
    leaks.expectNoLeaks();
    EXPECT_EQ(mgr->allocateShmMem(id, alloc), 0);
    EXPECT_EQ(registryTotals(*mgr), std::make_pair(uint64_t{1}, uint64_t{4096}));
    EXPECT_EQ(mgr->releaseAllShmMems(), 0);
  }
  leaks.expectNoLeaks();
}

}  // namespace
}  // namespace vrotest
