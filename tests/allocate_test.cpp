// SPDX-License-Identifier: Apache-2.0
// Allocation: one region, allocate-and-register of one request and of an array of requests.
#include <errno.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <tuple>

#include "FaultInjection.h"
#include "ManagerFixture.h"

namespace vrocam {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

const IPC_USER kUser = static_cast<IPC_USER>(-2);
const Id kId{kUser, 7, 1ull << 40};
const std::string kOwner = "User:-2, Sensor:7, UserId:1099511627776";

class AllocateTest : public ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    ON_CALL(client, registerShm(::testing::_)).WillByDefault([this](ShmMemInfo& info) {
      seen.push_back(info);
      return info.name == refuse ? 7 : 0;
    });
  }
  // Descriptors stored under {id, type}.
  std::vector<int> storedFds(Id id, unsigned int type) {
    return fdsOf(Inspector::records(*mgr, id, type).value_or(std::vector<ShmMemInfo>{}));
  }
  std::vector<ShmMemInfo> seen;  // every record registerShm received
  std::string refuse = "-";      // registerShm returns 7 for a record of this name
};

// The direct form maps a write-only shared duplicate, closes the original and cuts names at NUL;
// descriptor 0 is a descriptor like any other, whether the region or its duplicate gets it.
TEST_F(AllocateTest, DirectFormMapsDuplicateWriteOnly) {
  for (const Fn zeroFrom : {Fn::kCount, Fn::AshmemCreate, Fn::Dup}) {
    std::optional<DescriptorZeroFree> zero;
    if (zeroFrom != Fn::kCount) zero.emplace();
    FaultScope faults;
    if (zeroFrom == Fn::Dup) {
      EXPECT_EQ(memfd_create("cut", MFD_CLOEXEC), 0);  // stands in for the duplicate
      EXPECT_EQ(ftruncate(0, 8192), 0);
      faults.fail(Fn::Dup, 1, 0, 0);
    }
    int fd = -5;
    void* addr = nullptr;
    ASSERT_EQ(mgr->allocateShmMem(3, std::string("cut\0tail", 8), 8192, &fd, &addr), 0);
    const Call created = faults.calls(Fn::AshmemCreate).at(0);
    EXPECT_EQ(std::make_pair(created.result == 0, fd == 0),
              std::make_pair(zeroFrom == Fn::AshmemCreate, zeroFrom == Fn::Dup));
    EXPECT_EQ(created.name, "cut");
    EXPECT_FALSE(fd == created.result || isOpen(created.result));
    EXPECT_EQ(faults.calls(Fn::Mmap).at(0).args,
              (std::vector<long>{8192, PROT_WRITE, MAP_SHARED, fd, 0}));
    EXPECT_THAT(mappingOf(addr), HasSubstr(" -w-s "));
    EXPECT_THAT(mappingOf(addr), HasSubstr("/memfd:cut "));
    EXPECT_EQ(mgr->releaseShmMem(8192, fd, addr), 0);
  }
}

// A failed region, dup or mmap leaves -1/null, closes each descriptor once, logs which step failed
// and fails the allocate-and-register form with -1 and its own line.
TEST_F(AllocateTest, StepFailuresCleanUp) {
  const std::string region =
      "[allocateShmMem] error: [Sensor:3] unable to allocate shared memory via IPC SharedMemory\n";
  for (const Fn fn : {Fn::AshmemCreate, Fn::Dup, Fn::Mmap}) {
    log.clear();
    FaultScope faults;
    faults.fail(fn, -1, -1, ENOMEM);
    int fd = 99;
    void* addr = &fd;
    EXPECT_EQ(mgr->allocateShmMem(3, "broken", 4096, &fd, &addr), -1);
    EXPECT_EQ(std::make_pair(fd, addr), std::make_pair(-1, static_cast<void*>(nullptr)));
    const std::vector<int> closed = faults.closedFds();
    const long created = faults.calls(Fn::AshmemCreate).at(0).result;
    EXPECT_EQ(std::count(closed.begin(), closed.end(), created), fn == Fn::AshmemCreate ? 0 : 1);
    std::vector<std::string> lines = {"[allocateShmMem] sensorIdx:3, name:broken, size:4096\n",
                                      "[allocateShmMem] error: [Sensor:3] call dup fail\n"};
    if (fn == Fn::AshmemCreate) lines[1] = "create shared memory failed", lines.push_back(region);
    if (fn == Fn::Mmap) {
      const long dup = faults.calls(Fn::Mmap).at(0).args[3];
      EXPECT_EQ(std::count(closed.begin(), closed.end(), dup), 1);
      lines[1] = format("[allocateShmMem] error: [Sensor:3] call mmap fail, fd:%ld\n", dup);
    }
    EXPECT_EQ(log.texts(), lines);
    const int handle = Inspector::nextHandle(*mgr);
    ShmMemAlloc req{"broken", 1, 4096};
    EXPECT_EQ(mgr->allocateShmMem(kId, req), -1);
    EXPECT_EQ(log.texts().back(), "[allocateShmMem] error: [" + kOwner +
                                      "] Unable to allocate shared memory for broken, size:4096\n");
    EXPECT_EQ(Inspector::nextHandle(*mgr), handle);
    EXPECT_TRUE(Inspector::registry(*mgr).empty() && seen.empty());
  }
}

// Failures return their step's value, keep earlier requests and leave a refused region open.
TEST_F(AllocateTest, FailuresKeepEarlierRequestsOnly) {
  // Single refused, batch refused at the third request, batch failing to map the third region.
  const std::pair<int, std::string> cases[] = {
      {0,
       "[allocateShmMem] error: [User:-2, Sensor:7] Unable to register shared memories, type: 2\n"},
      {1,
       "[allocateAllShmMems] error: [User:-2, Sensor:7] Unable to register shared memories, "
       "name:r2\n"},
      {2, "[allocateAllShmMems] error: [" + kOwner +
              "] Unable to allocate shared memory for r2, size:4096\n"}};
  ShmMemAlloc reqs[3] = {{"r0", 0, 4096}, {"r1", 1, 4096}, {"r2", 2, 4096}};
  refuse = "r2";
  for (const auto& [mode, error] : cases) {
    const bool batch = mode > 0;
    const bool refused = mode < 2;
    seen.clear();
    log.clear();
    const int handle = Inspector::nextHandle(*mgr);
    FaultScope faults;
    if (!refused) faults.fail(Fn::Mmap, 3, -1, ENOMEM);
    EXPECT_EQ(batch ? mgr->allocateAllShmMems(kId, reqs, 3) : mgr->allocateShmMem(kId, reqs[2]),
              refused ? 7 : -1);
    ASSERT_EQ(seen.size(), (batch ? 2u : 0u) + (refused ? 1u : 0u));
    EXPECT_EQ(Inspector::nextHandle(*mgr), handle + static_cast<int>(seen.size()));
    EXPECT_THAT(log.texts(), ::testing::Contains(error));
    for (unsigned int type = 0; type < 3; ++type) {
      const bool kept = batch && type < 2;
      EXPECT_EQ(storedFds(kId, type), kept ? std::vector<int>{seen[type].fd} : std::vector<int>{});
    }
    if (refused) {
      EXPECT_TRUE(isOpen(seen.back().fd));
      EXPECT_NE(mappingOf(seen.back().addr), "");
      EXPECT_EQ(mgr->releaseShmMem(4096, seen.back().fd, seen.back().addr), 0);
    }
    EXPECT_EQ(mgr->releaseAllShmMems(), 0);
  }
}

// Records carry type 0 and consecutive handles, a key keeps its last record, the IPC_USER forms
// store under user id 0, and a batch of none does nothing.
TEST_F(AllocateTest, RecordsKeepTheLastOfEachKey) {
  const int handle = Inspector::nextHandle(*mgr);
  ShmMemAlloc reqs[3] = {{"c0", 4, 4096}, {"c1", 4, 4096}, {"c2", 5, 4096}};
  ASSERT_EQ(mgr->allocateAllShmMems(kId, reqs, 3), 0);
  ASSERT_EQ(mgr->allocateShmMem(kId, reqs[2]), 0);
  ASSERT_EQ(mgr->allocateAllShmMems(kUser, 7, reqs, 1), 0);
  ASSERT_EQ(mgr->allocateShmMem(kUser, 7, reqs[2]), 0);
  EXPECT_EQ(mgr->allocateAllShmMems(kId, nullptr, 0), 0);
  ASSERT_EQ(seen.size(), 6u);
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(std::make_pair(seen[i].type, seen[i].handle), std::make_pair(0u, handle + i));
  EXPECT_EQ(Inspector::nextHandle(*mgr), handle + 6);
  EXPECT_THAT(*Inspector::records(*mgr, kId, 5),
              ElementsAre(InfoIs("c2", 0, 4096, seen[3].fd, seen[3].addr, handle + 3)));
  const Id zero{kUser, 7, 0};
  const std::tuple<Id, unsigned int, int> kept[] = {{kId, 4, 1}, {zero, 4, 4}, {zero, 5, 5}};
  for (const auto& [id, type, i] : kept) {
    EXPECT_EQ(storedFds(id, type), std::vector<int>{seen[i].fd}) << i;
  }
  // The replaced records were forgotten, not released: the test frees their memory itself.
  for (int i : {0, 2}) EXPECT_EQ(mgr->releaseShmMem(4096, seen[i].fd, seen[i].addr), 0);
  EXPECT_EQ(mgr->releaseAllShmMems(), 0);
}

// Allocation detail lines appear exactly when m_DbgLog is not 0, negative values included.
TEST_F(AllocateTest, DetailLinesFollowDbgLog) {
  for (const int level : {0, 1, -1}) {
    setDbgLog(mgr, std::to_string(level).c_str());
    log.clear();
    seen.clear();
    const int handle = Inspector::nextHandle(*mgr);
    ShmMemAlloc one{"g", 5, 4096};
    ShmMemAlloc batch{"h", 6, 8192};
    ASSERT_EQ(mgr->allocateShmMem(kId, one), 0);
    ASSERT_EQ(mgr->allocateAllShmMems(kId, &batch, 1), 0);
    std::vector<std::string> expected;
    if (level != 0) {
      expected = {
          format("[allocateShmMem] [%s] shmMemType:5, name:g, size:4096, handle:%d\n",
                 kOwner.c_str(), handle),
          "[allocateShmMem] sensorIdx:7, name:g, size:4096\n",
          format("[allocateAllShmMems] [User:-2, sensorIdx:7, UserId:1099511627776] vec size:1, "
                 "1st handle:%d\n",
                 handle + 1),
          "[allocateShmMem] sensorIdx:7, name:h, size:8192\n",
          format("[allocateAllShmMems] [%s] type:6, addr:0x%p, fd:%d, handle:%d, name:h, "
                 "size:8192\n",
                 kOwner.c_str(), seen.at(1).addr, seen.at(1).fd, handle + 1),
          "[allocateAllShmMems] [User:-2, Sensor:7] calling to IPC client\n"};
    }
    EXPECT_EQ(log.texts(), expected) << "m_DbgLog " << level;
    EXPECT_EQ(mgr->releaseAllShmMems(), 0);
  }
}

}  // namespace
}  // namespace test
}  // namespace vrocam
