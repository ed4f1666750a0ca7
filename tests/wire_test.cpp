// SPDX-License-Identifier: Apache-2.0
// The wire under the socket client, over a socket pair: what a client makes of whatever a server
// answers, and a send that finds no room.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "Packet.h"
#include "PeerServer.h"
#include "PeerWire.h"
#include "PrivateDirectory.h"
#include "ProcessState.h"

namespace vrocam {
namespace test {
namespace {

using peer::Kind;
using Bytes = std::vector<uint8_t>;

struct Pair {
  host::UniqueFd client;
  host::UniqueFd server;
};

Pair socketPair() {
  int fds[2] = {-1, -1};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds), 0);
  return {host::UniqueFd(fds[0]), host::UniqueFd(fds[1])};
}

Bytes answer(Kind kind, uint32_t seq, int32_t status) {
  peer::Answer a;
  a.kind = peer::answerKind(kind);
  a.seq = seq;
  a.status = status;
  Bytes bytes(peer::kMaxMessage);
  bytes.resize(peer::encodeAnswer(bytes.data(), bytes.size(), a));
  return bytes;
}

// A client waiting for the answer to its ping of seq 7 takes that answer, drops the late answers
// to earlier requests, and takes nothing else: each case's messages, then its outcome.
TEST(WireTest, AClientTakesOnlyTheAnswerToItsOwnRequest) {
  const Bytes own = answer(Kind::Ping, 7, -ENOENT);
  Bytes longer = own;
  longer.resize(own.size() + 8);
  Bytes unmarked = answer(Kind::Ping, 6, 0);
  unmarked[3] = 0;  // the answer bit of the kind
  const struct {
    const char* what;
    std::vector<Bytes> sent;
    bool withFd;
    int expected;
    int32_t status;  // of the answer taken, or the reason the server gave on -ECONNRESET
  } cases[] = {
      {"its answer", {own}, false, 0, -ENOENT},
      {"late answers first",
       {answer(Kind::Ping, 5, 0), answer(Kind::Ping, 6, 0), own},
       false,
       0,
       -ENOENT},
      {"an answer ahead of its request", {answer(Kind::Ping, 8, 0)}, false, -EPROTO, 0},
      {"the answer to another kind", {answer(Kind::Register, 7, 0)}, false, -EPROTO, 0},
      {"bytes that are no answer", {{1, 2, 3}}, false, -EPROTO, 0},
      {"an earlier one without the answer bit", {unmarked}, false, -EPROTO, 0},
      {"more bytes than an answer", {longer}, false, -EPROTO, 0},
      {"its answer with a descriptor", {own}, true, -EPROTO, 0},
      {"a reason, then the end", {answer(Kind::Closing, 0, -EUSERS)}, false, -ECONNRESET, -EUSERS},
      {"the end", {}, false, -ECONNRESET, 0},
      {"nothing", {}, false, -ETIMEDOUT, 0},
  };
  for (const auto& c : cases) {
    const LeakGuard before;
    Pair pair = socketPair();
    for (const Bytes& bytes : c.sent) {
      const int fd = pair.server.get();  // any descriptor will do
      ASSERT_EQ(peer::sendPacket(pair.server.get(), bytes.data(), bytes.size(), &fd, c.withFd), 0);
    }
    if (c.expected == -ECONNRESET) pair.server.reset();
    Bytes buffer(own.size());  // room for exactly one answer to a ping
    peer::Answer got;
    int closing = 1;
    EXPECT_EQ(
        peer::awaitAnswer(pair.client.get(), buffer.data(), buffer.size(),
                          static_cast<uint16_t>(Kind::Ping), 7, peer::after(20), &got, &closing),
        c.expected)
        << c.what;
    EXPECT_EQ(c.expected == 0 ? got.status : closing, c.status) << c.what;
    pair = Pair();
    before.expectNoLeaks();
  }
  Bytes status = answer(Kind::Status, 7, 0);
  status[peer::kHeaderSize + 4] = 2;  // "more" is 0 or 1
  peer::Answer got;
  EXPECT_EQ(peer::decodeAnswer(status.data(), status.size(), &got), -EPROTO);
}

// A server that only adopts connections (a program serving the link in-process) holds the total
// it was given, and a round with nothing to do returns at once.
TEST(WireTest, AnAdoptingServerHoldsItsTotal) {
  peer::ServerLimits limits;
  limits.maxMemories = 2;
  peer::PeerServer server(limits);
  Pair pair = socketPair();
  server.adopt(std::move(pair.server), getpid(), getuid());
  EXPECT_EQ(server.round(-1, 0), 1);
  const Region region = makeRegion(4096, "adopted", kRegionSeals);
  peer::Request request;
  request.kind = Kind::Register;
  request.seq = 1;
  request.records.assign(3, peer::Record{1, 0, 4096, "adopted"});
  for (int32_t handle = 1; handle <= 3; ++handle) request.records[handle - 1].handle = handle;
  Bytes bytes(peer::kMaxMessage);
  bytes.resize(peer::encodeRequest(bytes.data(), bytes.size(), request));
  const int fds[] = {region.fd, region.fd, region.fd};
  ASSERT_EQ(peer::sendPacket(pair.client.get(), bytes.data(), bytes.size(), fds, 3), 0);
  EXPECT_EQ(server.round(-1, 1000), 1);
  peer::Answer got;
  int closing = 0;
  EXPECT_EQ(peer::awaitAnswer(pair.client.get(), bytes.data(), bytes.size(),
                              static_cast<uint16_t>(Kind::Register), 1, peer::after(1000), &got,
                              &closing),
            0);
  EXPECT_EQ(got.status, -ENOSPC);
  freeRegion(region);
}

// A name goes out NUL-padded: nothing of what the buffer held before leaves with it. Nothing is
// written beyond the room given.
TEST(WireTest, EncodingWritesNoMoreThanItShould) {
  peer::Request request;
  request.kind = Kind::Register;
  request.records = {peer::Record{1, 0, 4096, "ab"}};
  Bytes bytes(2 * peer::kMaxMessage, 0xFF);
  peer::Answer status;
  status.kind = peer::answerKind(Kind::Status);
  status.text.assign(peer::kMaxMessage, 'x');
  EXPECT_EQ(peer::encodeAnswer(bytes.data(), peer::kMaxMessage, status), 0u);
  EXPECT_EQ(peer::encodeRequest(bytes.data(), peer::kHeaderSize + 8, request), 0u);
  bytes.resize(peer::encodeRequest(bytes.data(), bytes.size(), request));
  ASSERT_GE(bytes.size(), peer::kNameSize);
  const auto name = bytes.end() - peer::kNameSize;
  EXPECT_EQ(std::string(name, name + 3), std::string("ab", 3));
  EXPECT_EQ(std::count(name + 3, bytes.end(), 0), peer::kNameSize - 3);
}

// A send waits for room until its deadline, and no longer; one that can never be delivered fails
// at once, and without SIGPIPE.
TEST(WireTest, ASendWithoutRoomGivesUpAtItsDeadline) {
  Pair pair = socketPair();
  const Bytes bytes(1024);
  int sent = 0;
  int err = 0;
  while ((err = peer::sendPacket(pair.client.get(), bytes.data(), bytes.size(), nullptr, 0,
                                 peer::Deadline::min())) == 0) {
    ++sent;
  }
  EXPECT_EQ(err, -ETIMEDOUT);
  EXPECT_GT(sent, 0);
  EXPECT_EQ(
      peer::sendPacket(pair.client.get(), bytes.data(), bytes.size(), nullptr, 0, peer::after(20)),
      -ETIMEDOUT);
  Bytes in(bytes.size());
  peer::Received received;
  ASSERT_EQ(peer::recvPacket(pair.server.get(), in.data(), in.size(), &received), 1024);
  EXPECT_EQ(peer::sendPacket(pair.client.get(), bytes.data(), bytes.size(), nullptr, 0,
                             peer::after(1000)),
            0)
      << "no room after a message was read";
  Pair other = socketPair();  // at most kMaxFds descriptors go with a message
  const std::vector<int> fds(peer::kMaxFds + 1, other.client.get());
  EXPECT_EQ(peer::sendPacket(other.client.get(), bytes.data(), 1, fds.data(), fds.size()), -EINVAL);
  ASSERT_EQ(peer::sendPacket(other.client.get(), bytes.data(), 1, fds.data(), peer::kMaxFds), 0);
  EXPECT_EQ(peer::recvPacket(other.server.get(), in.data(), in.size(), &received), 1);
  EXPECT_EQ(received.fds.size(), peer::kMaxFds);
  pair.server.reset();
  EXPECT_EQ(peer::sendPacket(pair.client.get(), bytes.data(), 1, nullptr, 0), -ECONNRESET);
  Bytes request = answer(Kind::Ping, 1, 0);  // any header will do
  int closing = 1;
  peer::Answer none;
  EXPECT_EQ(peer::roundTrip(pair.client.get(), request.data(), request.size(), request.size(), 100,
                            &none, &closing),
            -EPIPE);
  EXPECT_EQ(closing, 0) << "a reason that never came";
}

// A connect to a listener whose backlog is full gives up at its timeout.
TEST(WireTest, AConnectThatIsNotAcceptedTimesOut) {
  const peer::PrivateDirectory dir("/tmp/vrocam-wire-");
  const std::string path = dir.path() + "/s";
  host::UniqueFd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un addr{AF_UNIX, {}};
  memcpy(addr.sun_path, path.c_str(), path.size());
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  ASSERT_EQ(listen(listener.get(), 0), 0);
  std::vector<host::UniqueFd> waiting(1);
  int err = 0;
  while (waiting.size() < 8 && (err = peer::connectTo(path, 50, &waiting.back())) == 0)
    waiting.emplace_back();
  EXPECT_EQ(err, -ETIMEDOUT);
}

}  // namespace
}  // namespace test
}  // namespace vrocam
