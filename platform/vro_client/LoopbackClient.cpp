// SPDX-License-Identifier: Apache-2.0
// Host IPC client: the loopback peer.
#include "LoopbackClient.h"

#include <fcntl.h>

#include <cerrno>
#include <unordered_map>
#include <unordered_set>

#include "PeerCommands.h"
#include "ThreadSafety.h"

namespace NSCam {
namespace ipc {
namespace wrapper {

using vrocam::host::Mutex;
using vrocam::host::MutexLock;

struct LoopbackClient::Table {
  // 0, or why info cannot be registered.
  int check(const ShmMemInfo& info) const REQUIRES(lock) {
    if (fcntl(info.fd, F_GETFD) < 0) return -EBADF;
    if (info.addr == nullptr) return -EFAULT;
    if (byHandle.count(info.handle) != 0) return -EEXIST;
    return 0;
  }

  mutable Mutex lock;
  std::unordered_map<int, ShmMemInfo> byHandle GUARDED_BY(lock);
};

LoopbackClient& LoopbackClient::instance() {
  static LoopbackClient* client = new LoopbackClient();  // outlives every static user
  return *client;
}

LoopbackClient::LoopbackClient() : mTable(new Table()) {}

LoopbackClient::~LoopbackClient() = default;

int LoopbackClient::registerShm(ShmMemInfo& info) {
  MutexLock guard(mTable->lock);
  const int err = mTable->check(info);
  if (err == 0) mTable->byHandle[info.handle] = info;
  return err;
}

int LoopbackClient::registerShms(std::vector<ShmMemInfo>& infos) {
  MutexLock guard(mTable->lock);
  std::unordered_set<int> handles;
  handles.reserve(infos.size());
  for (const ShmMemInfo& info : infos) {
    int err = mTable->check(info);
    if (err == 0 && !handles.insert(info.handle).second) err = -EEXIST;
    if (err != 0) return err;  // nothing of the batch is kept
  }
  for (const ShmMemInfo& info : infos) mTable->byHandle.emplace(info.handle, info);
  return 0;
}

int LoopbackClient::sendCommand(int command, void* data, size_t length) {
  if (command != PEER_COMMAND_HOLDINGS) return -EOPNOTSUPP;
  if (data == nullptr || length != sizeof(PeerHoldings)) return -EINVAL;
  MutexLock guard(mTable->lock);
  auto* holdings = static_cast<PeerHoldings*>(data);
  *holdings = PeerHoldings{static_cast<uint32_t>(mTable->byHandle.size()), 0, 0, 0};
  for (const auto& entry : mTable->byHandle) holdings->bytes += entry.second.size;
  return 0;
}

int LoopbackClient::waitForPeer(int /*timeoutMs*/) { return 0; }

int LoopbackClient::deregisterShms(std::vector<ShmMemInfo> infos) {
  MutexLock guard(mTable->lock);
  int result = 0;
  for (const ShmMemInfo& info : infos) {
    if (mTable->byHandle.erase(info.handle) == 0) result = -ENOENT;
  }
  return result;
}

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
