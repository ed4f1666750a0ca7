// SPDX-License-Identifier: Apache-2.0
// The peer daemon as tests see it.
#include "PeerHarness.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <sstream>

#include "Packet.h"

namespace vrocam {
namespace test {

namespace {

// The command that runs the peer daemon, through the emulator (qemu-user) of a cross build.
std::vector<std::string> peerCommand() {
  std::vector<std::string> command;
  std::istringstream words(VROCAM_TEST_EMULATOR);
  for (std::string word; words >> word;) command.push_back(word);
  command.push_back(VROCAM_PEER_BINARY);
  return command;
}

}  // namespace

std::string runTool(const std::string& tool, const std::string& args, int* exitCode,
                    const std::string& prefix) {
  const std::string line = prefix + VROCAM_TEST_EMULATOR + " " + tool + " " + args;
  std::string out;
  FILE* pipe = popen(line.c_str(), "r");
  char chunk[4096];
  for (size_t n; pipe != nullptr && (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) {
    out.append(chunk, n);
  }
  const int status = pipe != nullptr ? pclose(pipe) : -1;
  if (exitCode != nullptr) *exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return out;
}

std::string runPeer(const std::string& args) { return runTool(VROCAM_PEER_BINARY, args); }

testkit::PeerOptions testPeerOptions(const std::string& socket) {
  testkit::PeerOptions options;
  options.socket = socket;
  options.command = peerCommand();
  return options;
}

RawClient::RawClient(const std::string& socket) {
  EXPECT_EQ(peer::connectTo(socket, 2000, &mSock), 0);
}

int RawClient::send(const std::vector<uint8_t>& bytes, const std::vector<int>& fds,
                    peer::Answer* answer) {
  int err = peer::sendPacket(mSock.get(), bytes.data(), bytes.size(), fds.data(), fds.size());
  std::vector<uint8_t> buffer(peer::kMaxMessage);
  peer::Received received;
  // A peer that ended the connection may have said why first.
  const ssize_t got = peer::recvPacket(mSock.get(), buffer.data(), buffer.size(), &received,
                                       peer::after(err == 0 ? 5000 : 0));
  if (got <= 0) return err != 0 ? err : got == 0 ? -ECONNRESET : static_cast<int>(got);
  peer::Answer decoded;
  EXPECT_EQ(peer::decodeAnswer(buffer.data(), static_cast<size_t>(got), &decoded), 0);
  if (answer != nullptr) *answer = decoded;
  return decoded.status;
}

int RawClient::post(const std::vector<uint8_t>& bytes, int waitMs) {
  return peer::sendPacket(mSock.get(), bytes.data(), bytes.size(), nullptr, 0, peer::after(waitMs));
}

std::vector<uint8_t> encoded(const peer::Request& request) {
  std::vector<uint8_t> bytes(peer::kMaxMessage);
  bytes.resize(peer::encodeRequest(bytes.data(), bytes.size(), request));
  return bytes;
}

std::vector<uint8_t> message(peer::Kind kind, const std::vector<uint8_t>& payload) {
  peer::Request request;
  request.kind = kind;
  request.seq = 1;
  std::vector<uint8_t> bytes = encoded(request);
  bytes.resize(peer::kHeaderSize);
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  for (size_t i = 0; i < 4; ++i) bytes[8 + i] = static_cast<uint8_t>(payload.size() >> (8 * i));
  return bytes;
}

std::vector<uint8_t> registerMessage(const std::vector<peer::Record>& records, uint32_t flags,
                                     uint32_t seq) {
  peer::Request request;
  request.kind = peer::Kind::Register;
  request.seq = seq;
  request.flags = flags;
  request.records = records;
  return encoded(request);
}

}  // namespace test
}  // namespace vrocam
