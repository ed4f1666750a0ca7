// SPDX-License-Identifier: Apache-2.0
// ClientTable: the memories that one client connection registered with the peer, each with the
// descriptor it sent and the peer's own shared mapping of it, and the parts of a batch not yet
// committed. What the table lets go of stays mapped and open until its caller takes it to free it
// (takeReleased); dropping the table unmaps and closes whatever it still holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Mapping.h"
#include "PeerWire.h"
#include "UniqueFd.h"

namespace vrocam {
namespace peer {

// What one client may hold at once, staged batches included.
struct Limits {
  uint32_t maxMemories = 4096;
  uint64_t maxBytes = 4ull << 30;
};

struct Memory {
  int32_t handle = -1;
  uint32_t type = 0;
  uint64_t size = 0;
  std::string name;
  host::UniqueFd fd;
  // The peer's own shared mapping, of a length rounded up to the memory's page size (huge pages
  // included), so that it can always be unmapped.
  host::Mapping mapping;
  bool writable = false;  // false for a memory sealed or sent against writing
  uint32_t batch = 0;     // seq of the first part of the batch that registered it
};

// How much more the peer as a whole may hold: memories (each a descriptor and a mapping), and
// address space for their mappings.
struct Room {
  size_t memories = 0;
  uint64_t length = 0;
};

class ClientTable {
 public:
  explicit ClientTable(const Limits& limits) : mLimits(limits) {}

  // One Register message, its records with their descriptors in order, within what room leaves.
  // Every record is checked and mapped; then the part is staged (kMore) or committed together
  // with the staged parts. All or nothing: on failure nothing of the message or of its batch is
  // kept. 0, or the first failing record's error: -EINVAL (size 0 or negative), -EBADF (no
  // descriptor), -ENODEV (not a memfd), -EPERM (not sealed against shrinking), -EOVERFLOW (smaller
  // than the size), -EEXIST (handle already registered), -ENOSPC (beyond the limits or the room),
  // -EPROTO (a continuation of no batch) or mmap's error. failMapping (an errno, when not 0):
  // the mapping of the message's last memory fails with it, as a failed mmap would.
  int registerPart(const Request& request, std::vector<host::UniqueFd>& fds, Room room,
                   int failMapping = 0);
  // Drops a batch whose last part has not come.
  void abandonBatch();
  // Undoes the committed batch whose first part had seq batch: the number of memories unmapped
  // and closed (0 when it holds none of them).
  size_t cancel(uint32_t batch);
  // Lets go of every memory, staged ones included.
  void clear();
  // Lets go of each memory named; 0, or -ENOENT when one of them was unknown.
  int deregister(const std::vector<int32_t>& handles);
  // What the table let go of since the last call, still mapped and open: the caller frees it.
  std::vector<Memory> takeReleased() { return std::move(mReleased); }

  // The registered memory of handle, or null.
  const Memory* find(int32_t handle) const;
  const std::map<int32_t, Memory>& memories() const { return mMemories; }
  uint64_t bytes() const { return mBytes; }
  size_t staged() const { return mStaged.size(); }
  uint64_t stagedBytes() const { return mStagedBytes; }
  bool batchOpen() const { return mBatchOpen; }
  // Memories held, committed or staged: each costs the peer a descriptor and a mapping.
  size_t held() const { return mMemories.size() + mStaged.size(); }
  // The address space that their mappings take.
  uint64_t length() const { return mLength; }

 private:
  int admit(const Record& record, host::UniqueFd fd, const Room& room, int failMapping,
            Memory* out) const;
  bool taken(int32_t handle) const;
  void release(Memory&& memory);

  const Limits mLimits;
  std::map<int32_t, Memory> mMemories;
  uint64_t mBytes = 0;
  std::vector<Memory> mStaged;  // parts of a batch whose last part has not come yet
  uint64_t mStagedBytes = 0;
  bool mBatchOpen = false;
  uint32_t mBatch = 0;  // seq of the open batch's first part
  uint64_t mLength = 0;
  std::vector<Memory> mReleased;
};

}  // namespace peer
}  // namespace vrocam
