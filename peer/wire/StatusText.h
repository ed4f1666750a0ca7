// SPDX-License-Identifier: Apache-2.0
// The peer's status as values: fetched page by page from a peer of this user's or root's, and read
// from the text that the peer writes (one line per client and per memory, names escaped).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vrocam {
namespace peer {

// The longest status text taken from a peer.
constexpr size_t kMaxStatusText = 64 << 20;

struct MemoryStatus {
  int32_t handle = 0;
  uint32_t type = 0;
  uint64_t size = 0;
  bool readOnly = false;
  std::string name;  // as the client gave it, escapes undone
};

struct ClientStatus {
  pid_t pid = 0;
  uid_t uid = 0;
  uint64_t memories = 0, bytes = 0, staged = 0, stagedBytes = 0;
  std::vector<MemoryStatus> list;
};

// A fault rule of a peer that takes faults, with its counts.
struct FaultStatus {
  uint64_t rule = 0;
  std::string text;
  uint64_t matched = 0, fired = 0;
};

struct PeerStatus {
  pid_t pid = 0;
  uint64_t clients = 0, maxClients = 0;
  uint64_t memories = 0, maxMemories = 0, freeing = 0;  // in all, staged and being freed included
  uint64_t addressSpace = 0, maxAddressSpace = 0;
  uint64_t maxMemoriesPerClient = 0, maxBytesPerClient = 0;
  int64_t idleTimeoutMs = 0, batchTimeoutMs = 0;
  std::vector<ClientStatus> clientList;  // other than the one that asked
  bool faults = false;                   // the peer takes faults
  uint64_t faultSeed = 0;
  std::vector<FaultStatus> faultList;
  uint64_t totalClients = 0, totalMemories = 0, totalBytes = 0;
};

// Fetches the whole status text of the peer at socket into *text: 0, or a negative errno: the
// link's, the peer's answer, -EACCES for a server of another uid than this process's or root's (its
// uid in *serverUid, if given), -EFBIG for a text beyond kMaxStatusText.
int fetchStatus(const std::string& socket, std::string* text, uid_t* serverUid = nullptr);
// The same over a connection to a peer, numbering its requests from *seq on.
int fetchStatus(int sock, uint32_t* seq, std::string* text);

// Reads a status text; lines it does not know are skipped.
PeerStatus parseStatus(const std::string& text);

}  // namespace peer
}  // namespace vrocam
