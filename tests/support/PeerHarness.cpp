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

namespace vrotest {

TestPeer::TestPeer(std::string socket) : mSocket(std::move(socket)) {
  char dir[] = "/tmp/vrotest-peer-XXXXXX";
  EXPECT_NE(mkdtemp(dir), nullptr);
  mDir = dir;
  if (mSocket.empty()) mSocket = mDir + "/peer.sock";
  mLog = mDir + "/peer.log";
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

std::string runPeer(const std::string& args) {
  std::string line;
  for (const std::string& word : peerCommand()) line += word + " ";
  std::string out;
  FILE* pipe = popen((line + args).c_str(), "r");
  char chunk[4096];
  for (size_t n; pipe != nullptr && (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) {
    out.append(chunk, n);
  }
  if (pipe != nullptr) pclose(pipe);
  return out;
}

TestPeer::~TestPeer() {
  mProcess.stop(SIGKILL);
  unlink(mLog.c_str());
  unlink((mDir + "/peer.sock").c_str());
  rmdir(mDir.c_str());
}

void TestPeer::start(const std::vector<std::string>& extra) {
  ASSERT_EQ(mProcess.start(peerCommand(), mSocket, extra, mLog), 0) << log();
}

int TestPeer::stop(int signal) {
  const int status = mProcess.stop(signal);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

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
  EXPECT_EQ(vrowire::connectTo(socket, 2000, &mSock), 0);
}

int RawClient::send(const std::vector<uint8_t>& bytes, const std::vector<int>& fds) {
  int err = vrowire::sendPacket(mSock.get(), bytes.data(), bytes.size(), fds.data(), fds.size());
  if (err != 0) return err;
  std::vector<uint8_t> buffer(vrowire::kMaxMessage);
  vrowire::Received received;
  const ssize_t got = vrowire::recvPacket(mSock.get(), buffer.data(), buffer.size(), &received);
  if (got <= 0) return got == 0 ? -ECONNRESET : static_cast<int>(got);
  vrowire::Answer answer;
  EXPECT_EQ(vrowire::decodeAnswer(buffer.data(), static_cast<size_t>(got), &answer), 0);
  return answer.status;
}

std::vector<uint8_t> message(vrowire::Kind kind, uint32_t seq,
                             const std::function<void(vrowire::Writer&)>& fill) {
  std::vector<uint8_t> bytes(vrowire::kMaxMessage);
  vrowire::Writer out(bytes.data(), bytes.size());
  out.header(static_cast<uint16_t>(kind), seq);
  if (fill != nullptr) fill(out);
  bytes.resize(out.finish());
  return bytes;
}

std::vector<uint8_t> registerMessage(const std::vector<vrowire::Record>& records, uint32_t flags) {
  return message(vrowire::Kind::Register, 1, [&](vrowire::Writer& out) {
    out.u32(flags);
    out.u32(static_cast<uint32_t>(records.size()));
    for (const vrowire::Record& record : records) {
      out.i32(record.handle);
      out.u32(record.type);
      out.i64(record.size);
      out.name(record.name.c_str(), record.name.size());
    }
  });
}

}  // namespace vrotest
