// SPDX-License-Identifier: Apache-2.0
// The peer daemon as tests see it.
#include "PeerHarness.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include "Packet.h"

namespace vrocam {
namespace test {

TestPeer::TestPeer(std::string socket)
    : mDir("/tmp/vrocam-test-peer-"),
      mSocket(socket.empty() ? mDir.socket() : std::move(socket)),
      mLog(mDir.path() + "/peer.log") {
  EXPECT_FALSE(mDir.path().empty());
}

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

TestPeer::~TestPeer() { mProcess.stop(SIGKILL); }

int TestPeer::start(const std::vector<std::string>& extra, rlim_t maxFiles) {
  return mProcess.start(peer::PeerLaunch{peerCommand(), mSocket, extra, mLog, 5000, maxFiles});
}

int TestPeer::stop(int signal) {
  const int status = mProcess.stop(signal);
  if (status < 0) return status;  // none was running
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void TestPeer::freeze() const {
  int status = 0;
  EXPECT_EQ(kill(pid(), SIGSTOP), 0);
  EXPECT_EQ(waitpid(pid(), &status, WUNTRACED), pid());
}

void TestPeer::thaw() const { EXPECT_EQ(kill(pid(), SIGCONT), 0); }

std::string TestPeer::log() const {
  std::ifstream in(mLog);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

bool TestPeer::logShows(const std::string& text) const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (log().find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
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
