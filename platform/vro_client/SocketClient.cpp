// SPDX-License-Identifier: Apache-2.0
// SocketClient: requests to the peer daemon and their answers.
#include "SocketClient.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "HostLogLine.h"
#include "Packet.h"
#include "PeerCommands.h"
#include "PeerWire.h"

namespace NSCam {
namespace ipc {
namespace wrapper {

using vrowire::Kind;

namespace {

constexpr auto kind(Kind value) { return static_cast<uint16_t>(value); }

// Errors of a send after which the connection is gone, not the request refused.
bool linkDown(int err) {
  return err == -EPIPE || err == -ECONNRESET || err == -ENOTCONN || err == -ECONNREFUSED;
}

}  // namespace

SocketClient::SocketClient(std::string path, int timeoutMs)
    : mPath(std::move(path)),
      mTimeoutMs(timeoutMs),
      mOut(new uint8_t[vrowire::kMaxMessage]),
      mIn(new uint8_t[vrowire::kMaxMessage]) {}

SocketClient::~SocketClient() = default;

SocketClient* SocketClient::shared() {
  static SocketClient* client = []() -> SocketClient* {
    const char* path = getenv("VROCAM_IPC_SOCKET");
    if (path == nullptr || *path == '\0') return nullptr;
    uint32_t timeout = vrocam_host::envSwitch("VROCAM_IPC_TIMEOUT_MS", kDefaultTimeoutMs);
    if (timeout == 0 || timeout > INT_MAX) timeout = kDefaultTimeoutMs;
    return new SocketClient(path, static_cast<int>(timeout));  // outlives every static user
  }();
  return client;
}

vrowire::Writer SocketClient::begin(uint16_t requestKind) {
  vrowire::Writer out(mOut.get(), vrowire::kMaxMessage);
  mKind = requestKind;
  out.header(requestKind, ++mSeq);
  return out;
}

int SocketClient::connectLocked() {
  const int err = vrowire::connectTo(mPath, mTimeoutMs, &mSock);
  if (err != 0 && !mReported) {
    mReported = true;
    const std::string text = "cannot reach the peer at " + mPath + ": " + strerror(-err);
    vrocam_host::writeLogLine('W', "VroIPCClient", text.c_str());
  }
  if (err == 0) mReported = false;
  return err;
}

void SocketClient::lose(int err) {
  mSock.reset();
  if (!mReported) {
    mReported = true;
    const std::string text = "lost the peer at " + mPath + ": " + strerror(-err);
    vrocam_host::writeLogLine('W', "VroIPCClient", text.c_str());
  }
}

int SocketClient::exchange(size_t size, const int* fds, size_t fdCount, bool first,
                           vrowire::Answer* answer) {
  if (size == 0) return -EMSGSIZE;
  const bool fresh = !mSock;
  int err = fresh ? connectLocked() : 0;
  if (err == 0) err = vrowire::sendPacket(mSock.get(), mOut.get(), size, fds, fdCount);
  if (linkDown(err) && first && !fresh) {
    // The connection ended since the last call (the peer restarted): nothing was delivered.
    err = connectLocked();
    if (err == 0) err = vrowire::sendPacket(mSock.get(), mOut.get(), size, fds, fdCount);
  }
  if (err == -EBADF && mSock) return err;  // a descriptor of the caller's; nothing was sent
  if (err == 0) {
    err = vrowire::receiveAnswer(mSock.get(), mIn.get(), vrowire::kMaxMessage, mKind, mSeq, answer);
  }
  if (err != 0 && mSock) lose(err);
  return err;
}

int SocketClient::registerLocked(const ShmMemInfo* infos, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    if (infos[i].fd < 0) return -EBADF;
    if (strlen(infos[i].name.c_str()) >= vrowire::kNameSize) return -ENAMETOOLONG;
  }
  size_t start = 0;
  do {
    const size_t part = std::min(vrowire::kMaxRecords, count - start);
    vrowire::Writer out = begin(kind(Kind::Register));
    out.u32((start > 0 ? vrowire::kContinue : 0) | (start + part < count ? vrowire::kMore : 0));
    out.u32(static_cast<uint32_t>(part));
    int fds[vrowire::kMaxRecords];
    for (size_t i = 0; i < part; ++i) {
      const ShmMemInfo& info = infos[start + i];
      out.i32(info.handle);
      out.u32(info.type);
      out.i64(info.size);
      out.name(info.name.c_str(), strlen(info.name.c_str()));
      fds[i] = info.fd;
    }
    vrowire::Answer answer;
    const int err = exchange(out.finish(), fds, part, start == 0, &answer);
    if (err != 0) return err;
    if (answer.status != 0) return answer.status;
    start += part;
  } while (start < count);
  return 0;
}

int SocketClient::registerShm(ShmMemInfo& info) {
  std::lock_guard<std::mutex> guard(mLock);
  return registerLocked(&info, 1);
}

int SocketClient::registerShms(std::vector<ShmMemInfo>& infos) {
  std::lock_guard<std::mutex> guard(mLock);
  return registerLocked(infos.data(), infos.size());
}

int SocketClient::deregisterShms(std::vector<ShmMemInfo> infos) {
  std::lock_guard<std::mutex> guard(mLock);
  int result = 0;
  size_t start = 0;
  do {
    const size_t part = std::min(vrowire::kMaxHandles, infos.size() - start);
    vrowire::Writer out = begin(kind(Kind::Deregister));
    out.u32(static_cast<uint32_t>(part));
    for (size_t i = 0; i < part; ++i) out.i32(infos[start + i].handle);
    vrowire::Answer answer;
    const int err = exchange(out.finish(), nullptr, 0, start == 0, &answer);
    if (err != 0) return err;
    if (result == 0) result = answer.status;
    start += part;
  } while (start < infos.size());
  return result;
}

int SocketClient::sendCommand(int command, void* data, size_t length) {
  std::lock_guard<std::mutex> guard(mLock);
  vrowire::Answer answer;
  int err = 0;
  switch (command) {
    case PEER_COMMAND_CHECKSUM: {
      if (data == nullptr || length != sizeof(PeerChecksum)) return -EINVAL;
      auto* checksum = static_cast<PeerChecksum*>(data);
      vrowire::Writer out = begin(kind(Kind::Checksum));
      out.i32(checksum->handle);
      err = exchange(out.finish(), nullptr, 0, true, &answer);
      if (err != 0 || answer.status != 0) break;
      checksum->crc32 = answer.word;
      checksum->bytes = answer.wide;
      break;
    }
    case PEER_COMMAND_FILL: {
      if (data == nullptr || length != sizeof(PeerFill)) return -EINVAL;
      const auto* fill = static_cast<const PeerFill*>(data);
      vrowire::Writer out = begin(kind(Kind::Fill));
      out.i32(fill->handle);
      out.u8(fill->value);
      err = exchange(out.finish(), nullptr, 0, true, &answer);
      break;
    }
    case PEER_COMMAND_HOLDINGS: {
      if (data == nullptr || length != sizeof(PeerHoldings)) return -EINVAL;
      vrowire::Writer out = begin(kind(Kind::Holdings));
      err = exchange(out.finish(), nullptr, 0, true, &answer);
      if (err != 0 || answer.status != 0) break;
      auto* holdings = static_cast<PeerHoldings*>(data);
      holdings->memories = answer.word;
      holdings->bytes = answer.wide;
      break;
    }
    default:
      return -EOPNOTSUPP;
  }
  return err != 0 ? err : answer.status;
}

int SocketClient::waitForPeer(int timeoutMs) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int err = 0;
    {
      std::lock_guard<std::mutex> guard(mLock);
      vrowire::Writer out = begin(kind(Kind::Ping));
      vrowire::Answer answer;
      err = exchange(out.finish(), nullptr, 0, true, &answer);
      if (err == 0) err = answer.status;
    }
    if (err == 0 || Clock::now() >= deadline) return err;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
