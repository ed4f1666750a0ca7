// SPDX-License-Identifier: Apache-2.0
// The IPC link between two real processes: the manager here, through the socket client, and the
// peer daemon in a child process; and the peer against raw and hostile clients.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>

#include "IPCClientShmMgr.h"
#include "LogCapture.h"
#include "Packet.h"
#include "PeerCommands.h"
#include "PeerHarness.h"
#include "PeerProcess.h"
#include "PeerServer.h"
#include "PrivateDirectory.h"
#include "ProcessSnapshot.h"
#include "ProcessState.h"
#include "SocketClient.h"
#include "vrocam/testkit/PeerFixture.h"

namespace vrocam {
namespace test {
namespace {

using namespace NSCam::ipc::wrapper;
using peer::Kind;
using peer::Record;

const IPCClientShmMgr::Identifier kOwner{IPC_USER_ISP, 1, 7};
using std::string;

bool gLinked = false;  // whether this process's socket client serves the kit's process socket

// Regions of our own, sealed as the peer wants them unless unsealedAt names one.
std::vector<ShmMemInfo> ownBatch(size_t count, unsigned int type, size_t unsealedAt = SIZE_MAX) {
  std::vector<ShmMemInfo> batch;
  for (size_t i = 0; i < count; ++i) {
    const Region region = makeRegion(4096, "batch", i == unsealedAt ? 0 : kRegionSeals);
    batch.emplace_back("batch-" + std::to_string(i), type, 4096, region.fd, region.addr, -1);
  }
  return batch;
}

// Each test with a peer of its own, through the test kit's fixture, and this process's leak guard
// and the peer's.
class PeerTest : public testkit::PeerFixture {
 protected:
  testkit::PeerOptions peerOptions() const override { return testPeerOptions(); }

  void SetUp() override {
    gLinked = true;
    const mode_t old = umask(0);  // the socket's mode must not depend on it
    PeerFixture::SetUp();
    umask(old);
    if (HasFatalFailure()) return;
    client = SocketClient::shared();
    ASSERT_NE(client, nullptr);
    ASSERT_EQ(client->waitForPeer(0), 0);
    snapshotPeer();
    mgr = IPCClientShmMgr::getInstance();
    leaks.emplace();
  }

  void TearDown() override {
    if (mgr != nullptr) {
      EXPECT_EQ(mgr->releaseAllShmMems(), 0);
      EXPECT_EQ(holdings().memories, 0u);
      peerLeaks->expectNoLeaks();
      EXPECT_EQ(peer().stop(), 0);
      EXPECT_TRUE(peer().logShows("stopped: released 0 memories of 1 client\n"));
    }
    PeerFixture::TearDown();
    if (leaks) leaks->expectNoLeaks();
  }

  // (Re)starts the peer; then one ping reconnects, the connection of an earlier peer being dead.
  void startPeer(const std::vector<string>& flags = {}, bool ping = true, rlim_t maxFiles = 0) {
    peer().options().flags = flags;
    peer().options().maxFiles = maxFiles;
    ASSERT_EQ(peer().start(), 0) << peer().log();
    if (ping) {
      ASSERT_EQ(client->waitForPeer(0), 0);
      snapshotPeer();
    }
  }

  // What the peer holds open, taken once one of this process's calls was answered: by then the
  // peer has dropped every connection that ended before.
  void snapshotPeer() { peerLeaks.emplace(peer().pid()); }

  PeerHoldings holdings() {
    PeerHoldings held{};
    EXPECT_EQ(client->sendCommand(PEER_COMMAND_HOLDINGS, &held, sizeof(held)), 0);
    return held;
  }

  SocketClient* client = nullptr;
  IPCClientShmMgr* mgr = nullptr;
  std::optional<LeakGuard> leaks, peerLeaks;
};

// Allocated and registered memory reach the peer, and each side reads what the other wrote.
TEST_F(PeerTest, RegisteredMemoryIsSharedWithThePeerBothWays) {
  ShmMemAlloc allocs[] = {{"link-a", 1, 4096}, {"link-b", 2, 3 * 4096}};
  ASSERT_EQ(mgr->allocateAllShmMems(kOwner, allocs, 2), 0);
  const Region own = makeRegion(8192, "link-own", kRegionSeals);
  ShmMemInfo out;
  ASSERT_EQ(mgr->registerShmMem(kOwner, 3, "link-own", own.fd, own.size, own.addr, out), 0);
  EXPECT_EQ(holdings().bytes, 4096u + 3 * 4096 + 8192);
  EXPECT_EQ(crc32_z(0, reinterpret_cast<const uint8_t*>("123456789"), 9), 0xCBF43926u);
  for (unsigned int type = 1; type <= 3; ++type) {
    ShmMemInfo info;
    ASSERT_EQ(mgr->getShmInfo(info, kOwner, type, -1), 0);
    auto* bytes = static_cast<uint8_t*>(info.addr);
    for (unsigned int i = 0; i < info.size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + type);
    PeerChecksum sum{info.handle, 0, 0};
    ASSERT_EQ(client->sendCommand(PEER_COMMAND_CHECKSUM, &sum, sizeof(sum)), 0);
    EXPECT_EQ(
        std::make_pair(sum.crc32, sum.bytes),
        std::make_pair(static_cast<uint32_t>(crc32_z(0, bytes, info.size)), uint64_t{info.size}));
    PeerFill fill{info.handle, 0xC3};
    ASSERT_EQ(client->sendCommand(PEER_COMMAND_FILL, &fill, sizeof(fill)), 0);
    EXPECT_EQ(std::count(bytes, bytes + info.size, 0xC3), info.size) << info.name;
  }
  ASSERT_EQ(mgr->releaseShmMem(kOwner, 2), 0);
  EXPECT_EQ(holdings().memories, 2u);
}

// A batch of many messages is registered whole or not at all, and released in several messages.
TEST_F(PeerTest, ABatchBeyondOneMessageIsAllOrNothing) {
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
  EXPECT_NE(runPeer("--status --socket " + peer().socket())  // more than one page
                .find("name batch-1099\ntotal: 1 clients, 1100 memories, 4505600 bytes\n"),
            std::string::npos);
  EXPECT_EQ(mgr->releaseAllShmMems(), 0);
  setrlimit(RLIMIT_NOFILE, &files);
}

// Every refusal of the peer, and of the client before sending, is what the caller gets.
TEST_F(PeerTest, ThePeersRefusalsReachTheCallerUnchanged) {
  ASSERT_EQ(peer().stop(), 0);
  ASSERT_NO_FATAL_FAILURE(
      startPeer({"--max-memories", "3", "--max-bytes", "64K", "--max-clients", "1"}));
  EXPECT_TRUE(
      peer().logShows(logHead('I', "vrocam_ipc_peer", peer().pid()) + "serving " + peer().socket() +
                      " (per client at most 3 memories and 65536 bytes; at most 1 client)\n"));
  EXPECT_EQ(RawClient(peer().socket()).send(message(Kind::Ping)), -EUSERS);
  EXPECT_TRUE(peer().logShows("refused client pid " + std::to_string(getpid()) + " uid " +
                              std::to_string(getuid()) + ": already 1 client\n"));
  EXPECT_NE(runPeer("--status --socket " + peer().socket()).find("total: 1 clients"), string::npos)
      << "the status is not shown when every client slot is taken";
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

  // The count limit holds within one message too; a byte is a size; the byte limit fills exactly.
  std::vector<ShmMemInfo> three = ownBatch(3, 10);
  three[0].size = 1;
  const Region readOnly = makeRegion((64 << 10) - 4097, "read-only", kRegionSeals);
  ASSERT_EQ(fcntl(readOnly.fd, F_ADD_SEALS, F_SEAL_FUTURE_WRITE), 0);
  ASSERT_EQ(
      mgr->registerShmMem(kOwner, 11, "read-only", readOnly.fd, readOnly.size, readOnly.addr, out),
      0);
  EXPECT_EQ(mgr->registerShmMem(kOwner, three), -ENOSPC);
  freeRegion(Region{three.back().fd, three.back().addr, 4096});
  three.pop_back();
  EXPECT_EQ(mgr->registerShmMem(kOwner, three), 0);
  EXPECT_EQ(holdings().bytes, 64u << 10);

  // Memory sealed against writing can be read but not filled; command records are checked.
  PeerFill fill{out.handle, 1}, lost{-5, 1};
  PeerChecksum sum{out.handle, 0, 0}, unknown{-5, 0xDEAD, 7};
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_FILL, &fill, sizeof(fill)), -EACCES);
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_FILL, &lost, sizeof(lost)), -ENOENT);
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_CHECKSUM, &sum, sizeof(sum)), 0);
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_CHECKSUM, &unknown, sizeof(unknown)), -ENOENT);
  EXPECT_EQ(unknown.crc32, 0xDEADu);
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_CHECKSUM, &sum, sizeof(sum) - 1), -EINVAL);
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_HOLDINGS, &fill, sizeof(fill)), -EINVAL);
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_FILL, nullptr, sizeof(fill)), -EINVAL);
  EXPECT_EQ(client->sendCommand(99, &sum, sizeof(sum)), -EOPNOTSUPP);
}

// A dead peer fails calls with one warning, releases still free memory, and a new peer is used.
TEST_F(PeerTest, APeerThatDiesFailsCallsWithoutLeaksUntilItIsBack) {
  ShmMemAlloc alloc{"before-death", 1, 4096};
  ASSERT_EQ(mgr->allocateShmMem(kOwner, alloc), 0);
  ShmMemInfo info;
  ASSERT_EQ(mgr->getShmInfo(info, kOwner, 1, -1), 0);
  EXPECT_EQ(peer().stop(SIGKILL), 128 + SIGKILL);
  std::string warnings;
  {
    ::testing::internal::CaptureStderr();
    std::vector<ShmMemInfo> own = ownBatch(1, 2);
    EXPECT_EQ(mgr->registerShmMem(kOwner, own), -ECONNREFUSED);
    freeRegion(Region{own[0].fd, own[0].addr, 4096});
    EXPECT_EQ(mgr->releaseShmMem(kOwner, 1), -ECONNREFUSED);
    warnings = capturedStderr();
  }
  EXPECT_FALSE(isOpen(info.fd));
  EXPECT_EQ(mappingOf(info.addr), "");
  const std::string warning =
      logHead('W', "VroIPCClient") + "cannot reach the peer at " + testkit::processSocket() + ": ";
  EXPECT_NE(warnings.find(warning + "-111 ECONNREFUSED: Connection refused\n"), string::npos)
      << warnings;
  EXPECT_EQ(warnings.find(warning), warnings.rfind(warning)) << warnings;
  // The peer started again gets stdio and nothing else of ours, whatever its number.
  const host::UniqueFd ours(memfd_create("not-for-the-peer", 0));
  const host::UniqueFd high(fcntl(ours.get(), F_DUPFD, 100));
  ASSERT_NO_FATAL_FAILURE(startPeer());
  for (const auto& [fd, target] : host::ProcessSnapshot::of(peer().pid()).descriptors)
    EXPECT_EQ(target.find("not-for-the-peer"), string::npos) << fd;
  ASSERT_EQ(mgr->allocateShmMem(kOwner, alloc), 0);
  EXPECT_EQ(holdings().memories, 1u);
  ASSERT_EQ(mgr->releaseAllShmMems(), 0);

  // A call whose request the peer took before it died fails, and is not sent again.
  peer().freeze();
  ::testing::internal::CaptureStderr();
  std::thread call([&] {
    PeerHoldings held{};
    EXPECT_EQ(client->sendCommand(PEER_COMMAND_HOLDINGS, &held, sizeof(held)), -ECONNRESET);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // it has sent by then
  EXPECT_EQ(peer().stop(SIGKILL), 128 + SIGKILL);
  call.join();
  const string lost = capturedStderr();  // written by the calling thread
  EXPECT_EQ(lost.substr(std::min(lost.find(" W "), lost.size())),
            " W VroIPCClient: lost the peer at " + testkit::processSocket() +
                ": -104 ECONNRESET: Connection reset by peer\n");
  ASSERT_NO_FATAL_FAILURE(startPeer());
}

// Each stop signal stops the peer cleanly; any first call reconnects to a restarted peer, and
// waitForPeer waits for one still starting.
TEST_F(PeerTest, EveryCallReconnectsToAPeerThatCameBack) {
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
  const int stopSignals[] = {SIGTERM, SIGINT, SIGHUP, SIGTERM};
  for (const auto& call : firstCalls) {
    EXPECT_EQ(peer().stop(stopSignals[&call - firstCalls]), 0);
    ASSERT_NO_FATAL_FAILURE(startPeer({}, false));
    EXPECT_EQ(call(), 0) << "call " << &call - firstCalls;
    snapshotPeer();
  }
  EXPECT_TRUE(peer().logShows("stopped: released 1 memory of 1 client\n")) << peer().log();
  freeRegion(own);
  EXPECT_EQ(peer().stop(), 0);
  std::thread waiter([&] { EXPECT_EQ(client->waitForPeer(10000), 0); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  startPeer({}, false);  // on this thread: the peer dies with the thread that started it
  waiter.join();
  snapshotPeer();
}

// --status lists another client's memories with names escaped; when it dies they are dropped.
TEST_F(PeerTest, StatusListsAClientsMemoriesThatAreDroppedWhenItDies) {
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    SocketClient other(testkit::processSocket(), 2000);
    const Region plain = makeRegion(4096, "plain", kRegionSeals);
    const Region evil = makeRegion(8192, "evil", kRegionSeals);
    std::vector<ShmMemInfo> infos{{"plain", 4, 4096, plain.fd, plain.addr, 1},
                                  {"evil\x1b[31m\tname\xff\x01", 4, 8192, evil.fd, evil.addr, 2}};
    if (other.registerShms(infos) == 0 && write(ready[1], "y", 1) == 1) pause();
    _exit(1);
  }
  close(ready[1]);
  char result = 0;
  EXPECT_EQ(read(ready[0], &result, 1), 1);
  close(ready[0]);
  const std::string who =
      "client pid " + std::to_string(child) + " uid " + std::to_string(getuid());
  EXPECT_TRUE(peer().logShows(who + " connected\n"));
  RawClient silent(peer().socket());  // connected, and no client until it asks something
  const std::string status = runPeer("--status --socket " + peer().socket());
  EXPECT_EQ(status.rfind("peer pid " + std::to_string(peer().pid()) +
                             ": 2 of at most 64 clients; 2 of at most ",
                         0),
            0u)
      << status;
  EXPECT_NE(status.find(who + ": 2 memories, 12288 bytes\n  handle 1 type 4 size 4096 name plain\n"
                              "  handle 2 type 4 size 8192 name evil\\x1b[31m\\tname\\xff\\x01\n"),
            std::string::npos)
      << status;
  EXPECT_NE(runPeer("--status --json --socket " + peer().socket())
                .find("\"name\": \"evil\\u001b[31m\\u0009name\\u00ff\\u0001\"}]}"),
            std::string::npos);
  EXPECT_NE(status.find("total: 2 clients, 2 memories, 12288 bytes\n"), std::string::npos);
  const std::vector<testkit::PeerMemory> seen = peer().holdings(child);  // names as they were
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[1].name, "evil\x1b[31m\tname\xff\x01");
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(peer().logShows(who + " disconnected: released 2 memories (12288 bytes)\n"))
      << peer().log();
  ShmMemAlloc alloc{"survivor", 1, 4096};
  EXPECT_EQ(mgr->allocateShmMem(kOwner, alloc), 0);
  EXPECT_EQ(holdings().memories, 1u);
}

// The socket is private, not taken over by a second peer, and refuses clients of another uid.
TEST_F(PeerTest, TheSocketIsPrivateAndOnlyItsUidAndRootMayConnect) {
  // A socket file is made with mode 0600 whatever the umask, and every stop signal removes it; one
  // that a killed peer left is replaced.
  const peer::PrivateDirectory home("/tmp/vrocam-test-");
  TestPeer filed(home.path() + "/peer.sock");
  struct stat st {};
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGKILL, 0}) {
    const mode_t old = umask(0);
    ASSERT_EQ(filed.start(), 0) << filed.log();
    umask(old);
    ASSERT_EQ(stat(filed.socket().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode, S_IFSOCK | 0600);
    if (signal == 0) break;  // the last one serves on
    const bool killed = signal == SIGKILL;
    EXPECT_EQ(filed.stop(signal), killed ? 128 + SIGKILL : 0);
    EXPECT_EQ(access(filed.socket().c_str(), F_OK) == 0, killed) << signal;
  }
  EXPECT_NE(runPeer("--socket " + filed.socket() + " 2>&1").find("Address already in use"),
            std::string::npos);
  EXPECT_EQ(RawClient(filed.socket()).send(message(Kind::Ping)), 0)
      << "the first one no longer serves";
  const std::string tooLong = filed.socket() + std::string(108 - filed.socket().size(), 's');
  EXPECT_NE(
      runPeer("--socket " + tooLong + " 2>&1").find(": -36 ENAMETOOLONG: File name too long\n"),
      std::string::npos);
  const std::string file = filed.socket() + ".txt";  // not a socket: left alone
  ASSERT_TRUE(std::ofstream(file).good());
  EXPECT_NE(runPeer("--socket " + file + " 2>&1").find(": -17 EEXIST: File exists\n"),
            std::string::npos);
  EXPECT_EQ(unlink(file.c_str()), 0);
  // The missing directories of a socket's path are made private, and go when the peer stops.
  const string made[] = {home.path() + "/a", home.path() + "/a/b"};
  TestPeer nested(made[1] + "/peer.sock");
  ASSERT_EQ(nested.start(), 0) << nested.log();
  for (const string& dir : made) {
    ASSERT_EQ(stat(dir.c_str(), &st), 0) << dir;
    EXPECT_EQ(st.st_mode, S_IFDIR | 0700) << dir;
  }
  EXPECT_EQ(nested.stop(), 0);
  EXPECT_NE(access(made[0].c_str(), F_OK), 0) << "the directories stay";
  // An existing directory is used only when nobody else can write to it, or swap it.
  const string open = home.path() + "/open", link = home.path() + "/link";
  ASSERT_EQ(mkdir(open.c_str(), 0700), 0);
  ASSERT_EQ(chmod(open.c_str(), 0777), 0);
  ASSERT_EQ(symlink(home.path().c_str(), link.c_str()), 0);
  const std::pair<string, string> unsafe[] = {{open, "can be written by others (mode 0777)"},
                                              {link, "is a symbolic link"}};
  for (const auto& [dir, problem] : unsafe) {
    int exitCode = -1;
    EXPECT_NE(runTool(VROCAM_PEER_BINARY, "--socket " + dir + "/peer.sock 2>&1", &exitCode)
                  .find("cannot serve in " + dir + ": the directory " + problem + "; use one"),
              string::npos);
    EXPECT_EQ(exitCode, 1) << dir;
  }
  EXPECT_EQ(rmdir(open.c_str()), 0);
  // Another process holding the directory's lock keeps the peer from starting for a while only,
  // and a stop signal ends the wait at once.
  const host::UniqueFd lock(::open(home.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
  int exitCode = -1;
  EXPECT_NE(runTool(VROCAM_PEER_BINARY, "--socket " + home.path() + "/locked.sock 2>&1", &exitCode)
                .find("another process has held the lock of " + home.path() + " for 2 s\n"),
            string::npos);
  EXPECT_EQ(exitCode, 1);
  peer::PeerProcess waiting;
  EXPECT_EQ(waiting.start({testPeerOptions().command, home.path() + "/locked.sock", {}, "", 100}),
            -ETIMEDOUT);
  const int stopped = waiting.stop(SIGTERM);
  EXPECT_TRUE(WIFEXITED(stopped) && WEXITSTATUS(stopped) == 0) << stopped;
  // The launcher says why a peer did not come: a command that cannot run, or no answer in time;
  // what it started goes with it.
  pid_t late = 0;
  {
    peer::PeerProcess launcher;
    EXPECT_EQ(launcher.start({{"/nonexistent/peer"}, filed.socket() + ".x", {}, ""}), -ENOENT);
    EXPECT_EQ(launcher.start({{"/bin/sh", "-c", "sleep 10"}, filed.socket() + ".x", {}, "", 100}),
              -ETIMEDOUT);
    late = launcher.pid();
  }
  EXPECT_EQ(kill(late, 0), -1) << "the launcher left its process behind";

  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a client as another uid";
  const string foreign = home.path() + "/foreign";
  ASSERT_EQ(mkdir(foreign.c_str(), 0700), 0);
  ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
  EXPECT_NE(runPeer("--socket " + foreign + "/peer.sock 2>&1")
                .find(": the directory belongs to uid 65534"),
            string::npos);
  EXPECT_EQ(rmdir(foreign.c_str()), 0);
  const std::string dir = filed.socket().substr(0, filed.socket().rfind('/'));
  ASSERT_EQ(chmod(dir.c_str(), 0711), 0);
  ASSERT_EQ(chmod(filed.socket().c_str(), 0666), 0);
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
    SocketClient other(filed.socket(), 2000);
    _exit(other.waitForPeer(0) < 0 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "a client of uid 65534 was served";
  EXPECT_TRUE(filed.logShows("refused client pid " + std::to_string(child) +
                             " uid 65534: neither the peer's uid nor root\n"));

  // Nor is memory sent to a server of another uid, whoever made its socket.
  const string fake = dir + "/impostor.sock";
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  const pid_t impostor = fork();
  if (impostor == 0) {
    host::UniqueFd sock(socket(AF_UNIX, SOCK_SEQPACKET, 0));
    sockaddr_un addr{AF_UNIX, {}};
    memcpy(addr.sun_path, fake.c_str(), fake.size());
    if (bind(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        setgid(65534) != 0 || setuid(65534) != 0 || ::listen(sock.get(), 4) != 0 ||
        write(ready[1], "y", 1) != 1) {
      _exit(1);
    }
    pause();
  }
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);
  {
    ::testing::internal::CaptureStderr();
    SocketClient trusting(fake, 2000);
    EXPECT_EQ(trusting.waitForPeer(0), -EACCES);
    EXPECT_EQ(trusting.waitForPeer(0), -EACCES);
    EXPECT_EQ(capturedStderr(), logHead('W', "VroIPCClient") + "refused the peer at " + fake +
                                    ": it runs as uid 65534, neither ours (0) nor root\n");
  }
  // Nor does --status take the word of such a server.
  EXPECT_EQ(runPeer("--status --socket " + fake + " 2>&1"),
            "vrocam_ipc_peer: refused the peer at " + fake +
                ": it runs as uid 65534, neither ours (0) nor root\n");
  EXPECT_EQ(
      runPeer("--status --json --socket " + fake)
          .rfind("{\"error\": {\"errno\": -13, \"name\": \"EACCES\", \"message\": \"refused ", 0),
      0u);
  kill(impostor, SIGKILL);
  waitpid(impostor, nullptr, 0);
  unlink(fake.c_str());
}

// Each malformed message gets its error, and leaks no descriptor it carried.
TEST_F(PeerTest, MalformedMessagesAreAnsweredWithAnError) {
  const Region memory = makeRegion(4096, "raw", kRegionSeals);
  const Region other = makeRegion(4096, "raw", kRegionSeals);
  const host::UniqueFd readOnly(
      open(("/proc/self/fd/" + std::to_string(memory.fd)).c_str(), O_RDONLY | O_CLOEXEC));
  int pipeFds[2];
  ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
  const Record record{1, 0, 4096, "raw"};
  const auto sized = [&](int64_t size) { return registerMessage({Record{1, 0, size, "raw"}}); };
  const auto edited = [](std::vector<uint8_t> bytes, size_t at, uint8_t value, size_t n = 1) {
    memset(&bytes[at], value, n);
    return bytes;
  };
  const auto unterminated =
      edited(registerMessage({record}), peer::kHeaderSize + 24, 'x', peer::kNameSize);
  const std::vector<uint8_t> huge{0, 0, 0x10, 0};  // a count, or bytes too many
  peer::Request request;
  request.kind = Kind::Deregister;
  request.handles = {5};
  const auto unknownHandle = encoded(request);
  request.kind = Kind::Cancel;
  request.batch = 77;
  const struct {
    const char* what;
    std::vector<uint8_t> bytes;
    std::vector<int> fds;
    int expected;
  } cases[] = {
      {"one byte", {1}, {}, -EBADMSG},
      {"length beyond the bytes", edited(message(Kind::Ping), 8, 4), {}, -EBADMSG},
      {"other version", edited(message(Kind::Ping), 0, 2), {}, -EPROTONOSUPPORT},
      {"unknown kind", message(static_cast<Kind>(99)), {}, -EOPNOTSUPP},
      {"longer than any message", std::vector<uint8_t>(peer::kMaxMessage + 1), {}, -EMSGSIZE},
      {"65 records", registerMessage(std::vector<Record>(65, record)), {}, -EBADMSG},
      {"a record the bytes lack", message(Kind::Register, {0, 0, 0, 0, 1, 0, 0, 0}), {}, -EBADMSG},
      {"a record without descriptor", registerMessage({record}), {}, -EBADF},
      {"two descriptors, one record", registerMessage({record}), {memory.fd, other.fd}, -EBADMSG},
      {"a descriptor with a ping", message(Kind::Ping), {memory.fd}, -EBADMSG},
      {"no name end", unterminated, {memory.fd}, -EBADMSG},
      {"a pipe", registerMessage({record}), {pipeFds[0]}, -ENODEV},
      {"a negative size", sized(-4096), {memory.fd}, -EINVAL},
      {"a huge size", sized(int64_t{1} << 62), {memory.fd}, -EOVERFLOW},
      {"one handle twice", registerMessage({record, record}), {memory.fd, other.fd}, -EEXIST},
      {"no batch to go on", registerMessage({record}, peer::kContinue), {memory.fd}, -EPROTO},
      {"unknown handle", unknownHandle, {}, -ENOENT},
      {"a cancel of no batch", encoded(request), {}, -ENOENT},
      {"a short status request", message(Kind::Status, huge), {}, -EBADMSG},
      {"too many handles", message(Kind::Deregister, huge), {}, -EBADMSG},
      {"a ping with a payload", message(Kind::Ping, huge), {}, -EBADMSG},
      {"an empty message", {}, {}, -EBADMSG},
      {"an empty message with descriptors", {}, {memory.fd, pipeFds[1]}, -EBADMSG},
      {"none: memory sent read-only, mapped for reading",
       registerMessage({record}),
       {readOnly.get()},
       0},
  };
  for (const auto& c : cases)
    EXPECT_EQ(RawClient(peer().socket()).send(c.bytes, c.fds), c.expected) << c.what;
  // An empty message is no hang-up, even with the next message already behind it.
  RawClient quick(peer().socket());
  ASSERT_EQ(quick.send(message(Kind::Ping)), 0);
  peer().freeze();
  const auto ping = message(Kind::Ping);
  ASSERT_EQ(quick.post({}), 0);
  ASSERT_EQ(quick.post(ping), 0);
  peer().thaw();
  EXPECT_EQ(quick.send(ping), -EBADMSG);
  EXPECT_EQ(quick.send(ping), 0);
  // A batch left unfinished is dropped, with its descriptors, by the next message.
  RawClient staging(peer().socket());
  ASSERT_EQ(staging.send(message(Kind::Ping)), 0);
  const LeakGuard beforeStaging(peer().pid());
  ASSERT_EQ(staging.send(registerMessage({record}, peer::kMore), {memory.fd}), 0);
  peer::Answer held;  // a query leaves the batch open
  ASSERT_EQ(staging.send(message(Kind::Holdings), {}, &held), 0);
  EXPECT_EQ(std::make_pair(held.staged, held.stagedBytes), std::make_pair(1u, uint64_t{4096}));
  ASSERT_EQ(staging.send(message(Kind::Ping)), 0);
  beforeStaging.expectNoLeaks();
  // A new batch drops one still open; a batch that a failed part or its commit ended cannot go on.
  const Record second{2, 0, 4096, "raw"};
  const std::pair<std::vector<int>, int> enders[] = {
      {{}, -EBADF}, {{pipeFds[0]}, -ENODEV}, {{other.fd}, 0}};
  ASSERT_EQ(staging.send(registerMessage({record}, peer::kMore), {other.fd}), 0);
  for (const auto& [fds, answer] : enders) {
    ASSERT_EQ(staging.send(registerMessage({record}, peer::kMore), {memory.fd}), 0);
    EXPECT_EQ(staging.send(registerMessage({second}, peer::kContinue), fds), answer);
    EXPECT_EQ(staging.send(registerMessage({second}, peer::kContinue), {other.fd}), -EPROTO);
  }
  EXPECT_EQ(staging.send(registerMessage({record}), {memory.fd}), -EEXIST);  // committed before
  freeRegion(memory);
  freeRegion(other);
  close(pipeFds[0]);
  close(pipeFds[1]);
}

// Calls from several threads never interleave on the one connection: each gets its own answer.
TEST_F(PeerTest, CallsFromSeveralThreadsGetTheirOwnAnswers) {
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const Region region = makeRegion(4096, "threaded", kRegionSeals);
      for (int i = 0; i < 50; ++i) {
        std::vector<ShmMemInfo> infos{{"threaded", 0, 4096, region.fd, region.addr, t * 1000 + i}};
        PeerHoldings held{};
        if (client->registerShms(infos) != 0 ||
            client->sendCommand(PEER_COMMAND_HOLDINGS, &held, sizeof(held)) != 0 ||
            held.memories == 0 || client->deregisterShms(infos) != 0) {
          ++failures;
        }
      }
      freeRegion(region);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
}

// A peer out of descriptors refuses a new client at once and serves the clients it has.
TEST_F(PeerTest, APeerOutOfDescriptorsRefusesNewClientsAndServesTheOthers) {
  const auto highest =
      static_cast<rlim_t>(host::ProcessSnapshot::of(peer().pid()).descriptors.rbegin()->first);
  const rlimit low{highest + 3, highest + 3};
  ASSERT_EQ(prlimit(peer().pid(), RLIMIT_NOFILE, &low, nullptr), 0);
  std::vector<std::unique_ptr<RawClient>> clients;
  int answer = 0;
  while (answer == 0 && clients.size() < 16) {
    clients.push_back(std::make_unique<RawClient>(peer().socket()));
    answer = clients.back()->send(message(Kind::Ping));
  }
  EXPECT_EQ(answer, -EMFILE) << "not refused at once";
  EXPECT_TRUE(peer().logShows("refused a client: out of descriptors\n"));
  clients.back() = std::make_unique<RawClient>(peer().socket());  // refused again: nothing spins
  answer = clients.back()->send(message(Kind::Ping));
  EXPECT_EQ(answer, -EMFILE) << "not refused again";
  clients.pop_back();
  for (const auto& client : clients) EXPECT_EQ(client->send(message(Kind::Ping)), 0);
  clients.erase(clients.begin());
  EXPECT_EQ(clients[0]->send(message(Kind::Ping)), 0);
  RawClient later(peer().socket());
  EXPECT_EQ(later.send(message(Kind::Ping)), 0);
}

// The peer's command line: each bad option or value is named, and --status prints JSON too.
TEST_F(PeerTest, ThePeersCommandLine) {
  EXPECT_TRUE(
      peer().logShows("holding nothing gives up its slot after 30 s; an unfinished batch or "
                      "an untaken answer is dropped after 10 s\n"));
  const peer::PrivateDirectory home("/tmp/vrocam-test-");
  ASSERT_TRUE(std::ofstream(home.path() + "/file").good());
  const string at = " --socket " + home.path() + "/other.sock 2>&1";
  // --status finds the peer through VROCAM_IPC_SOCKET, which the fixture set.
  const struct {
    string args;
    int exitCode;
    string shows;
  } cases[] = {
      {"--help", 0, "usage: vrocam_ipc_peer --socket PATH [OPTION...]\n"},
      {"--version", 0, string("vrocam_ipc_peer ") + VROCAM_VERSION + "\n"},
      {"--status --json", 0, "\"total\": {\"clients\": 1, \"memories\": 0, \"bytes\": 0}}\n"},
      {"--status --json", 0,
       "\"maxMemoriesPerClient\": 4096, \"maxBytesPerClient\": 4294967296, \"idleTimeoutMs\": "
       "30000, \"batchTimeoutMs\": 10000}"},
      {"--status --json", 0, "], \"faults\": {\"seed\": "},
      {"--status --socket " + home.path() + "/none 2>&1", 1, "/none: -2 ENOENT: No such file"},
      {"--bogus" + at, 2, "vrocam_ipc_peer: unknown option '--bogus' (see --help)\n"},
      {"--max-clients=0" + at, 2, "--max-clients 0: not a whole number from 1 to 1024 (see"},
      {"--max-bytes 1Q" + at, 2, "--max-bytes 1Q: not a whole number from 1 to 1125899906842624"},
      {"--max-bytes 2T --max-clients 0" + at, 2, "--max-clients 0: not a whole number"},
      {"--idle-timeout 5m" + at, 2, "--idle-timeout 5m: not a duration from 1 ms to 86400 s"},
      {"--json" + at, 2, "--json goes with --status"},
      {"stray" + at, 2, "unexpected argument 'stray'"},
      {"2>&1 --socket", 2, "--socket needs a value"},
      {"2>&1", 2, "--socket PATH is needed"},
      {"--socket " + home.path() + "/file/x 2>&1", 1, "/x: -20 ENOTDIR: Not a directory\n"},
  };
  for (const auto& c : cases) {
    int exitCode = -1;
    EXPECT_NE(runTool(VROCAM_PEER_BINARY, c.args, &exitCode).find(c.shows), string::npos) << c.args;
    EXPECT_EQ(exitCode, c.exitCode) << c.args;
  }
}

#ifdef VROCAM_DEMO_BINARY  // the demo is built with the tools
// The demo's command line, and the IPC client it says it uses: its own peer, the one the
// environment names, or the loopback; a peer it cannot start is named with the reason.
TEST_F(PeerTest, TheDemosCommandLine) {
  // Under the emulator of a cross build the demo cannot start the peer binary itself.
  const bool native = *VROCAM_TEST_EMULATOR == '\0';
  const string peerFlag = native ? " --peer " VROCAM_PEER_BINARY : "";
  // The last case runs with VROCAM_IPC_SOCKET naming the fixture's peer, as this process does.
  const struct {
    string args;
    int exitCode;
    string shows;
  } cases[] = {
      {"--help", 0, "  --size SIZE    size of each memory, 1 to 16M, with K or M (default 4K)\n"},
      {"--version", 0, string("vrocam_shm_demo ") + VROCAM_VERSION + "\n"},
      {"--size=8K --regions 1", 0, "IPC client: the in-process loopback"},
      {"--size 4Q 2>&1", 2, "--size 4Q: not a whole number from 1 to 16777216 (K, M, G and"},
      {"--regions 65 2>&1", 2, "--regions 65: not a whole number from 1 to 64"},
      {"--peer /nonexistent/peer 2>&1", 1, "/peer: -2 ENOENT: No such file or directory\n"},
      {"--regions 1 2>/dev/null" + peerFlag, 0,
       native ? "; the peer holds 0 memories and exited with 0\n" : "every step succeeded"},
      {"--regions 1", 0, " == ours; peer wrote 0x"},
  };
  for (const auto& c : cases) {
    const bool environment = &c == &cases[std::size(cases) - 1];
    int exitCode = -1;
    const string out = runTool(VROCAM_DEMO_BINARY, c.args, &exitCode,
                               environment ? "" : "env -u VROCAM_IPC_SOCKET ");
    EXPECT_NE(out.find(c.shows), string::npos) << c.args << "\n" << out;
    EXPECT_EQ(exitCode, c.exitCode) << c.args;
  }
}

// Another user watching /tmp cannot take over the demo's private directory: no name of it is ever
// freed and used again, and the demo deletes nothing that it did not make.
TEST_F(PeerTest, TheDemosDirectoryCannotBeTakenOver) {
  if (geteuid() != 0 || *VROCAM_TEST_EMULATOR != '\0') GTEST_SKIP() << "needs root, natively";
  char bait[] = "/tmp/attacker-XXXXXX";
  ASSERT_NE(mkdtemp(bait), nullptr);
  const string precious = string(bait) + "/precious";
  ASSERT_TRUE(std::ofstream(precious).good());
  ASSERT_EQ(chmod(bait, 0777), 0);
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  const pid_t attacker = fork();
  if (attacker == 0) {  // puts a link to its own directory wherever a demo's name comes or goes
    const int watch = inotify_init1(IN_CLOEXEC);
    if (setgid(65534) != 0 || setuid(65534) != 0 ||
        inotify_add_watch(watch, "/tmp", IN_CREATE | IN_DELETE) < 0 ||
        write(ready[1], "r", 1) != 1) {
      _exit(1);
    }
    alignas(inotify_event) char events[4096];
    for (ssize_t got; (got = read(watch, events, sizeof(events))) > 0;) {
      for (ssize_t at = 0; at < got;) {
        const auto* event = reinterpret_cast<const inotify_event*>(events + at);
        if (event->len != 0 && strncmp(event->name, "vrocam-demo-", 12) == 0) {
          if (symlink(bait, ("/tmp/" + string(event->name)).c_str()) != 0) {
          }
        }
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
    _exit(0);
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  int exitCode = -1;
  const string out = runTool(VROCAM_DEMO_BINARY, "--regions 1 --peer " VROCAM_PEER_BINARY " 2>&1",
                             &exitCode, "env -u VROCAM_IPC_SOCKET ");
  kill(attacker, SIGKILL);
  waitpid(attacker, nullptr, 0);
  close(ready[0]);
  close(ready[1]);
  EXPECT_EQ(access(precious.c_str(), F_OK), 0) << out;
  EXPECT_EQ(exitCode, 0) << out;
  // The links the attacker made after the demo's peer removed its directory.
  for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
    std::error_code error;
    if (entry.is_symlink() && std::filesystem::read_symlink(entry.path(), error) == bait) {
      std::filesystem::remove(entry.path(), error);
    }
  }
  EXPECT_EQ(unlink(precious.c_str()), 0);
  EXPECT_EQ(rmdir(bait), 0);
}
#endif

// One client's work does not hold up another's: a long command is done in slices between other
// clients' requests, a process gets one turn a round however many connections it has, and freeing
// is done off the serving thread.
TEST_F(PeerTest, OneClientsWorkDoesNotHoldUpAnother) {
  const Region big = makeRegion(64 << 20, "big", kRegionSeals);
  RawClient busy(peer().socket()), other(peer().socket());
  ASSERT_EQ(busy.send(registerMessage({Record{1, 0, 64 << 20, "big"}}), {big.fd}), 0);
  peer::Request fill;
  fill.kind = Kind::Fill;
  fill.handle = 1;
  fill.value = 7;
  const std::vector<uint8_t> bytes = encoded(fill);
  ASSERT_EQ(busy.post(bytes), 0);
  EXPECT_EQ(other.send(message(Kind::Ping)), 0);
  char byte = 0;
  EXPECT_EQ(recv(busy.fd(), &byte, 1, MSG_PEEK | MSG_DONTWAIT), -1) << "the fill came first";
  peer::Received received;
  std::vector<uint8_t> answer(64);
  EXPECT_GT(peer::recvPacket(busy.fd(), answer.data(), answer.size(), &received), 0);
  const auto* data = static_cast<const uint8_t*>(big.addr);
  EXPECT_EQ(std::count(data, data + big.size, 7), big.size);
  // Nor does one that takes none of its answers: they wait in the peer until it takes them.
  const auto ping = message(Kind::Ping);
  size_t asked = 0, answered = 0;
  while (busy.post(ping, 100) == 0) ++asked;
  EXPECT_EQ(other.send(ping), 0);
  while (answered < asked && peer::recvPacket(busy.fd(), answer.data(), answer.size(), &received,
                                              peer::after(2000)) > 0) {
    ++answered;
  }
  EXPECT_EQ(answered, asked);
  freeRegion(big);

  // Turns are per client process: eight connections of this process, each filling, share one
  // turn a round, so that another process's eight pings are answered before the fills got far.
  std::vector<Region> regions;
  std::vector<std::unique_ptr<RawClient>> fillers;
  for (int i = 0; i < 8; ++i) {
    regions.push_back(makeRegion(16 << 20, "fill", kRegionSeals));
    fillers.push_back(std::make_unique<RawClient>(peer().socket()));
    ASSERT_EQ(fillers[i]->send(registerMessage({Record{1, 0, 16 << 20, "fill"}}), {regions[i].fd}),
              0);
  }
  int posted[2], done[2];
  ASSERT_EQ(pipe2(posted, O_CLOEXEC), 0);
  ASSERT_EQ(pipe2(done, O_CLOEXEC), 0);
  peer().freeze();
  const pid_t child = fork();
  if (child == 0) {
    RawClient pinger(peer().socket());
    for (int i = 0; i < 8; ++i) pinger.post(ping);
    int answers = write(posted[1], "p", 1) == 1 ? 0 : -1;
    while (answers >= 0 && answers < 8 &&
           peer::recvPacket(pinger.fd(), answer.data(), answer.size(), &received,
                            peer::after(10000)) > 0) {
      ++answers;
    }
    _exit(answers == 8 && write(done[1], "d", 1) == 1 ? 0 : 1);
  }
  EXPECT_EQ(read(posted[0], &byte, 1), 1);
  for (const auto& filler : fillers) ASSERT_EQ(filler->post(bytes), 0);
  peer().thaw();
  EXPECT_EQ(read(done[0], &byte, 1), 1);
  peer().freeze();
  size_t filled = 0;  // pages: a fill goes from the start
  for (const Region& region : regions) {
    for (size_t at = 0; at < region.size; at += 4096)
      filled += static_cast<uint8_t*>(region.addr)[at] == 7;
  }
  peer().thaw();
  EXPECT_LT(filled, (32u << 20) / 4096) << "of " << (128u << 20) / 4096;
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  for (const int fd : {posted[0], posted[1], done[0], done[1]}) close(fd);
  fillers.clear();
  for (const Region& region : regions) freeRegion(region);

  // Freeing is not done on the serving thread: another client is answered while the peer still
  // gives back the gigabyte whose last reference it held.
  host::UniqueFd gigabyte = host::sealedMemfd("gigabyte", 1u << 30);
  ASSERT_EQ(fallocate(gigabyte.get(), 0, 0, 1 << 30), 0);
  RawClient freeing(peer().socket());
  ASSERT_EQ(freeing.send(registerMessage({Record{1, 0, 1 << 30, "gigabyte"}}), {gigabyte.get()}),
            0);
  gigabyte.reset();
  peer::Request deregister, statusRequest;
  deregister.kind = Kind::Deregister;
  deregister.handles = {1};
  statusRequest.kind = Kind::Status;
  ASSERT_EQ(freeing.send(encoded(deregister)), 0);
  peer::Answer shown;
  ASSERT_EQ(other.send(encoded(statusRequest), {}, &shown), 0);
  EXPECT_NE(shown.text.find(" (1 being freed); "), string::npos) << shown.text;
}

// The peer holds memories within what its descriptor limit allows and keeps serving every client;
// a batch left unfinished is dropped, and an idle client gives its slot to a new one.
TEST_F(PeerTest, BudgetsKeepThePeerServingEveryClient) {
  ASSERT_EQ(peer().stop(), 0);
  TestPeer starved;
  starved.options().maxFiles = 24;
  EXPECT_EQ(starved.start(), -ECHILD);
  EXPECT_EQ(starved.stop(), -1) << "a peer that ended is stopped again";
  EXPECT_TRUE(starved.logShows(": the descriptor limit 24 leaves none for memories"));
  // One client cannot take the whole budget: with two client slots each gets half of it.
  const auto logged = [&](const string& text) {
    const string log = peer().log();
    const size_t at = log.rfind(text);
    return at == string::npos ? 0 : std::stoul(log.substr(at + text.size()));
  };
  ASSERT_NO_FATAL_FAILURE(startPeer({"--max-clients", "2"}, true, 120));
  const size_t budget = logged("budget: at most "), share = logged("per client at most ");
  EXPECT_TRUE(peer().logShows(" memories in all (descriptor limit 120, mapping limit "));
  EXPECT_EQ(share, budget / 2) << peer().log();
  const Region region = makeRegion(4096, "raw", kRegionSeals);
  std::vector<ShmMemInfo> all = ownBatch(share + 1, 3);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(mgr->registerShmMem(kOwner, all), -ENOSPC);
  EXPECT_NE(capturedStderr().find(logHead('W', "VroIPCClient") + "the peer at " + peer().socket() +
                                  " refused to register " + std::to_string(all.size()) +
                                  " memories: -28 ENOSPC: No space left on device\n"),
            string::npos);
  freeRegion(Region{all.back().fd, all.back().addr, 4096});
  all.pop_back();
  ASSERT_EQ(mgr->registerShmMem(kOwner, all), 0);
  std::vector<Record> records;
  for (int32_t handle = 1; records.size() < share; ++handle)
    records.push_back({handle, 0, 4096, "raw"});
  EXPECT_EQ(RawClient(peer().socket())
                .send(registerMessage(records), std::vector<int>(records.size(), region.fd)),
            0);
  ASSERT_EQ(mgr->releaseShmMem(kOwner, 3), 0);
  ASSERT_EQ(peer().stop(), 0);
  // Given a larger limit, a client may take the whole budget, and no more.
  ASSERT_NO_FATAL_FAILURE(startPeer({"--max-clients", "2", "--max-memories", "1000",
                                     "--batch-timeout", "300", "--idle-timeout", "300"},
                                    true, 120));
  all = ownBatch(budget + 1, 3);
  EXPECT_EQ(mgr->registerShmMem(kOwner, all), -ENOSPC);
  freeRegion(Region{all.back().fd, all.back().addr, 4096});
  all.pop_back();
  ASSERT_EQ(mgr->registerShmMem(kOwner, all), 0) << peer().log();
  RawClient greedy(peer().socket());
  const Record one{1, 0, 4096, "raw"}, two{2, 0, 4096, "raw"};
  EXPECT_EQ(greedy.send(registerMessage({one}), {region.fd}), -ENOSPC);
  ASSERT_EQ(mgr->releaseShmMem(kOwner, 3), 0);
  EXPECT_EQ(greedy.send(registerMessage({one, two}, peer::kMore), {region.fd, region.fd}), 0);
  EXPECT_NE(runPeer("--status --socket " + peer().socket()).find("staged 2 memories, 8192 bytes\n"),
            string::npos);
  EXPECT_NE(runPeer("--status --json --socket " + peer().socket())
                .find("\"staged\": 2, \"stagedBytes\": 8192"),
            string::npos);
  EXPECT_TRUE(
      peer().logShows("dropped an unfinished batch of 2 memories (8192 bytes): its next part "
                      "did not come within 300 ms\n"));
  ShmMemAlloc alloc{"kept", 1, 4096};  // this client holds something: the idle one goes
  ASSERT_EQ(mgr->allocateShmMem(kOwner, alloc), 0);
  EXPECT_EQ(RawClient(peer().socket()).send(message(Kind::Ping)), 0);
  EXPECT_TRUE(peer().logShows("gave up its slot to a new client: idle and holding nothing"));
  EXPECT_EQ(greedy.send(message(Kind::Ping)), -ETIMEDOUT) << "the reason it was given";
  // One that leaves its answers untaken is dropped after a while, and holds up no other meanwhile.
  RawClient deaf(peer().socket());
  const auto ping = message(Kind::Ping);
  while (deaf.post(ping, 100) == 0) {
  }
  EXPECT_EQ(holdings().memories, 1u);
  EXPECT_TRUE(
      peer().logShows(" dropped: it left its answer untaken too long: released 0 memories"));
  // Connections that never ask anything take no slot for good either.
  std::vector<std::unique_ptr<RawClient>> silent;
  while (silent.size() < 1 + vrocam::peer::PeerServer::kVisitors) {
    silent.push_back(std::make_unique<RawClient>(peer().socket()));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(400));  // beyond --idle-timeout
  EXPECT_EQ(RawClient(peer().socket()).send(message(Kind::Ping)), 0);
  freeRegion(region);
}

// However large the per-client limit, memories are refused beyond the address space the peer may
// map, and nothing the peer cannot allocate ends it.
TEST_F(PeerTest, TheAddressSpaceHasABudgetToo) {
  if (*VROCAM_TEST_EMULATOR != '\0') GTEST_SKIP() << "an emulator maps guest memory its own way";
  ASSERT_EQ(peer().stop(), 0);
  ASSERT_NO_FATAL_FAILURE(startPeer({"--max-bytes", "1024T"}));
  const host::UniqueFd sparse = host::sealedMemfd("sparse", size_t{1} << 40);
  ASSERT_TRUE(sparse);
  RawClient greedy(peer().socket());
  int answer = 0;
  int32_t handle = 0;
  while (answer == 0 && handle < 200) {
    answer = greedy.send(registerMessage({Record{++handle, 0, int64_t{1} << 40, "sparse"}}),
                         {sparse.get()});
  }
  // Sanitizers' runtimes take address space too: mmap may fail first.
  EXPECT_TRUE(answer == -ENOSPC || answer == -ENOMEM) << answer << " at " << handle << " TiB";
  EXPECT_EQ(greedy.send(message(Kind::Ping)), 0) << "the peer ended";
}

// A log that nobody reads never stops the peer: lines are dropped, counted and reported later.
// A client connecting in a loop gets a few lines a second logged; repeats are summarised.
TEST_F(PeerTest, ALogNobodyReadsDoesNotStopThePeer) {
  ASSERT_EQ(peer().stop(), 0);
  const peer::PrivateDirectory home("/tmp/vrocam-test-");
  const string log = home.path() + "/peer.log";
  ASSERT_EQ(mkfifo(log.c_str(), 0600), 0);
  const host::UniqueFd pipe(open(log.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  ASSERT_EQ(fcntl(pipe.get(), F_SETPIPE_SZ, 4096), 4096);
  peer::PeerProcess logging;
  ASSERT_EQ(logging.start({testPeerOptions().command, peer().socket(), {}, log}), 0);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(RawClient(peer().socket()).send(message(Kind::Ping)), 0);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  string text;
  const string suppressed = " lines about clients connecting: at most 10 a second are logged\n";
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (text.find(suppressed) == string::npos && std::chrono::steady_clock::now() < deadline) {
    char chunk[4096];
    for (ssize_t got; (got = read(pipe.get(), chunk, sizeof(chunk))) > 0;) text.append(chunk, got);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_NE(text.find(suppressed), string::npos) << text;
  size_t connected = 0;
  for (size_t at = 0; (at = text.find(" connected\n", at + 1)) != string::npos;) ++connected;
  EXPECT_LE(connected, 20 + 10 * took.count() + 2) << text;  // a burst of 20, then 10 a second
  ASSERT_EQ(logging.stop(), 0);  // its last line follows the reports at once, if any are due
  char chunk[4096];
  for (ssize_t got; (got = read(pipe.get(), chunk, sizeof(chunk))) > 0;) text.append(chunk, got);
  const size_t dropped = text.find(" log lines: the log could not take them at once\n");
  EXPECT_NE(dropped, string::npos);
  EXPECT_EQ(dropped, text.rfind(" log lines: ")) << "reported twice";
  ASSERT_NO_FATAL_FAILURE(startPeer());
  // A line repeated at once is summarised though no other follows, and nothing else is added.
  RawClient again(peer().socket());  // "connected", as the fixture's client just was
  ASSERT_EQ(again.send(message(Kind::Ping)), 0);
  EXPECT_TRUE(peer().logShows(logHead('I', "vrocam_ipc_peer", peer().pid()) +
                              "(the line before was repeated 1 more times)\n"));
  // A summarised line is written in full again; a summary comes before the next other line.
  RawClient third(peer().socket());  // in full
  ASSERT_EQ(third.send(message(Kind::Ping)), 0);
  {
    RawClient fourth(peer().socket());  // a repeat, ended by the line of its going
    ASSERT_EQ(fourth.send(message(Kind::Ping)), 0);
  }
  EXPECT_TRUE(peer().logShows(" uid " + std::to_string(getuid()) + " disconnected: released 0"));
  text = peer().log();
  const size_t summary =
      text.find("(the line before was repeated 1 more times)\n", text.rfind(" connected\n"));
  ASSERT_NE(summary, string::npos) << text;
  const size_t next = text.find('\n', summary) + 1;
  EXPECT_LT(text.find(" disconnected: ", next), text.find('\n', next)) << text;
  EXPECT_EQ(text.find(" connected\n", text.find("repeated")), text.rfind(" connected\n")) << text;
  EXPECT_EQ(text.find(" log lines: "), string::npos) << text;
}

// Memory on huge pages is mapped whole, and a fault in memory the client took away is an error.
TEST_F(PeerTest, HugePagesAreMappedWholeAndAFaultInThemIsAnError) {
  std::ifstream info("/proc/meminfo");
  size_t free = 0, kib = 0;
  for (string key; info >> key;) {
    if (key == "HugePages_Free:") info >> free;
    if (key == "Hugepagesize:") info >> kib;
  }
  if (free == 0 || *VROCAM_TEST_EMULATOR != '\0')
    GTEST_SKIP() << "needs a free huge page, natively";
  const size_t page = kib << 10;
  const int fd = memfd_create("huge", MFD_HUGETLB | MFD_ALLOW_SEALING | MFD_CLOEXEC);
  ASSERT_EQ(ftruncate(fd, static_cast<off_t>(page)), 0);
  ASSERT_EQ(fcntl(fd, F_ADD_SEALS, kRegionSeals), 0);
  void* addr = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ASSERT_NE(addr, MAP_FAILED);
  memset(addr, 1, page);
  ShmMemInfo out;  // declared smaller than the page: the peer still maps, and unmaps, all of it
  ASSERT_EQ(mgr->registerShmMem(kOwner, 1, "huge", fd, 4096, addr, out), 0);
  ASSERT_EQ(fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(page)),
            0);
  void* hog = mmap(nullptr, free * page, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_HUGETLB | MAP_POPULATE, -1, 0);
  PeerFill fill{out.handle, 2};
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_FILL, &fill, sizeof(fill)), -EFAULT);
  PeerChecksum sum{out.handle, 0, 0};
  EXPECT_EQ(client->sendCommand(PEER_COMMAND_CHECKSUM, &sum, sizeof(sum)), 0);
  EXPECT_EQ(sum.crc32, crc32_z(0, std::vector<uint8_t>(4096).data(), 4096)) << "holes are zeros";
  if (hog != MAP_FAILED) munmap(hog, free * page);
  EXPECT_EQ(mgr->releaseShmMem(kOwner, 1, false, -1), 0);
  munmap(addr, page);
  close(fd);
}

// A call that gets no answer in time fails with -ETIMEDOUT and loses nothing: the connection and
// what was registered over it stay, and a registration that timed out is undone in the peer.
TEST(SocketClientTest, ACallThatTimesOutLosesNothing) {
  // The process-wide client is made for this test's socket.
  if (gLinked) GTEST_SKIP() << kOwnProcess;
  std::optional<LeakGuard> leaks;
  const Region kept = makeRegion(4096, "kept", kRegionSeals);
  const Region late = makeRegion(4096, "late", kRegionSeals);
  {
    TestPeer stopped;
    ASSERT_EQ(stopped.start(), 0);
    setenv("VROCAM_IPC_SOCKET", stopped.socket().c_str(), 1);
    setenv("VROCAM_IPC_TIMEOUT_MS", "100", 1);
    SocketClient* client = SocketClient::shared();
    ASSERT_NE(client, nullptr);
    std::vector<ShmMemInfo> infos{{"kept", 0, 4096, kept.fd, kept.addr, 1}};
    ASSERT_EQ(client->registerShms(infos), 0);
    leaks.emplace();   // the client keeps its connection, for ever here
    stopped.freeze();  // requests wait in its socket, unanswered
    ::testing::internal::CaptureStderr();
    ShmMemInfo info("late", 0, 4096, late.fd, late.addr, 2);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client->registerShm(info), -ETIMEDOUT);
    EXPECT_EQ(client->waitForPeer(0), -ETIMEDOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1))
        << "the timeout of the environment was not used";
    EXPECT_EQ(capturedStderr(), logHead('W', "VroIPCClient") + "no answer from the peer at " +
                                    stopped.socket() + " within 100 ms; the connection is kept\n");
    stopped.thaw();
    PeerHoldings held{};
    EXPECT_EQ(client->sendCommand(PEER_COMMAND_HOLDINGS, &held, sizeof(held)), 0);
    EXPECT_EQ(held.memories, 1u);
    EXPECT_TRUE(stopped.logShows("gave up on a registration: released 1 memory (4096 bytes)\n"));
    EXPECT_EQ(client->deregisterShms(infos), 0);
    // A deregistration that times out after its first message still reaches the peer whole.
    SocketClient patient(stopped.socket(), 1000);
    std::vector<ShmMemInfo> many;
    for (int32_t handle = 10; many.size() < peer::kMaxHandles + 10; ++handle) {
      many.emplace_back("many", 0, 4096, kept.fd, kept.addr, handle);
    }
    ASSERT_EQ(patient.registerShms(many), 0);
    stopped.freeze();
    EXPECT_EQ(patient.deregisterShms(many), -ETIMEDOUT);
    stopped.thaw();
    EXPECT_EQ(patient.sendCommand(PEER_COMMAND_HOLDINGS, &held, sizeof(held)), 0);
    EXPECT_EQ(held.memories, 0u);
  }
  freeRegion(kept);
  freeRegion(late);
  leaks->expectNoLeaks();
}

}  // namespace
}  // namespace test
}  // namespace vrocam
