// SPDX-License-Identifier: Apache-2.0
// Registration of memory the caller holds, and lookup of registered memories.
#include <cstdint>

#include "ManagerFixture.h"

namespace vrocam {
namespace test {
namespace {

using ::testing::_;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Return;

const IPC_USER kUser = static_cast<IPC_USER>(-2);
const Id kId{kUser, 7, 1ull << 40};
const std::string kOwner = "[registerShmMem] [User:-2, Sensor:7, UserId:1099511627776] ";
const std::string kError =
    "[registerShmMem] error: [User:-2, Sensor:7, UserId:1099511627776] Unable to register shared "
    "memories";

// Nothing dereferences these: the records are forgotten, never released.
void* fakeAddr(int fd) { return reinterpret_cast<void*>(static_cast<uintptr_t>(0x10000 * fd)); }

std::string storedLine(unsigned int type, const std::string& name, int fd, int size, int handle) {
  return kOwner + format("shmMemType:%u, name:%s, fd:%d, size:%d, addr:0x%p, handle:%d\n", type,
                         name.c_str(), fd, size, fakeAddr(fd), handle);
}

class RegisterLookupTest : public ManagerTest {
 protected:
  // Registers fake memory fd under {id, type} and returns the filled record.
  ShmMemInfo add(Id id, unsigned int type, int fd) {
    ShmMemInfo out;
    EXPECT_EQ(mgr->registerShmMem(id, type, "r" + std::to_string(fd), fd, 64, fakeAddr(fd), out),
              0);
    return out;
  }
  // Records stored under {id, type}; one record with descriptor -100 when the key is absent.
  std::vector<ShmMemInfo> stored(Id id, unsigned int type) {
    return Inspector::records(*mgr, id, type)
        .value_or(std::vector<ShmMemInfo>{ShmMemInfo("", 0, 0, -100, nullptr, -1)});
  }
};

// A pristine manager gives handles 1 and 2 even when the first registration is refused.
TEST_F(RegisterLookupTest, FirstHandlesCountFromOne) {
  if (Inspector::nextHandle(*mgr) != 1) GTEST_SKIP() << kOwnProcess;
  EXPECT_CALL(client, registerShm(_)).WillOnce(Return(5)).WillOnce(Return(0));
  ShmMemInfo first;
  EXPECT_EQ(mgr->registerShmMem(kId, 4, "a", 10, 64, fakeAddr(10), first), 5);
  EXPECT_THAT(first, InfoIs("a", 0, 64, 10, fakeAddr(10), 1));
  EXPECT_EQ(add(kId, 4, 11).handle, 2);
  EXPECT_THAT(fdsOf(stored(kId, 4)), ElementsAre(11));
  EXPECT_THAT(log.texts(), Contains(kError + ", type: 4\n").Times(1));
}

// The vector form: one call, fresh handles, types kept, caller's vector untouched, refusals.
TEST_F(RegisterLookupTest, VectorFormRegistersOnce) {
  add(kId, 6, 19);
  const int handle = Inspector::nextHandle(*mgr);
  const std::vector<ShmMemInfo> infos{ShmMemInfo("v0", 6, 16, 20, fakeAddr(20), 99),
                                      ShmMemInfo("v1", 7, 32, 21, fakeAddr(21), 99),
                                      ShmMemInfo("v2", 6, 48, 22, fakeAddr(22), 99)};
  std::vector<std::vector<ShmMemInfo>> sent;
  EXPECT_CALL(client, registerShms(_)).Times(3).WillRepeatedly([&sent](std::vector<ShmMemInfo>& v) {
    sent.push_back(v);
    return sent.size() == 3 ? 5 : 0;
  });
  log.clear();
  ASSERT_EQ(mgr->registerShmMem(kId, infos), 0);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_THAT(sent[0], ElementsAre(InfoIs("v0", 6, 16, 20, fakeAddr(20), handle),
                                   InfoIs("v1", 7, 32, 21, fakeAddr(21), handle + 1),
                                   InfoIs("v2", 6, 48, 22, fakeAddr(22), handle + 2)));
  EXPECT_THAT(handlesOf(infos), ElementsAre(99, 99, 99));
  EXPECT_THAT(fdsOf(stored(kId, 6)), ElementsAre(19, 20, 22));
  EXPECT_THAT(stored(kId, 7), ElementsAre(InfoIs("v1", 7, 32, 21, fakeAddr(21), handle + 1)));
  EXPECT_THAT(log.texts(),
              ElementsAre(kOwner + "register shm, size:3\n", storedLine(6, "v0", 20, 16, handle),
                          storedLine(7, "v1", 21, 32, handle + 1),
                          storedLine(6, "v2", 22, 48, handle + 2)));
  EXPECT_EQ(mgr->registerShmMem(kId, std::vector<ShmMemInfo>{}), 0);
  EXPECT_EQ(mgr->registerShmMem(kId, infos), 5);
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_TRUE(sent[1].empty());
  EXPECT_THAT(handlesOf(sent[2]), ElementsAre(handle + 3, handle + 4, handle + 5));
  EXPECT_EQ(Inspector::nextHandle(*mgr), handle + 6);
  EXPECT_THAT(handlesOf(stored(kId, 6)), ElementsAre(handle - 1, handle, handle + 2));
  EXPECT_THAT(log.texts(), Contains(kError + "\n").Times(1));
}

// Lookups copy in descriptor order; registration lines need m_DbgLog 1, lookup lines 2.
TEST_F(RegisterLookupTest, LookupLinesNeedDbgLogTwo) {
  const int handle = add(kId, 3, 7).handle;
  add(kId, 3, 12);
  for (int level : {0, 1, 2}) {
    setDbgLog(mgr, std::to_string(level).c_str());
    log.clear();
    const ShmMemInfo added = add(kId, 10 + level, 40);
    ShmMemInfo out;
    std::vector<ShmMemInfo> all(3);
    EXPECT_EQ(mgr->getShmInfo(all, kId, 3), 0);
    EXPECT_THAT(fdsOf(all), ElementsAre(7, 12));
    for (int fd : {12, -1, 8}) EXPECT_EQ(mgr->getShmInfo(out, kId, 3, fd), fd == 8 ? -1 : 0);
    EXPECT_THAT(out, InfoIs("r7", 0, 64, 7, fakeAddr(7), handle)) << "-1 finds the smallest";
    EXPECT_EQ(mgr->getShmInfo(out, kId, 9, -1), -1);
    std::vector<std::string> expected;
    if (level >= 1) expected.push_back(storedLine(10 + level, "r40", 40, 64, added.handle));
    const std::string head = "[getShmInfo] [User:-2, Sensor:7, UserId:1099511627776] shmType:3, ";
    if (level >= 2) {
      expected.insert(expected.end(),
                      {head + "size:2\n", head + "fd:12, size:2\n", head + "fd:-1, size:2\n",
                       format("[getShmInfo] found, fd:7, addr:0x%p, handle:%d, "
                              "size:64, name:r7\n",
                              fakeAddr(7), handle),
                       head + "fd:8, size:2\n"});
    }
    EXPECT_EQ(log.texts(), expected) << "m_DbgLog " << level;
  }
}

// The IPC_USER forms store and find under user id 0 only.
TEST_F(RegisterLookupTest, UserFormsUseUserIdZero) {
  const Id zero{kUser, 7, 0};
  ShmMemInfo out;
  ASSERT_EQ(mgr->registerShmMem(kUser, 7, 3, "u", 30, 64, fakeAddr(30), out), 0);
  ASSERT_EQ(mgr->registerShmMem(kUser, 7, {ShmMemInfo("w", 4, 64, 31, fakeAddr(31), -1)}), 0);
  add(kId, 3, 32);
  EXPECT_THAT(fdsOf(stored(zero, 3)), ElementsAre(30));
  EXPECT_THAT(fdsOf(stored(zero, 4)), ElementsAre(31));
  EXPECT_THAT(fdsOf(stored(kId, 3)), ElementsAre(32));
  EXPECT_EQ(mgr->getShmInfo(out, kUser, 7, 3, -1), 0);
  EXPECT_EQ(out.fd, 30);
  EXPECT_EQ(mgr->getShmInfo(out, kUser, 7, 3, 32), -1);
  EXPECT_EQ(mgr->getShmInfo(out, kId, 4, 31), -1);
  EXPECT_EQ(out.fd, 30) << "a miss changed the record";
}

}  // namespace
}  // namespace test
}  // namespace vrocam
