// SPDX-License-Identifier: Apache-2.0
// The peer daemon against raw and hostile clients: its socket, who may connect, malformed
// messages, its status report, and a client's timeout against a peer that never answers.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "LeakGuard.h"
#include "PeerCommands.h"
#include "PeerHarness.h"
#include "SocketClient.h"
#include "TestRegion.h"

namespace vrotest {
namespace {

using NSCam::ipc::wrapper::ShmMemInfo;
using NSCam::ipc::wrapper::SocketClient;
using vrowire::Kind;
using vrowire::Record;

// The output of a shell command.
std::string run(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  char chunk[4096];
  for (size_t n; pipe != nullptr && (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) {
    out.append(chunk, n);
  }
  if (pipe != nullptr) pclose(pipe);
  return out;
}

class PeerProtocolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const mode_t old = umask(0);  // the socket's mode must not depend on it
    peer.start();
    umask(old);
    probe.emplace(peer.socket());
    ASSERT_EQ(probe->send(message(Kind::Ping)), 0);
    peerLeaks.emplace(peer.pid());
  }

  void TearDown() override {
    // The probe's answer comes after the peer has dropped every connection closed before it.
    EXPECT_EQ(probe->send(message(Kind::Ping)), 0) << "the peer stopped serving its other clients";
    peerLeaks->expectNoLeaks();
    EXPECT_EQ(peer.stop(), 0) << peer.log();
    EXPECT_TRUE(peer.logShows("stopped: released 0 memories of 1 clients\n")) << peer.log();
    probe.reset();
    EXPECT_NE(access(peer.socket().c_str(), F_OK), 0) << "the peer left its socket file";
    leaks.expectNoLeaks();
  }

  TestPeer peer;
  LeakGuard leaks;
  std::optional<RawClient> probe;
  std::optional<LeakGuard> peerLeaks;
};

// The socket file is the peer's uid's alone, a second peer does not take it over, and a client
// of another uid that reaches it anyway is refused.
TEST_F(PeerProtocolTest, TheSocketIsPrivateAndOnlyItsUidAndRootMayConnect) {
  struct stat st {};
  ASSERT_EQ(stat(peer.socket().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode, S_IFSOCK | 0600);
  EXPECT_NE(run(peerCommandLine() + " --socket " + peer.socket() + " 2>&1")
                .find("Address already in use"),
            std::string::npos);
  ASSERT_EQ(probe->send(message(Kind::Ping)), 0) << "the first peer no longer serves";

  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a client as another uid";
  const std::string dir = peer.socket().substr(0, peer.socket().rfind('/'));
  ASSERT_EQ(chmod(dir.c_str(), 0711), 0);
  ASSERT_EQ(chmod(peer.socket().c_str(), 0666), 0);
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
    SocketClient other(peer.socket(), 2000);
    _exit(other.waitForPeer(0) < 0 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "a client of uid 65534 was served";
  EXPECT_TRUE(peer.logShows("refused client pid " + std::to_string(child) +
                            " uid 65534: neither the peer's uid nor root\n"));
}

// Every malformed or refused message gets its error, or ends its own connection; no descriptor
// it carried stays open in the peer, and the other clients are served on.
TEST_F(PeerProtocolTest, MalformedMessagesAreAnsweredWithAnErrorOrEndTheConnection) {
  const Region memory = makeRegion(4096, "raw", kRegionSeals);
  const Region other = makeRegion(4096, "raw", kRegionSeals);
  int pipeFds[2];
  ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
  const Record record{1, 0, 4096, "raw"};
  const auto sized = [&](int64_t size) { return registerMessage({Record{1, 0, size, "raw"}}); };
  const auto edited = [](std::vector<uint8_t> bytes, size_t at, uint8_t value, size_t n = 1) {
    memset(&bytes[at], value, n);
    return bytes;
  };
  const auto handleFive = [](vrowire::Writer& out) { out.u32(1), out.i32(5); };
  const struct {
    const char* what;
    std::vector<uint8_t> bytes;
    std::vector<int> fds;
    int expected;
  } cases[] = {
      {"shorter than a header", {1, 0, 1}, {}, -EBADMSG},
      {"length beyond the bytes", edited(message(Kind::Ping), 8, 4), {}, -EBADMSG},
      {"other version", edited(message(Kind::Ping), 0, 2), {}, -EPROTONOSUPPORT},
      {"unknown kind", message(static_cast<Kind>(99)), {}, -EOPNOTSUPP},
      {"longer than any message", std::vector<uint8_t>(vrowire::kMaxMessage + 1), {}, -EMSGSIZE},
      {"65 records", registerMessage(std::vector<Record>(65, record)), {}, -EBADMSG},
      {"a record without descriptor", registerMessage({record}), {}, -EBADF},
      {"two descriptors, one record", registerMessage({record}), {memory.fd, other.fd}, -EBADMSG},
      {"a descriptor with a ping", message(Kind::Ping), {memory.fd}, -EBADMSG},
      {"a name without terminator",
       edited(registerMessage({record}), vrowire::kHeaderSize + 24, 'x', vrowire::kNameSize),
       {memory.fd},
       -EBADMSG},
      {"a pipe", registerMessage({record}), {pipeFds[0]}, -ENODEV},
      {"a negative size", sized(-4096), {memory.fd}, -EINVAL},
      {"a huge size", sized(int64_t{1} << 62), {memory.fd}, -EOVERFLOW},
      {"one handle twice", registerMessage({record, record}), {memory.fd, other.fd}, -EEXIST},
      {"a continuation of no batch",
       registerMessage({record}, vrowire::kContinue),
       {memory.fd},
       -EPROTO},
      {"deregistration of an unknown handle",
       message(Kind::Deregister, 1, handleFive),
       {},
       -ENOENT},
      {"a status page beyond the text",
       message(Kind::Status, 1, [](vrowire::Writer& out) { out.u32(1u << 20); }),
       {},
       -EINVAL},
      {"an empty message", {}, {}, -ECONNRESET},
  };
  for (const auto& c : cases)
    EXPECT_EQ(RawClient(peer.socket()).send(c.bytes, c.fds), c.expected) << c.what;
  freeRegion(memory);
  freeRegion(other);
  close(pipeFds[0]);
  close(pipeFds[1]);
}

// --status lists each client with its memories and the totals, names escaped so that a client
// cannot forge lines; a batch staged but never finished is dropped with the next request.
TEST_F(PeerProtocolTest, StatusListsEachClientsMemoriesWithNamesEscaped) {
  SocketClient client(peer.socket(), 2000);
  const Region plain = makeRegion(4096, "plain", kRegionSeals);
  const Region evil = makeRegion(8192, "evil", kRegionSeals);
  std::vector<ShmMemInfo> infos{{"plain", 4, 4096, plain.fd, plain.addr, 1},
                                {"evil\x1b[31m\tname", 4, 8192, evil.fd, evil.addr, 2}};
  ASSERT_EQ(client.registerShms(infos), 0);
  RawClient staging(peer.socket());
  ASSERT_EQ(staging.send(message(Kind::Ping)), 0);
  const LeakGuard beforeStaging(peer.pid());
  ASSERT_EQ(
      staging.send(registerMessage({Record{1, 0, 4096, "staged"}}, vrowire::kMore), {plain.fd}), 0);
  ASSERT_EQ(staging.send(message(Kind::Ping)), 0);
  beforeStaging.expectNoLeaks();

  const std::string status = run(peerCommandLine() + " --status --socket " + peer.socket());
  const std::string me =
      "client pid " + std::to_string(getpid()) + " uid " + std::to_string(getuid());
  EXPECT_NE(status.find(me + ": 2 memories, 12288 bytes\n"), std::string::npos) << status;
  EXPECT_NE(status.find("  handle 1 type 4 size 4096 name plain\n"), std::string::npos);
  EXPECT_NE(status.find("  handle 2 type 4 size 8192 name evil\\x1b[31m\\x09name\n"),
            std::string::npos);
  EXPECT_NE(status.find("total: 3 clients, 2 memories, 12288 bytes\n"), std::string::npos);
  freeRegion(plain);
  freeRegion(evil);
}

// Calls from several threads never interleave on the one connection: each gets its own answer.
TEST_F(PeerProtocolTest, CallsFromSeveralThreadsGetTheirOwnAnswers) {
  SocketClient client(peer.socket(), 2000);
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const Region region = makeRegion(4096, "threaded", kRegionSeals);
      for (int i = 0; i < 50; ++i) {
        std::vector<ShmMemInfo> infos{{"threaded", 0, 4096, region.fd, region.addr, t * 1000 + i}};
        NSCam::ipc::wrapper::PeerHoldings held{};
        if (client.registerShms(infos) != 0 ||
            client.sendCommand(NSCam::ipc::wrapper::PEER_COMMAND_HOLDINGS, &held, sizeof(held)) !=
                0 ||
            held.memories == 0 || client.deregisterShms(infos) != 0) {
          ++failures;
        }
      }
      freeRegion(region);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
}

// A peer out of descriptors refuses a new client at once, neither leaving it waiting nor
// spinning, and serves the clients it has.
TEST_F(PeerProtocolTest, APeerOutOfDescriptorsRefusesNewClientsAndServesTheOthers) {
  const auto highest = static_cast<rlim_t>(LeakGuard::openDescriptors(peer.pid()).rbegin()->first);
  const rlimit low{highest + 3, highest + 3};
  ASSERT_EQ(prlimit(peer.pid(), RLIMIT_NOFILE, &low, nullptr), 0);
  std::vector<std::unique_ptr<RawClient>> clients;
  int answer = 0;
  while (answer == 0 && clients.size() < 16) {
    clients.push_back(std::make_unique<RawClient>(peer.socket()));
    answer = clients.back()->send(message(Kind::Ping));
  }
  EXPECT_TRUE(answer == -ECONNRESET || answer == -EPIPE) << "not refused at once: " << answer;
  EXPECT_TRUE(peer.logShows("refused a client: out of descriptors\n"));
  clients.pop_back();
  for (const auto& client : clients) EXPECT_EQ(client->send(message(Kind::Ping)), 0);
  clients.erase(clients.begin());
  EXPECT_EQ(clients[0]->send(message(Kind::Ping)), 0);
  RawClient later(peer.socket());
  EXPECT_EQ(later.send(message(Kind::Ping)), 0);
}

// A call that gets no answer fails with -ETIMEDOUT once VROCAM_IPC_TIMEOUT_MS passed, instead of
// hanging, and so does the next one; each lost connection is logged.
TEST(SocketClientTest, ACallThatGetsNoAnswerTimesOut) {
  LeakGuard leaks;
  TestPeer place;  // only for its private directory
  vrowire::UniqueFd silent(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", place.socket().c_str());
  ASSERT_EQ(bind(silent.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  ASSERT_EQ(listen(silent.get(), 4), 0);
  setenv("VROCAM_IPC_SOCKET", place.socket().c_str(), 1);
  setenv("VROCAM_IPC_TIMEOUT_MS", "100", 1);
  SocketClient* client = SocketClient::shared();
  ASSERT_NE(client, nullptr);

  const Region region = makeRegion(4096, "unanswered", kRegionSeals);
  {
    StderrCapture warnings;
    ShmMemInfo info("unanswered", 0, 4096, region.fd, region.addr, 1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client->registerShm(info), -ETIMEDOUT);
    EXPECT_EQ(client->waitForPeer(0), -ETIMEDOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1))
        << "the timeout of the environment was not used";
    const std::string lost = "W/VroIPCClient(" + std::to_string(getpid()) + "): lost the peer at " +
                             place.socket() + ": Connection timed out\n";
    EXPECT_EQ(warnings.text(), lost + lost);
  }
  freeRegion(region);
  silent.reset();
  leaks.expectNoLeaks();
}

}  // namespace
}  // namespace vrotest
