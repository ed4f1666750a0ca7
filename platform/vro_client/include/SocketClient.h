// SPDX-License-Identifier: Apache-2.0
// Host only: the IPC client that talks to the peer daemon (vrocam_ipc_peer) over its AF_UNIX
// SOCK_SEQPACKET socket. Records go as they stand, descriptors in SCM_RIGHTS; every result is the
// peer's answer, or a negative errno when the link failed. No call waits longer than the timeout.
// A call that times out fails with -ETIMEDOUT and keeps the connection and everything registered
// over it; the late answer is dropped when it comes, and a registration that timed out is undone
// in the peer, so that the peer never holds what the caller was told failed. A deregistration that
// timed out is completed in the peer all the same: what was not sent goes before the next request.
// Only a peer of this process's uid or root's is served (-EACCES otherwise). A connection found
// dead is replaced at the next call; what was registered over it is gone from the peer, which freed
// it when the connection ended.
//
// Locking: one mutex per client, held over each whole exchange (all parts of a batch included),
// so calls from several threads never interleave on the socket. The manager calls in with its own
// lock held; the client never calls back into the manager.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "IPCClient.h"

namespace NSCam {
namespace ipc {
namespace wrapper {

class SocketClient : public IPCClient {
 public:
  static constexpr int kDefaultTimeoutMs = 2000;

  // A client of the peer at path; a call may take up to timeoutMs. Connects at first use.
  SocketClient(std::string path, int timeoutMs);
  ~SocketClient() override;
  SocketClient(const SocketClient&) = delete;
  SocketClient& operator=(const SocketClient&) = delete;

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
  // On -ETIMEDOUT the peer still lets go of every one of them, as soon as the link allows.
  int deregisterShms(std::vector<ShmMemInfo> infos) override;

 private:
  struct Link;  // the connection to the peer and what goes over it
  const std::unique_ptr<Link> mLink;
};

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
