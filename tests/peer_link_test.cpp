// SPDX-License-Identifier: Apache-2.0
// The IPC link between two real processes: the manager here, through the socket client, and the
// peer daemon in a child process.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iterator>
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
using Id = IPCClientShmMgr::Identifier;

const Id kOwner{IPC_USER_ISP, 1, 7};

// The socket of every peer this process talks to: the manager keeps the first client it gets,
// and that client keeps the path it was given.
const std::string& linkSocket() {
  static const std::string path = [] {
    char dir[] = "/tmp/vrotest-link-XXXXXX";
    EXPECT_NE(mkdtemp(dir), nullptr);
    static const std::string owned = dir;
    atexit([] { rmdir(owned.c_str()); });
    const std::string socket = owned + "/peer.sock";
    setenv("VROCAM_IPC_SOCKET", socket.c_str(), 1);
    return socket;
  }();
  return path;
}

// The lines of the IPC client in what this process logged.
std::string clientWarnings(const std::string& text) {
  std::string lines;
  for (size_t at = 0, end; at < text.size(); at = end + 1) {
    end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    if (text.compare(at, 15, "W/VroIPCClient(") == 0) lines += text.substr(at, end - at) + "\n";
  }
  return lines;
}

// Unmaps and closes the one region named name that a refused allocation left behind.
void freeRefusedRegion(const std::string& name) {
  std::vector<int> fds;
  for (const auto& fd : LeakGuard::openDescriptors()) {
    if (fd.second.rfind("/memfd:" + name + " ", 0) == 0) fds.push_back(fd.first);
  }
  std::vector<std::string> maps;
  for (const std::string& line : LeakGuard::memfdMappings()) {
    if (line.find("/memfd:" + name + " ") != std::string::npos) maps.push_back(line);
  }
  ASSERT_EQ(fds.size(), 1u);
  ASSERT_EQ(maps.size(), 1u);
  unsigned long start = 0;
  unsigned long end = 0;
  ASSERT_EQ(sscanf(maps[0].c_str(), "%lx-%lx", &start, &end), 2);
  munmap(reinterpret_cast<void*>(start), end - start);
  close(fds[0]);
}

class PeerLinkTest : public ::testing::Test {
 protected:
  virtual std::vector<std::string> flags() const { return {}; }

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
  void startPeer(bool ping = true) {
    ASSERT_NO_FATAL_FAILURE(peer.start(flags()));
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
  std::optional<LeakGuard> leaks;
  std::optional<LeakGuard> peerLeaks;
};

// Memory that the manager allocated and memory that it registered reach the peer, which reads
// what this process wrote, and this process reads what the peer wrote.
TEST_F(PeerLinkTest, RegisteredMemoryIsSharedWithThePeerBothWays) {
  ShmMemAlloc allocs[] = {{"link-a", 1, 4096}, {"link-b", 2, 3 * 4096}};
  ASSERT_EQ(mgr->allocateAllShmMems(kOwner, allocs, 2), 0);
  const Region own = makeRegion(8192, "link-own", kRegionSeals);
  ShmMemInfo out;
  ASSERT_EQ(mgr->registerShmMem(kOwner, 3, "link-own", own.fd, own.size, own.addr, out), 0);
  EXPECT_EQ(holdings().memories, 3u);
  EXPECT_EQ(holdings().bytes, 4096u + 3 * 4096 + 8192);

  for (unsigned int type = 1; type <= 3; ++type) {
    ShmMemInfo info;
    ASSERT_EQ(mgr->getShmInfo(info, kOwner, type, -1), 0);
    auto* bytes = static_cast<uint8_t*>(info.addr);
    for (unsigned int i = 0; i < info.size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + type);
    PeerChecksum sum{info.handle, 0, 0};
    ASSERT_EQ(client->sendCommand(PEER_COMMAND_CHECKSUM, &sum, sizeof(sum)), 0);
    EXPECT_EQ(sum.crc32, vrowire::crc32(bytes, info.size)) << info.name;
    EXPECT_EQ(sum.bytes, info.size);
    PeerFill fill{info.handle, 0xC3};
    ASSERT_EQ(client->sendCommand(PEER_COMMAND_FILL, &fill, sizeof(fill)), 0);
    EXPECT_EQ(std::count(bytes, bytes + info.size, 0xC3), info.size) << info.name;
  }
  ASSERT_EQ(mgr->releaseShmMem(kOwner, 2), 0);
  EXPECT_EQ(holdings().memories, 2u);
}

std::vector<ShmMemInfo> ownBatch(size_t count, size_t unsealedAt) {
  std::vector<ShmMemInfo> batch;
  for (size_t i = 0; i < count; ++i) {
    const Region region = makeRegion(4096, "batch", i == unsealedAt ? 0 : kRegionSeals);
    batch.emplace_back("batch-" + std::to_string(i), 5, 4096, region.fd, region.addr, -1);
  }
  return batch;
}

// A batch that takes many messages is registered whole or not at all, and its release takes
// several deregistration messages.
TEST_F(PeerLinkTest, ABatchBeyondOneMessageIsAllOrNothing) {
  rlimit files{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  if (files.rlim_max < 2500) GTEST_SKIP() << "needs 2500 descriptors";
  const rlimit wanted{std::min<rlim_t>(files.rlim_max, 4096), files.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &wanted), 0);

  const std::vector<ShmMemInfo> refused = ownBatch(150, 140);  // in the third message
  EXPECT_EQ(mgr->registerShmMem(kOwner, refused), -EPERM);
  EXPECT_EQ(holdings().memories, 0u);
  std::vector<ShmMemInfo> recorded;
  EXPECT_EQ(mgr->getShmInfo(recorded, kOwner, 5), -1);
  for (const ShmMemInfo& info : refused) freeRegion(Region{info.fd, info.addr, info.size});

  ASSERT_EQ(mgr->registerShmMem(kOwner, ownBatch(1100, SIZE_MAX)), 0);
  EXPECT_EQ(holdings().memories, 1100u);
  EXPECT_EQ(mgr->releaseAllShmMems(), 0);
  setrlimit(RLIMIT_NOFILE, &files);
}

// Every refusal of the peer, and of the client before sending, is what the caller gets.
class LimitedPeerLinkTest : public PeerLinkTest {
  std::vector<std::string> flags() const override {
    return {"--max-memories", "3", "--max-bytes", "64K"};
  }
};

TEST_F(LimitedPeerLinkTest, ThePeersRefusalsReachTheCallerUnchanged) {
  struct Case {
    const char* what;
    unsigned int size;
    int seals;
    unsigned int declared;
    std::string name;
    int expected;
  };
  const Case cases[] = {
      {"unsealed memfd", 4096, 0, 4096, "unsealed", -EPERM},
      {"smaller than declared", 4096, kRegionSeals, 8192, "short", -EOVERFLOW},
      {"size 0", 4096, kRegionSeals, 0, "empty", -EINVAL},
      {"beyond the byte limit", 128 << 10, kRegionSeals, 128 << 10, "big", -ENOSPC},
      {"name of 256 bytes", 4096, kRegionSeals, 4096, std::string(256, 'n'), -ENAMETOOLONG},
  };
  ShmMemInfo out;
  for (const Case& c : cases) {
    const Region region = makeRegion(c.size, "refused", c.seals);
    EXPECT_EQ(mgr->registerShmMem(kOwner, 9, c.name, region.fd, c.declared, region.addr, out),
              c.expected)
        << c.what;
    freeRegion(region);
  }
  int pipeFds[2];
  ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
  EXPECT_EQ(mgr->registerShmMem(kOwner, 9, "pipe", pipeFds[0], 4096, nullptr, out), -ENODEV);
  // Descriptor 0 is a descriptor like any other: the peer, not the client, refuses this one.
  {
    DescriptorZeroFree zero;
    ASSERT_EQ(dup2(pipeFds[0], 0), 0);
    EXPECT_EQ(mgr->registerShmMem(kOwner, 9, "stdin", 0, 4096, nullptr, out), -ENODEV);
  }
  close(pipeFds[0]);
  close(pipeFds[1]);
  EXPECT_EQ(mgr->registerShmMem(kOwner, 9, "none", -1, 4096, nullptr, out), -EBADF);
  const int closed = dup(0);
  close(closed);
  EXPECT_EQ(mgr->registerShmMem(kOwner, 9, "closed", closed, 4096, nullptr, out), -EBADF);
  std::vector<ShmMemInfo> recorded;
  EXPECT_EQ(mgr->getShmInfo(recorded, kOwner, 9), -1);

  // The count limit holds within one message too; a size of one byte is a size.
  std::vector<ShmMemInfo> three;
  for (int i = 0; i < 3; ++i) {
    const Region region = makeRegion(4096, "kept", kRegionSeals);
    three.emplace_back("kept", 10, i == 0 ? 1 : 4096, region.fd, region.addr, -1);
  }
  const Region readOnly = makeRegion(4096, "read-only", kRegionSeals);
  ASSERT_EQ(fcntl(readOnly.fd, F_ADD_SEALS, F_SEAL_FUTURE_WRITE), 0);
  ASSERT_EQ(mgr->registerShmMem(kOwner, 11, "read-only", readOnly.fd, 4096, readOnly.addr, out), 0);
  EXPECT_EQ(mgr->registerShmMem(kOwner, three), -ENOSPC);
  const ShmMemInfo third = three.back();
  three.pop_back();
  EXPECT_EQ(mgr->registerShmMem(kOwner, three), 0);
  EXPECT_EQ(holdings().bytes, 4096u + 1 + 4096);
  freeRegion(Region{third.fd, third.addr, 4096});

  // The memory sealed against writing can be read but not filled; command records are checked.
  PeerFill fill{out.handle, 1};
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_FILL, &fill, sizeof(fill)), -EACCES);
  PeerChecksum sum{out.handle, 0, 0};
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_CHECKSUM, &sum, sizeof(sum)), 0);
  PeerChecksum unknown{-5, 0xDEAD, 7};
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_CHECKSUM, &unknown, sizeof(unknown)), -ENOENT);
  EXPECT_EQ(unknown.crc32, 0xDEADu);
  struct Command {
    int command;
    void* data;
    size_t length;
    int expected;
  };
  const Command commands[] = {
      {PEER_COMMAND_CHECKSUM, &sum, sizeof(sum) - 1, -EINVAL},
      {PEER_COMMAND_CHECKSUM, nullptr, sizeof(sum), -EINVAL},
      {PEER_COMMAND_FILL, &fill, sizeof(fill) + 1, -EINVAL},
      {PEER_COMMAND_FILL, nullptr, sizeof(fill), -EINVAL},
      {PEER_COMMAND_HOLDINGS, &sum, sizeof(PeerHoldings) + 1, -EINVAL},
      {PEER_COMMAND_HOLDINGS, nullptr, sizeof(PeerHoldings), -EINVAL},
      {99, &sum, sizeof(sum), -EOPNOTSUPP},
  };
  for (const Command& c : commands) {
    EXPECT_EQ(client->sendCommand(c.command, c.data, c.length), c.expected) << c.command;
  }
}

// When the peer dies every call fails with a negative errno while releases still unmap and
// close; a peer that comes back is reconnected at the next call.
TEST_F(PeerLinkTest, APeerThatDiesFailsCallsWithoutLeaksUntilItIsBack) {
  ShmMemAlloc alloc{"before-death", 1, 4096};
  ASSERT_EQ(mgr->allocateShmMem(kOwner, alloc), 0);
  ShmMemInfo info;
  ASSERT_EQ(mgr->getShmInfo(info, kOwner, 1, -1), 0);
  EXPECT_EQ(peer.stop(SIGKILL), 128 + SIGKILL);

  StderrCapture warnings;
  const Region own = makeRegion(4096, "own", kRegionSeals);
  ShmMemInfo out;
  EXPECT_EQ(mgr->registerShmMem(kOwner, 2, "own", own.fd, own.size, own.addr, out), -ECONNREFUSED);
  freeRegion(own);
  EXPECT_EQ(mgr->releaseShmMem(kOwner, 1), -ECONNREFUSED);
  EXPECT_FALSE(isOpen(info.fd));
  EXPECT_EQ(mappingOf(info.addr), "");
  // An allocation the client refused leaves its region behind by design.
  ShmMemAlloc late{"after-death", 3, 4096};
  EXPECT_EQ(mgr->allocateShmMem(kOwner, late), -ECONNREFUSED);
  ASSERT_NO_FATAL_FAILURE(freeRefusedRegion("after-death"));
  // One line says so, not one per call.
  EXPECT_EQ(clientWarnings(warnings.text()), "W/VroIPCClient(" + std::to_string(getpid()) +
                                                 "): cannot reach the peer at " + linkSocket() +
                                                 ": Connection refused\n");

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
  for (size_t i = 0; i < std::size(firstCalls); ++i) {
    EXPECT_EQ(peer.stop(), 0);
    ASSERT_NO_FATAL_FAILURE(startPeer(false));
    EXPECT_EQ(firstCalls[i](), 0) << "call " << i;
    snapshotPeer();
  }
  freeRegion(own);

  EXPECT_EQ(peer.stop(), 0);
  std::thread starter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    startPeer(false);
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
    std::vector<ShmMemInfo> infos;
    for (int i = 0; i < 3; ++i) {
      const Region region = makeRegion(4096, "doomed", kRegionSeals);
      infos.emplace_back("doomed", 0, 4096, region.fd, region.addr, 100 + i);
    }
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
