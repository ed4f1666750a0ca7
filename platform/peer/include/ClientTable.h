// SPDX-License-Identifier: Apache-2.0
// ClientTable: the memories that one client connection registered with the peer, each with the
// descriptor it sent and the peer's own shared mapping of it. Dropping the table (or a record)
// unmaps and closes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "PeerWire.h"
#include "UniqueFd.h"

namespace vropeer {

// What one client may hold at once.
struct Limits {
  uint32_t maxMemories = 4096;
  uint64_t maxBytes = 4ull << 30;
};

// The peer's own shared mapping of a memory.
class Mapping {
 public:
  Mapping() = default;
  Mapping(void* addr, size_t length) : mAddr(addr), mLength(length) {}
  Mapping(Mapping&& other) noexcept;
  Mapping& operator=(Mapping&& other) noexcept;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping();

  uint8_t* data() const { return static_cast<uint8_t*>(mAddr); }

 private:
  void* mAddr = nullptr;
  size_t mLength = 0;
};

struct Memory {
  int32_t handle = -1;
  uint32_t type = 0;
  uint64_t size = 0;
  std::string name;
  vrowire::UniqueFd fd;
  Mapping mapping;
  bool writable = false;  // false for a memory sealed or sent against writing
};

class ClientTable {
 public:
  explicit ClientTable(const Limits& limits) : mLimits(limits) {}

  // One Register message, its records with their descriptors in order. Every record is checked
  // and mapped; then the part is staged (kMore) or committed together with the staged parts.
  // All or nothing: on failure nothing of the message or of its batch is kept. 0, or the first
  // failing record's error: -EINVAL (size 0 or negative), -ENODEV (not a memfd), -EPERM (not
  // sealed against shrinking), -EOVERFLOW (smaller than the size), -EEXIST (handle already
  // registered), -ENOSPC (beyond the limits), -EPROTO (a continuation of no batch) or mmap's error.
  int registerPart(const vrowire::Request& request, std::vector<vrowire::UniqueFd>& fds);
  // Drops a batch whose last part never came.
  void abandonBatch();
  // Unmaps and closes each memory named; 0, or -ENOENT when one of them was unknown.
  int deregister(const std::vector<int32_t>& handles);

  // The registered memory of handle, or null.
  const Memory* find(int32_t handle) const;
  const std::map<int32_t, Memory>& memories() const { return mMemories; }
  uint64_t bytes() const { return mBytes; }

 private:
  int admit(const vrowire::Record& record, vrowire::UniqueFd fd, uint32_t count, uint64_t bytes,
            Memory* out) const;
  bool taken(int32_t handle) const;

  const Limits mLimits;
  std::map<int32_t, Memory> mMemories;
  uint64_t mBytes = 0;
  std::vector<Memory> mStaged;  // parts of a batch whose last part has not come yet
  uint64_t mStagedBytes = 0;
  bool mBatchOpen = false;
};

}  // namespace vropeer
