// SPDX-License-Identifier: Apache-2.0
// The manager under several threads and under descriptor exhaustion, with the host's loopback
// IPC client.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <set>
#include <thread>
#include <vector>

#include "HostProperties.h"
#include "IPCClient.h"
#include "IPCClientShmMgr.h"
#include "LogCapture.h"
#include "ManagerInspector.h"
#include "PeerCommands.h"
#include "ProcessSnapshot.h"
#include "ProcessState.h"

namespace vrocam {
namespace test {
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
constexpr int kCycles = 1000;  // per thread: 10^4 operations
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
  std::vector<int> handles[kThreads];
  Id ids[kThreads];
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    ids[i] = Id{IPC_USER(100 + i), unsigned(i), 0};
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
  NSCam::Utils::Properties::host_property_set("vendor.debug.ipc.log", nullptr);
  EXPECT_TRUE(Inspector::registry(*mgr).empty());
  // The array-form release erases without the lock: it runs alone, beside the release of all.
  ShmMemAlloc alloc{"stress-c", 3, kSize};
  for (const Id& id : ids) ASSERT_EQ(mgr->allocateShmMem(id, alloc), 0);
  EXPECT_EQ(clientTotals(), registryTotals(*mgr));
  EXPECT_EQ(mgr->releaseShmMem(ids[0], &alloc, 1), 0);
  EXPECT_EQ(mgr->releaseAllShmMems(), 0);
  EXPECT_TRUE(Inspector::registry(*mgr).empty());
  EXPECT_EQ(clientTotals(), std::make_pair(uint64_t{0}, uint64_t{0}));
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
    lowered.rlim_cur = host::ProcessSnapshot::of().descriptors.rbegin()->first + 32;
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

// Out of descriptors allocation fails with -1, keeps and leaks nothing, and then recovers.
TEST(ManagerExhaustionTest, AllocationFailsCleanlyAndRecovers) {
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  LeakGuard leaks;
  LogCapture log;
  const Id id{IPC_USER(7), 2, 0};
  ShmMemAlloc alloc{"frame", 1, 4096};
  for (int spare : {0, 1}) {  // no region at all, or a region but no duplicate of it
    {
      DescriptorSqueeze squeeze(spare);
      EXPECT_EQ(mgr->allocateShmMem(id, alloc), -1);
      EXPECT_EQ(mgr->allocateAllShmMems(id, &alloc, 1), -1);
    }
    EXPECT_THAT(log.texts(), ::testing::Contains(::testing::HasSubstr(spare ? "dup" : "create")));
    EXPECT_TRUE(Inspector::registry(*mgr).empty());
    leaks.expectNoLeaks();
    EXPECT_EQ(mgr->allocateShmMem(id, alloc), 0);
    EXPECT_EQ(registryTotals(*mgr), std::make_pair(uint64_t{1}, uint64_t{4096}));
    EXPECT_EQ(mgr->releaseAllShmMems(), 0);
  }
  leaks.expectNoLeaks();
}

}  // namespace
}  // namespace test
}  // namespace vrocam
