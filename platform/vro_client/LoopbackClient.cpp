// SPDX-License-Identifier: Apache-2.0
// Host IPC client: the loopback peer.
#include "LoopbackClient.h"

#include <fcntl.h>

#include <cerrno>
#include <unordered_set>

#include "PeerCommands.h"

namespace NSCam {
namespace ipc {
namespace wrapper {

LoopbackClient& LoopbackClient::instance() {
  static LoopbackClient* client = new LoopbackClient();  // outlives every static user
  return *client;
}

int LoopbackClient::check(const ShmMemInfo& info) const {
  if (fcntl(info.fd, F_GETFD) < 0) return -EBADF;
  if (info.addr == nullptr) return -EFAULT;
  if (mByHandle.count(info.handle) != 0) return -EEXIST;
  return 0;
}

int LoopbackClient::registerShm(ShmMemInfo& info) {
  std::lock_guard<std::mutex> guard(mLock);
  const int err = check(info);
  if (err == 0) mByHandle[info.handle] = info;
  return err;
}

int LoopbackClient::registerShms(std::vector<ShmMemInfo>& infos) {
  std::lock_guard<std::mutex> guard(mLock);
  std::unordered_set<int> handles;
  handles.reserve(infos.size());
  for (const ShmMemInfo& info : infos) {
    int err = check(info);
    if (err == 0 && !handles.insert(info.handle).second) err = -EEXIST;
    if (err != 0) return err;  // nothing of the batch is kept
  }
  for (const ShmMemInfo& info : infos) mByHandle.emplace(info.handle, info);
  return 0;
}

int LoopbackClient::sendCommand(int command, void* data, size_t length) {
  if (command != PEER_COMMAND_HOLDINGS) return -EOPNOTSUPP;
  if (data == nullptr || length != sizeof(PeerHoldings)) return -EINVAL;
  std::lock_guard<std::mutex> guard(mLock);
  auto* holdings = static_cast<PeerHoldings*>(data);
  holdings->memories = static_cast<uint32_t>(mByHandle.size());
  holdings->bytes = 0;
  for (const auto& entry : mByHandle) holdings->bytes += entry.second.size;
  return 0;
}

int LoopbackClient::waitForPeer(int /*timeoutMs*/) { return 0; }

int LoopbackClient::deregisterShms(std::vector<ShmMemInfo> infos) {
  std::lock_guard<std::mutex> guard(mLock);
  int result = 0;
  for (const ShmMemInfo& info : infos) {
    if (mByHandle.erase(info.handle) == 0) result = -ENOENT;
  }
  return result;
}

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
