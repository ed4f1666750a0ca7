// SPDX-License-Identifier: Apache-2.0
// Release of shared memories on real memfd regions: one type, one descriptor, lists of records
// and of types, the raw form and release of everything.

#include <cstdlib>
#include <functional>
#include <utility>

#include "FaultInjection.h"
#include "ManagerFixture.h"

namespace vrocam {
namespace test {
namespace {

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Types = std::vector<unsigned int>;

constexpr unsigned int kType = 7;
constexpr unsigned int kPage = 4096;
constexpr unsigned int kHuge = 0x80000000u;  // a recorded size; the page itself is kPage
const std::string kRefused = "error: unable to deregister buffers from vro IPC Client\n";

Id owner(int user, unsigned int sensorIdx = 0, uint64_t userId = 0) {
  return Id{static_cast<IPC_USER>(user), sensorIdx, userId};
}

// A region of the test, registered with the manager under the handle it got.
struct Mem : Region {
  int handle = -1;
};

bool gone(const Mem& mem) { return mappingOf(mem.addr).empty() && !isOpen(mem.fd); }
bool held(const Mem& mem) { return !mappingOf(mem.addr).empty() && isOpen(mem.fd); }

// Expects scope to have seen the regions of mems unmapped (with length) and closed in order.
void expectFreed(const FaultScope& scope, const std::vector<Mem>& mems, std::vector<int> order,
                 size_t length = kPage) {
  std::vector<int> unmapped, closed;
  for (const Call& call : scope.calls(Fn::Munmap))
    for (size_t i = 0; i < mems.size(); ++i)
      if (call.args == std::vector<long>{long(mems[i].addr), long(length)})
        unmapped.push_back(int(i));
  for (int fd : scope.closedFds())
    for (size_t i = 0; i < mems.size(); ++i)
      if (fd == mems[i].fd) closed.push_back(int(i));
  EXPECT_EQ(unmapped, order);
  EXPECT_EQ(closed, order);
}

class ReleaseTest : public ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    ON_CALL(client, deregisterShms(_)).WillByDefault([this](std::vector<ShmMemInfo> infos) {
      sent.push_back(std::move(infos));
      return answer;
    });
  }

  // Registers n fresh pages under {id, type}, last descriptor first; returns them in descriptor
  // order. Each is recorded with the given size.
  std::vector<Mem> put(Id id, unsigned int type, int n = 1, unsigned int size = kPage) {
    std::vector<Mem> mems(n);
    for (Mem& mem : mems) static_cast<Region&>(mem) = makeRegion(kPage);
    for (auto mem = mems.rbegin(); mem != mems.rend(); ++mem) {
      ShmMemInfo out;
      out.type = type;
      EXPECT_EQ(mgr->registerShmMem(id, type, "region", mem->fd, size, mem->addr, out), 0);
      mem->handle = out.handle;
    }
    return mems;
  }

  // Records under {id, type}; -1 when the key is absent.
  int recordsUnder(Id id, unsigned int type) {
    const auto records = Inspector::records(*mgr, id, type);
    return records ? static_cast<int>(records->size()) : -1;
  }

  std::vector<std::string> errors() const {
    std::vector<std::string> out;
    for (const LoggedLine& line : log.logged())
      if (line.level == 1) out.push_back(line.text);
    return out;
  }

  std::vector<std::vector<ShmMemInfo>> sent;  // every deregisterShms call
  int answer = 0;                             // what deregisterShms returns
};

// One descriptor (looked up under user id 0) frees only its record; the caller's key stays.
TEST_F(ReleaseTest, OneDescriptor) {
  const Id id = owner(1), five = owner(1, 0, 5), seven = owner(1, 0, 7);
  const std::vector<Mem> m = put(id, kType, 2);
  const Mem shared = put(id, 8)[0], own = put(five, 8)[0];
  {
    FaultScope scope;
    EXPECT_EQ(mgr->releaseShmMem(id, kType, true, m[1].fd), 0);
    expectFreed(scope, m, {1});
  }
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_THAT(sent[0],
              ElementsAre(InfoIs("region", kType, kPage, m[1].fd, m[1].addr, m[1].handle)));
  EXPECT_TRUE(gone(m[1]) && held(m[0]));
  EXPECT_EQ(recordsUnder(id, kType), 1);
  EXPECT_EQ(mgr->releaseShmMem(five, 8, true, own.fd), 0);
  EXPECT_EQ(mgr->releaseShmMem(seven, 8, true, shared.fd), 0);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_THAT(fdsOf(sent[1]), ElementsAre(shared.fd));
  EXPECT_TRUE(held(own) && gone(shared));
  EXPECT_EQ(recordsUnder(seven, 8), 0);
  EXPECT_EQ(recordsUnder(id, 8), 1);  // still recorded, though unmapped and closed
  EXPECT_EQ(mgr->releaseShmMem(five, 8), 0);
  EXPECT_EQ(mgr->releaseShmMem(id, kType, true, m[0].fd), 0);
  EXPECT_TRUE(gone(m[0]) && gone(own));
  EXPECT_EQ(mgr->releaseShmMem(id, kType, true, -1), 0);
  EXPECT_EQ(mgr->releaseShmMem(id, kType, true, -2), 0);
  EXPECT_EQ(recordsUnder(id, kType), 0);
  ShmMemAlloc alloc{"any", kType, 1};
  EXPECT_EQ(mgr->releaseShmMem(id, &alloc, 1), 0);
  EXPECT_EQ(recordsUnder(id, kType), -1);
  EXPECT_EQ(sent.size(), 4u);
}

// The list form (and its IPC_USER twin, under user id 0) returns the last element's result.
TEST_F(ReleaseTest, ListFormReturnsLastResult) {
  ShmMemAlloc allocs[2] = {{"a", kType, 1}, {"b", 99, 1}};
  for (int last : {0, 5}) {
    const Id id = owner(1, 4, last == 0 ? 9 : 0);
    const Mem mem = put(id, kType)[0];
    answer = 5;
    log.clear();
    EXPECT_EQ(last == 0 ? mgr->releaseShmMem(id, allocs, 2)
                        : mgr->releaseShmMem(id.user, id.sensorIdx, allocs, 2),
              last);
    EXPECT_TRUE(gone(mem));
    EXPECT_EQ(recordsUnder(id, kType), -1);
    EXPECT_THAT(errors(), ElementsAre("[releaseShmMem] " + kRefused,
                                      "[releaseShmMem] error: Error, unable to release shared "
                                      "memory on client side, type:7\n"));
    std::swap(allocs[0], allocs[1]);
  }
}

// Each form sends its records in one call, keys then descriptors in order (the types form in list
// order), frees them in that order (sizes widened through int) unless told to keep them, erases
// their keys, and returns a refusal after one error line.
TEST_F(ReleaseTest, FormsSendAndFreeInOrder) {
  const Id low = owner(0), high = owner(-1, 0xFFFFFFFFu, 1ULL << 40);
  const Types listed{8, 5, 7, 8};
  const struct {
    std::string form;
    std::function<int()> release;
    int answer;              // of the client
    std::vector<int> order;  // of the memories registered below
    bool freed;
    size_t keysLeft;
  } cases[] = {
      {"releaseShmMem", [&] { return mgr->releaseShmMem(high, kType); }, 1, {0, 1}, true, 2},
      {"kept",
       [&] { return mgr->releaseShmMem(IPC_USER(0), 0, kType, false); },
       0,
       {2, 3},
       false,
       2},
      {"releaseShmMem", [&] { return mgr->releaseShmMem(low, listed); }, 1, {4, 2, 3, 4}, true, 1},
      {"releaseAllShmMems", [&] { return mgr->releaseAllShmMems(); }, -3, {0, 1, 2, 3, 4}, true, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.form);
    std::vector<Mem> m = put(high, kType, 2, kHuge), lowSeven = put(low, kType, 2, kHuge);
    m.insert(m.end(), lowSeven.begin(), lowSeven.end());
    m.push_back(put(low, 8, 1, kHuge)[0]);
    const int next = Inspector::nextHandle(*mgr);
    sent.clear();
    log.clear();
    answer = c.answer;
    {
      FaultScope scope;  // swallows every unmap and close: the test frees each page once
      scope.fail(Fn::Munmap, -1, 0, 0);
      scope.fail(Fn::Close, -1, 0, 0);
      EXPECT_EQ(c.release(), c.answer);
      expectFreed(scope, m, c.freed ? c.order : std::vector<int>{}, 0xFFFFFFFF80000000ull);
      if (!c.freed) {  // the raw form widens size -1 to SIZE_MAX
        EXPECT_EQ(mgr->releaseShmMem(-1, m[2].fd, m[2].addr), 0);
        expectFreed(scope, {m[2]}, {0}, SIZE_MAX);
      }
    }
    std::vector<int> fds;
    for (int i : c.order) fds.push_back(m[i].fd);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(fdsOf(sent[0]), fds);
    EXPECT_EQ(Inspector::registry(*mgr).size(), c.keysLeft);
    EXPECT_EQ(Inspector::nextHandle(*mgr), next);
    EXPECT_EQ(errors(), c.answer != 0 ? std::vector{"[" + c.form + "] " + kRefused}
                                      : std::vector<std::string>{});
    Inspector::forgetRegistry(*mgr);
    for (const Mem& mem : m) freeRegion(mem);
  }
}

// Without a client every allocating or releasing form returns -1, logs once, and changes nothing.
TEST_F(ReleaseTest, NoClientChangesNothing) {
  const Id id = owner(1);
  const Mem mem = put(id, kType)[0];
  const int handle = Inspector::nextHandle(*mgr);
  ShmMemAlloc alloc{"a", kType, 1};
  Inspector::setClient(*mgr, nullptr);
  log.clear();
  FaultScope scope;
  EXPECT_EQ(mgr->allocateShmMem(id, alloc), -1);
  EXPECT_EQ(mgr->allocateAllShmMems(id.user, 0, &alloc, 1), -1);
  EXPECT_EQ(mgr->releaseShmMem(id, kType, true, -1), -1);
  EXPECT_EQ(mgr->releaseShmMem(id, kType, true, mem.fd), -1);
  EXPECT_EQ(mgr->releaseShmMem(id, &alloc, 1), -1);
  EXPECT_EQ(mgr->releaseShmMem(id, Types{kType}), -1);
  EXPECT_EQ(mgr->releaseAllShmMems(), -1);
  EXPECT_TRUE(Inspector::lockFree(*mgr) && held(mem) && sent.empty());
  EXPECT_EQ(scope.count(Fn::AshmemCreate) + scope.count(Fn::Munmap), 0);
  EXPECT_EQ(Inspector::nextHandle(*mgr), handle);
  EXPECT_EQ(recordsUnder(id, kType), 1);
  const std::string none = "error: no Vro IPCClient\n";
  EXPECT_THAT(log.texts(),
              ElementsAre("[allocateShmMem] " + none, "[allocateAllShmMems] " + none,
                          "[releaseShmMem] " + none, "[releaseShmMem] " + none,
                          "[releaseShmMem] " + none, "[releaseShmMem] " + none,
                          "[releaseAllShmMems] Release all registered shared memories.\n",
                          "[releaseAllShmMems] " + none));
  Inspector::setClient(*mgr, &client);
  EXPECT_EQ(mgr->releaseAllShmMems(), 0);
  EXPECT_TRUE(gone(mem));
}

// Release detail lines need m_DbgLog not 0, the release-all line none; empty calls send nothing.
TEST_F(ReleaseTest, DetailLinesFollowDbgLog) {
  const Id id = owner(-2, 0xFFFFFFFEu, 1ULL << 33);
  const std::string head = "[releaseShmMem] [User:-2, Sensor:4294967294, UserId:8589934592]";
  for (const char* level : {"0", "1", "-1"}) {
    const bool buf = level[0] == '-';
    const std::vector<std::string> lines = {
        head + format(" type:7, bReleaseBuf:%d, fd:-2\n", buf), head + ", vec size:0\n",
        head + format(" typeSize:2, bReleaseBuf:%d\n", buf),
        "[releaseAllShmMems] Release all registered shared memories.\n"};
    setDbgLog(mgr, level);
    EXPECT_EQ(Inspector::dbgLog(*mgr), std::atoi(level));
    log.clear();
    sent.clear();
    EXPECT_EQ(mgr->releaseShmMem(id, kType, buf, -2), 0);
    EXPECT_EQ(mgr->releaseShmMem(id, nullptr, 0), 0);
    EXPECT_EQ(mgr->releaseShmMem(id, Types{kType, 9}, buf), 0);
    EXPECT_EQ(mgr->releaseAllShmMems(), 0);
    const std::vector<std::string> quiet = {lines.back()};
    EXPECT_EQ(log.texts(), std::atoi(level) == 0 ? quiet : lines) << level;
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_THAT(sent[0], IsEmpty());
  }
}

}  // namespace
}  // namespace test
}  // namespace vrocam
