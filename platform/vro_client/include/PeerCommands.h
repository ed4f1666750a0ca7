// SPDX-License-Identifier: Apache-2.0
// Host only: the commands that IPCClient::sendCommand carries to the peer. data points at the
// command's record and length is its size; the arguments go in, the answer comes back in it.
#pragma once

#include <cstdint>

namespace NSCam {
namespace ipc {
namespace wrapper {

enum PeerCommand : int {
  PEER_COMMAND_CHECKSUM =
      1,                  // PeerChecksum: the CRC-32 of a memory, read through the peer's mapping
  PEER_COMMAND_FILL = 2,  // PeerFill: the peer writes value into every byte of a memory
  PEER_COMMAND_HOLDINGS = 3,  // PeerHoldings: what the peer holds for this client
};

struct PeerChecksum {
  int32_t handle;  // in
  uint32_t crc32;  // out
  uint64_t bytes;  // out
};

struct PeerFill {
  int32_t handle;
  uint8_t value;
};

struct PeerHoldings {
  uint32_t memories;     // out
  uint64_t bytes;        // out
  uint32_t staged;       // out: memories of a batch whose last part has not come
  uint64_t stagedBytes;  // out
};

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
