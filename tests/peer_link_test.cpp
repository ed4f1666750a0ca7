// SPDX-License-Identifier: Apache-2.0
// The IPC link between two real processes: the manager here, through the socket client, and the
// peer daemon in a child process.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "IPCClientShmMgr.h"
#include "LeakGuard.h"
#include "PeerCommands.h"
#include "PeerHarness.h"
#include "SocketClient.h"
#include "TestRegion.h"

namespace vrotest {
namespace {

using namespace NSCam::ipc::wrapper;

const IPCClientShmMgr::Identifier kOwner{IPC_USER_ISP, 1, 7};

// The socket of every peer this process talks to: the manager keeps the first client it gets,
// and that client keeps the path it was given.
const std::string& linkSocket() {
  static const std::string path = [] {
    static TestPeer place;  // only for its private directory
    setenv("VROCAM_IPC_SOCKET", place.socket().c_str(), 1);
    return place.socket();
  }();
  return path;
}

// Regions of our own, sealed as the peer wants them unless unsealedAt names one.
std::vector<ShmMemInfo> ownBatch(size_t count, unsigned int type, size_t unsealedAt = SIZE_MAX) {
  std::vector<ShmMemInfo> batch;
  for (size_t i = 0; i < count; ++i) {
    const Region region = makeRegion(4096, "batch", i == unsealedAt ? 0 : kRegionSeals);
    batch.emplace_back("batch-" + std::to_string(i), type, 4096, region.fd, region.addr, -1);
  }
  return batch;
}

class PeerLinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(client, nullptr);
    ASSERT_NO_FATAL_FAILURE(startPeer());
    mgr = IPCClientShmMgr::getInstance();
    leaks.emplace();
  }

  void TearDown() override {
    if (mgr == nullptr) return;  // SetUp failed
    EXPECT_EQ(mgr->releaseAllShmMems(), 0);
    EXPECT_EQ(holdings().memories, 0u);
    peerLeaks->expectNoLeaks();
    EXPECT_EQ(peer.stop(), 0) << peer.log();
    EXPECT_NE(access(linkSocket().c_str(), F_OK), 0) << "the peer left its socket file";
    leaks->expectNoLeaks();
  }

  // (Re)starts the peer; then one ping reconnects, the connection of an earlier peer being dead.
  void startPeer(const std::vector<std::string>& flags = {}, bool ping = true) {
    ASSERT_NO_FATAL_FAILURE(peer.start(flags));
    if (ping) {
      ASSERT_EQ(client->waitForPeer(0), 0);
      snapshotPeer();
    }
  }

  // What the peer holds open, taken once one of this process's calls was answered: by then the
  // peer has dropped every connection that ended before.
  void snapshotPeer() { peerLeaks.emplace(peer.pid()); }

  PeerHoldings holdings() {
    PeerHoldings held{};
    EXPECT_EQ(client->sendCommand(PEER_COMMAND_HOLDINGS, &held, sizeof(held)), 0);
    return held;
  }

  TestPeer peer{linkSocket()};
  SocketClient* client = SocketClient::shared();
  IPCClientShmMgr* mgr = nullptr;
  std::optional<LeakGuard> leaks, peerLeaks;
};

// Memory that the manager allocated and memory that it registered reach the peer, which reads
// what this process wrote, and this process reads what the peer wrote.
TEST_F(PeerLinkTest, RegisteredMemoryIsSharedWithThePeerBothWays) {
  ShmMemAlloc allocs[] = {{"link-a", 1, 4096}, {"link-b", 2, 3 * 4096}};
  ASSERT_EQ(mgr->allocateAllShmMems(kOwner, allocs, 2), 0);
  const Region own = makeRegion(8192, "link-own", kRegionSeals);
  ShmMemInfo out;
  ASSERT_EQ(mgr->registerShmMem(kOwner, 3, "link-own", own.fd, own.size, own.addr, out), 0);
  EXPECT_EQ(holdings().bytes, 4096u + 3 * 4096 + 8192);
  for (unsigned int type = 1; type <= 3; ++type) {
    ShmMemInfo info;
    ASSERT_EQ(mgr->getShmInfo(info, kOwner, type, -1), 0);
    auto* bytes = static_cast<uint8_t*>(info.addr);
    for (unsigned int i = 0; i < info.size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + type);
    PeerChecksum sum{info.handle, 0, 0};
    ASSERT_EQ(client->sendCommand(PEER_COMMAND_CHECKSUM, &sum, sizeof(sum)), 0);
    EXPECT_EQ(std::make_pair(sum.crc32, sum.bytes),
              std::make_pair(vrowire::crc32(bytes, info.size), uint64_t{info.size}));
    PeerFill fill{info.handle, 0xC3};
    ASSERT_EQ(client->sendCommand(PEER_COMMAND_FILL, &fill, sizeof(fill)), 0);
    EXPECT_EQ(std::count(bytes, bytes + info.size, 0xC3), info.size) << info.name;
  }
  ASSERT_EQ(mgr->releaseShmMem(kOwner, 2), 0);
  EXPECT_EQ(holdings().memories, 2u);
}

// A batch that takes many messages is registered whole or not at all, and its release takes
// several deregistration messages.
TEST_F(PeerLinkTest, ABatchBeyondOneMessageIsAllOrNothing) {
  rlimit files{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  if (files.rlim_max < 2500) GTEST_SKIP() << "needs 2500 descriptors";
  const rlimit wanted{std::min<rlim_t>(files.rlim_max, 4096), files.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &wanted), 0);
  const std::vector<ShmMemInfo> refused = ownBatch(150, 5, 140);  // in the third message
  EXPECT_EQ(mgr->registerShmMem(kOwner, refused), -EPERM);
  EXPECT_EQ(holdings().memories, 0u);
  for (const ShmMemInfo& info : refused) freeRegion(Region{info.fd, info.addr, info.size});
  ASSERT_EQ(mgr->registerShmMem(kOwner, ownBatch(1100, 5)), 0);
  EXPECT_EQ(holdings().memories, 1100u);
  EXPECT_EQ(mgr->releaseAllShmMems(), 0);
  setrlimit(RLIMIT_NOFILE, &files);
}

// Every refusal of the peer, and of the client before sending, is what the caller gets.
TEST_F(PeerLinkTest, ThePeersRefusalsReachTheCallerUnchanged) {
  ASSERT_EQ(peer.stop(), 0);
  ASSERT_NO_FATAL_FAILURE(startPeer({"--max-memories", "3", "--max-bytes", "64K"}));
  int pipeFds[2];
  ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
  const int closed = dup(pipeFds[0]);
  close(closed);
  const struct {
    unsigned int size;  // of the region; 0: no region, the descriptor is fd
    int seals, fd;
    unsigned int declared;
    std::string name;
    int expected;
  } cases[] = {
      {4096, 0, -1, 4096, "unsealed", -EPERM},
      {4096, kRegionSeals, -1, 8192, "smaller than declared", -EOVERFLOW},
      {4096, kRegionSeals, -1, 0, "size 0", -EINVAL},
      {128 << 10, kRegionSeals, -1, 128 << 10, "beyond the byte limit", -ENOSPC},
      {4096, kRegionSeals, -1, 4096, std::string(256, 'n'), -ENAMETOOLONG},
      {0, 0, pipeFds[0], 4096, "pipe", -ENODEV},
      {0, 0, 0, 4096, "descriptor 0, a pipe: the peer refuses it, not the client", -ENODEV},
      {0, 0, -1, 4096, "no descriptor", -EBADF},
      {0, 0, closed, 4096, "closed descriptor", -EBADF},
  };
  ShmMemInfo out;
  for (const auto& c : cases) {
    std::optional<DescriptorZeroFree> zero;
    if (c.size == 0 && c.fd == 0) {
      zero.emplace();
      ASSERT_EQ(dup2(pipeFds[0], 0), 0);
    }
    const Region region = c.size != 0 ? makeRegion(c.size, "refused", c.seals) : Region{c.fd};
    EXPECT_EQ(mgr->registerShmMem(kOwner, 9, c.name, region.fd, c.declared, region.addr, out),
              c.expected)
        << c.name;
    if (c.size != 0) freeRegion(region);
  }
  close(pipeFds[0]);
  close(pipeFds[1]);
  std::vector<ShmMemInfo> recorded;
  EXPECT_EQ(mgr->getShmInfo(recorded, kOwner, 9), -1);

  // The count limit holds within one message too; a size of one byte is a size.
  std::vector<ShmMemInfo> three = ownBatch(3, 10);
  three[0].size = 1;
  const Region readOnly = makeRegion(4096, "read-only", kRegionSeals);
  ASSERT_EQ(fcntl(readOnly.fd, F_ADD_SEALS, F_SEAL_FUTURE_WRITE), 0);
  ASSERT_EQ(mgr->registerShmMem(kOwner, 11, "read-only", readOnly.fd, 4096, readOnly.addr, out), 0);
  EXPECT_EQ(mgr->registerShmMem(kOwner, three), -ENOSPC);
  freeRegion(Region{three.back().fd, three.back().addr, 4096});
  three.pop_back();
  EXPECT_EQ(mgr->registerShmMem(kOwner, three), 0);
  EXPECT_EQ(holdings().bytes, 4096u + 1 + 4096);

  // Memory sealed against writing can be read but not filled; command records are checked.
  PeerFill fill{out.handle, 1};
  PeerChecksum sum{out.handle, 0, 0}, unknown{-5, 0xDEAD, 7};
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_FILL, &fill, sizeof(fill)), -EACCES);
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_CHECKSUM, &sum, sizeof(sum)), 0);
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_CHECKSUM, &unknown, sizeof(unknown)), -ENOENT);
  EXPECT_EQ(unknown.crc32, 0xDEADu);
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_CHECKSUM, &sum, sizeof(sum) - 1), -EINVAL);
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_FILL, nullptr, sizeof(fill)), -EINVAL);
  EXPECT_EQ(client->sendCommand(99, &sum, sizeof(sum)), -EOPNOTSUPP);
}

// When the peer dies every call fails with a negative errno while releases still unmap and
// close, with one warning for them all; a peer that comes back is reconnected at the next call.
TEST_F(PeerLinkTest, APeerThatDiesFailsCallsWithoutLeaksUntilItIsBack) {
  ShmMemAlloc alloc{"before-death", 1, 4096};
  ASSERT_EQ(mgr->allocateShmMem(kOwner, alloc), 0);
  ShmMemInfo info;
  ASSERT_EQ(mgr->getShmInfo(info, kOwner, 1, -1), 0);
  EXPECT_EQ(peer.stop(SIGKILL), 128 + SIGKILL);
  std::string warnings;
  {
    StderrCapture capture;
    std::vector<ShmMemInfo> own = ownBatch(1, 2);
    EXPECT_EQ(mgr->registerShmMem(kOwner, own), -ECONNREFUSED);
    freeRegion(Region{own[0].fd, own[0].addr, 4096});
    EXPECT_EQ(mgr->releaseShmMem(kOwner, 1), -ECONNREFUSED);
    warnings = capture.text();
  }
  EXPECT_FALSE(isOpen(info.fd));
  EXPECT_EQ(mappingOf(info.addr), "");
  const std::string warning = "W/VroIPCClient(" + std::to_string(getpid()) +
                              "): cannot reach the peer at " + linkSocket() + ": ";
  EXPECT_NE(warnings.find(warning + "Connection refused\n"), std::string::npos) << warnings;
  EXPECT_EQ(warnings.find(warning), warnings.rfind(warning)) << warnings;
  ASSERT_NO_FATAL_FAILURE(startPeer());
  ASSERT_EQ(mgr->allocateShmMem(kOwner, alloc), 0);
  EXPECT_EQ(holdings().memories, 1u);
}

// Whichever call comes first after the peer came back reconnects by itself, and waitForPeer
// waits for a peer that is still starting.
TEST_F(PeerLinkTest, EveryCallReconnectsToAPeerThatCameBack) {
  const Region own = makeRegion(4096, "again", kRegionSeals);
  ShmMemInfo out;
  PeerHoldings held{};
  const std::function<int()> firstCalls[] = {
      [&] { return client->waitForPeer(0); },
      [&] { return client->sendCommand(PEER_COMMAND_HOLDINGS, &held, sizeof(held)); },
      [&] { return mgr->registerShmMem(kOwner, 1, "again", own.fd, own.size, own.addr, out); },
      // The new peer does not know what the old one held.
      [&] { return mgr->releaseShmMem(kOwner, 1, false, -1) == -ENOENT ? 0 : -1; },
  };
  for (const auto& call : firstCalls) {
    EXPECT_EQ(peer.stop(), 0);
    ASSERT_NO_FATAL_FAILURE(startPeer({}, false));
    EXPECT_EQ(call(), 0) << "call " << &call - firstCalls;
    snapshotPeer();
  }
  freeRegion(own);
  EXPECT_EQ(peer.stop(), 0);
  std::thread starter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    startPeer({}, false);
  });
  EXPECT_EQ(client->waitForPeer(10000), 0);
  starter.join();
  snapshotPeer();
}

// A client that dies loses everything it registered in the peer at once, and the peer goes on
// serving the other clients.
TEST_F(PeerLinkTest, AClientThatDiesIsCleanedUpAndTheOthersAreServed) {
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    SocketClient other(linkSocket(), 2000);
    std::vector<ShmMemInfo> infos = ownBatch(3, 0);
    for (int i = 0; i < 3; ++i) infos[i].handle = 100 + i;
    const char result = other.registerShms(infos) == 0 ? 'y' : 'n';
    if (write(ready[1], &result, 1) == 1) pause();
    _exit(1);
  }
  close(ready[1]);
  char result = 0;
  EXPECT_EQ(read(ready[0], &result, 1), 1);
  close(ready[0]);
  EXPECT_EQ(result, 'y');
  const std::string who =
      "client pid " + std::to_string(child) + " uid " + std::to_string(getuid());
  EXPECT_TRUE(peer.logShows(who + " connected\n"));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(peer.logShows(who + " disconnected: released 3 memories (12288 bytes)\n"))
      << peer.log();
  ShmMemAlloc alloc{"survivor", 1, 4096};
  EXPECT_EQ(mgr->allocateShmMem(kOwner, alloc), 0);
  EXPECT_EQ(holdings().memories, 1u);
}

}  // namespace
}  // namespace vrotest
