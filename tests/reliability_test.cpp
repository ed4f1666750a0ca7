// SPDX-License-Identifier: Apache-2.0
// The manager under several threads and under descriptor exhaustion, with the host's loopback
// IPC client.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <random>
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
constexpr int kOpsPerRound = 500;  // 10^4 per thread
constexpr unsigned int kTypes = 6;
constexpr unsigned int kSize = 4096;

// One thread's operations on keys of its own, checked against its model of them.
class Worker {
 public:
  explicit Worker(int index) : mId{IPC_USER(100 + index), unsigned(index), 0}, mRandom(index) {}

  void step(IPCClientShmMgr* mgr) {
    const unsigned int type = mRandom() % kTypes;
    const unsigned int other = (type + 1 + mRandom() % (kTypes - 1)) % kTypes;
    const bool free = mModel[type].empty() && mModel[other].empty();
    ShmMemAlloc allocs[] = {{"stress-a", type, kSize}, {"stress-b", other, kSize}};
    switch (mRandom() % 9) {
      case 0:
        ASSERT_EQ(IPCClientShmMgr::getInstance(), mgr);
        break;
      case 1:  // an allocation replaces the key's records, so only on free keys
        if (free) {
          ASSERT_EQ(mgr->allocateShmMem(mId, allocs[0]), 0);
          learn(mgr, type, -1);
        }
        break;
      case 2:
        if (free) {
          ASSERT_EQ(mgr->allocateAllShmMems(mId, allocs, 2), 0);
          learn(mgr, type, -1);
          learn(mgr, other, -1);
        }
        break;
      case 3: {
        const Region region = makeRegion(kSize, "stress-own");
        ShmMemInfo out;
        ASSERT_EQ(mgr->registerShmMem(mId, type, "own", region.fd, kSize, region.addr, out), 0);
        learn(mgr, type, region.fd);
        EXPECT_EQ(out.handle, mHandles.back());
        break;
      }
      case 4: {  // handles follow the vector's order
        std::vector<ShmMemInfo> infos;
        for (unsigned int t : {type, other}) {
          const Region region = makeRegion(kSize, "stress-batch");
          infos.emplace_back("batch", t, kSize, region.fd, region.addr, -1);
        }
        ASSERT_EQ(mgr->registerShmMem(mId, infos), 0);
        for (const ShmMemInfo& info : infos) learn(mgr, info.type, info.fd);
        EXPECT_EQ(mHandles.back(), mHandles[mHandles.size() - 2] + 1);
        break;
      }
      case 5:
        expectModel(mgr, type);
        break;
      case 6:
        ASSERT_EQ(mgr->releaseShmMem(mId, type), 0);
        mModel[type].clear();
        break;
      case 7:
        if (!mModel[type].empty()) {
          const int fd = mModel[type].rbegin()->first;
          ASSERT_EQ(mgr->releaseShmMem(mId.user, mId.sensorIdx, type, true, fd), 0);
          mModel[type].erase(fd);
        }
        break;
      case 8:
        ASSERT_EQ(mgr->releaseShmMem(mId, std::vector<unsigned int>{type, other}), 0);
        mModel[type].clear();
        mModel[other].clear();
        break;
    }
  }

  // The array-form release of the lower half of the types.
  void releaseByList(IPCClientShmMgr* mgr) {
    ShmMemAlloc allocs[kTypes / 2];
    for (unsigned int i = 0; i < kTypes / 2; ++i) {
      allocs[i] = {"", i, 0};
      mModel[i].clear();
    }
    EXPECT_EQ(mgr->releaseShmMem(mId, allocs, kTypes / 2), 0);
    for (unsigned int type = 0; type < kTypes; ++type) expectModel(mgr, type);
  }
  void forget() { mModel.clear(); }
  const std::vector<int>& handles() const { return mHandles; }

 private:
  // Records the handle of the record of descriptor fd (-1: the key's only one).
  void learn(IPCClientShmMgr* mgr, unsigned int type, int fd) {
    ShmMemInfo info;
    ASSERT_EQ(mgr->getShmInfo(info, mId, type, fd), 0);
    mModel[type][info.fd] = info.handle;
    EXPECT_TRUE(mHandles.empty() || info.handle > mHandles.back()) << info.handle;
    mHandles.push_back(info.handle);
  }
  void expectModel(IPCClientShmMgr* mgr, unsigned int type) {
    std::vector<ShmMemInfo> infos;
    EXPECT_EQ(mgr->getShmInfo(infos, mId, type), mModel[type].empty() ? -1 : 0);
    std::map<int, int> seen;
    for (const ShmMemInfo& info : infos) seen[info.fd] = info.handle;
    EXPECT_TRUE(infos.empty() || seen == mModel[type]) << "type " << type;
  }

  const Id mId;
  std::minstd_rand mRandom;
  std::map<unsigned int, std::map<int, int>> mModel;  // type -> descriptor -> handle
  std::vector<int> mHandles;                          // in registration order
};

// Several threads mixing every operation on keys of their own, with getInstance() and verbosity
// changes in between; after each round the array-form release (which erases without the lock, by
// design) runs alone. Handles stay unique and increasing, the registry matches the client, and
// nothing is left open or mapped.
TEST(ManagerStressTest, MixedOperationsFromSeveralThreads) {
  LeakGuard leaks;
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  ASSERT_EQ(clientTotals(), registryTotals(*mgr));
  std::vector<Worker> workers;
  for (int i = 0; i < kThreads; ++i) workers.emplace_back(i);
  for (int round = 0; round < kRounds && !::testing::Test::HasFailure(); ++round) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        for (int op = 0; op < kOpsPerRound && !::testing::Test::HasFatalFailure(); ++op) {
          workers[i].step(mgr);
          if (i == 0 && op % 100 == 0) {
            NSCam::Utils::Properties::host_property_set("vendor.debug.ipc.log",
                                                        op % 200 ? "1" : "0");
          }
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    for (Worker& worker : workers) worker.releaseByList(mgr);
    EXPECT_EQ(clientTotals(), registryTotals(*mgr)) << "round " << round;
    if (round % 4 == 3) {
      EXPECT_EQ(mgr->releaseAllShmMems(), 0);
      for (Worker& worker : workers) worker.forget();
    }
  }
  NSCam::Utils::Properties::host_property_set("vendor.debug.ipc.log", nullptr);
  std::set<int> all;
  size_t count = 0;
  for (const Worker& worker : workers) {
    all.insert(worker.handles().begin(), worker.handles().end());
    count += worker.handles().size();
  }
  EXPECT_EQ(all.size(), count) << "a handle was given twice";
  EXPECT_EQ(*all.rbegin() + 1, Inspector::nextHandle(*mgr));
  EXPECT_EQ(mgr->releaseAllShmMems(), 0);
  EXPECT_EQ(clientTotals(), std::make_pair(uint64_t{0}, uint64_t{0}));
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

// Out of descriptors, allocation fails with its error lines and -1 and keeps nothing of the
// attempt; with descriptors back the manager works and a release of everything ends clean.
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
