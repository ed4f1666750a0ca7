// SPDX-License-Identifier: Apache-2.0
// Host IPC client factory: the socket client when VROCAM_IPC_SOCKET names a peer, else the
// in-process loopback.
#include "IPCClient.h"
#include "LoopbackClient.h"
#include "SocketClient.h"

namespace NSCam {
namespace ipc {
namespace wrapper {

IPCClient::~IPCClient() = default;

IPCClient* IPCClientFactory::getInstance(IPC_PLATFORM_TYPE type) {
  if (type != IPC_PLATFORM_DEFAULT) return nullptr;
  SocketClient* socket = SocketClient::shared();
  if (socket == nullptr) return &LoopbackClient::instance();
  // Null while the peer cannot be reached: the manager asks again at its next getInstance().
  return socket->waitForPeer(0) == 0 ? socket : nullptr;
}

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
