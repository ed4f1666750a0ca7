// SPDX-License-Identifier: Apache-2.0
// Host only: the IPC client that talks to the peer daemon (vrocam_ipc_peer) over its AF_UNIX
// SOCK_SEQPACKET socket. Records go as they stand, descriptors in SCM_RIGHTS; every result is the
// peer's answer, or a negative errno when the link failed. No call waits longer than the timeout.
// A connection found dead is replaced at the next call; what was registered over it is gone from
// the peer, which freed it when the connection ended.
//
// Locking: one mutex per client, held over each whole exchange (all parts of a batch included),
// so calls from several threads never interleave on the socket. The manager calls in with its own
// lock held; the client never calls back into the manager.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "IPCClient.h"
#include "UniqueFd.h"

namespace vrowire {
struct Answer;
class Writer;
}  // namespace vrowire

namespace NSCam {
namespace ipc {
namespace wrapper {

class SocketClient : public IPCClient {
 public:
  static constexpr int kDefaultTimeoutMs = 2000;

  // A client of the peer at path; an answer may take up to timeoutMs. Connects at first use.
  SocketClient(std::string path, int timeoutMs);
  ~SocketClient() override;

  // The process-wide client of the peer that VROCAM_IPC_SOCKET names (timeout from
  // VROCAM_IPC_TIMEOUT_MS), or null when the variable is unset. Never delete it.
  static SocketClient* shared();

  // 0, or the peer's refusal: -EINVAL, -ENODEV, -EPERM, -EOVERFLOW, -EEXIST, -ENOSPC (see the
  // README); -EBADF for a bad descriptor and -ENAMETOOLONG for a name of 256 bytes or more, both
  // found before anything is sent; or a negative errno of the link.
  int registerShm(ShmMemInfo& info) override;
  // All or nothing, also when the batch takes several messages.
  int registerShms(std::vector<ShmMemInfo>& infos) override;
  // PEER_COMMAND_CHECKSUM, _FILL and _HOLDINGS (PeerCommands.h); -EINVAL when length is not the
  // command's record size, -EOPNOTSUPP for another command.
  int sendCommand(int command, void* data, size_t length) override;
  // Pings the peer, connecting as needed, until it answers or timeoutMs passed (at least once).
  int waitForPeer(int timeoutMs) override;
  // Unmaps and closes the memories in the peer; -ENOENT when the peer did not know one of them.
  int deregisterShms(std::vector<ShmMemInfo> infos) override;

 private:
  int registerLocked(const ShmMemInfo* infos, size_t count);
  // Starts a request of kind in the send buffer, with the next sequence number.
  vrowire::Writer begin(uint16_t kind);
  // Sends size bytes of the send buffer with fds and receives the answer. first: the request is
  // the first of its call, so a connection found dead may be replaced and the request resent.
  int exchange(size_t size, const int* fds, size_t fdCount, bool first, vrowire::Answer* answer);
  int connectLocked();
  void lose(int err);

  const std::string mPath;
  const int mTimeoutMs;
  std::mutex mLock;
  vrowire::UniqueFd mSock;
  uint32_t mSeq = 0;
  uint16_t mKind = 0;      // of the request in the send buffer
  bool mReported = false;  // a failure to reach the peer was logged since the last connection
  std::unique_ptr<uint8_t[]> mOut;
  std::unique_ptr<uint8_t[]> mIn;
};

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
