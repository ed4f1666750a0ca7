// SPDX-License-Identifier: Apache-2.0
// ClientTable: checks, maps, stages, commits and undoes a client's memories.
#include "ClientTable.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

namespace vrocam {
namespace peer {

bool ClientTable::taken(int32_t handle) const {
  if (mMemories.count(handle) != 0) return true;
  for (const Memory& staged : mStaged) {
    if (staged.handle == handle) return true;
  }
  return false;
}

// Checks one record against its descriptor and, if it passes, against the limits and the room;
// then maps it.
int ClientTable::admit(const Record& record, host::UniqueFd fd, const Room& room, int failMapping,
                       Memory* out) const {
  if (record.size <= 0) return -EINVAL;
  if (!fd) return -EBADF;
  struct stat st {};
  const int seals = fcntl(fd.get(), F_GET_SEALS);
  if (seals < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return -ENODEV;
  // A client that could shrink the memory would crash the peer with SIGBUS on access.
  if ((seals & F_SEAL_SHRINK) == 0) return -EPERM;
  const auto size = static_cast<uint64_t>(record.size);
  if (static_cast<uint64_t>(st.st_size) < size) return -EOVERFLOW;
  if (taken(record.handle)) return -EEXIST;
  // Huge pages are mapped, and so unmapped, whole: st_blksize is the memory's page size.
  const auto page = static_cast<uint64_t>(st.st_blksize > 0 ? st.st_blksize : 4096);
  const uint64_t length = (size + page - 1) / page * page;
  if (held() >= mLimits.maxMemories || room.memories == 0 ||
      size > mLimits.maxBytes - mBytes - mStagedBytes || length > room.length) {
    return -ENOSPC;
  }
  if (failMapping != 0) return -failMapping;

  bool writable = true;
  void* addr = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (addr == MAP_FAILED && (errno == EPERM || errno == EACCES)) {
    writable = false;  // sealed against writing, or sent read-only
    addr = mmap(nullptr, length, PROT_READ, MAP_SHARED, fd.get(), 0);
  }
  if (addr == MAP_FAILED) return -errno;
  out->handle = record.handle;
  out->type = record.type;
  out->size = size;
  out->name = record.name;
  out->fd = std::move(fd);
  out->mapping = host::Mapping(addr, length);
  out->writable = writable;
  out->batch = mBatch;
  return 0;
}

int ClientTable::registerPart(const Request& request, std::vector<host::UniqueFd>& fds, Room room,
                              int failMapping) {
  const bool continues = (request.flags & kContinue) != 0;
  if (fds.size() != request.records.size() || (continues && !mBatchOpen)) {
    abandonBatch();
    return fds.size() != request.records.size() ? -EBADF : -EPROTO;
  }
  if (!continues) {
    abandonBatch();
    mBatch = request.seq;
  }
  for (size_t i = 0; i < request.records.size(); ++i) {
    Memory memory;
    const bool last = i + 1 == request.records.size();
    const int err =
        admit(request.records[i], std::move(fds[i]), room, last ? failMapping : 0, &memory);
    if (err != 0) {
      abandonBatch();
      return err;
    }
    // Staged at once, so that a handle repeated within the message is seen as taken.
    room.memories -= 1;
    room.length -= memory.mapping.size();
    mStagedBytes += memory.size;
    mLength += memory.mapping.size();
    mStaged.push_back(std::move(memory));
  }
  if ((request.flags & kMore) != 0) {
    mBatchOpen = true;
    return 0;
  }
  for (Memory& memory : mStaged) {
    const int32_t handle = memory.handle;
    mMemories.emplace(handle, std::move(memory));
  }
  mBytes += mStagedBytes;
  mStaged.clear();
  abandonBatch();  // now empty of anything that was not committed
  return 0;
}

void ClientTable::release(Memory&& memory) {
  mLength -= memory.mapping.size();
  mReleased.push_back(std::move(memory));
}

void ClientTable::abandonBatch() {
  for (Memory& memory : mStaged) release(std::move(memory));
  mStaged.clear();
  mStagedBytes = 0;
  mBatchOpen = false;
}

void ClientTable::clear() {
  for (auto& [handle, memory] : mMemories) release(std::move(memory));
  mMemories.clear();
  mBytes = 0;
  abandonBatch();
}

size_t ClientTable::cancel(uint32_t batch) {
  size_t undone = 0;
  for (auto it = mMemories.begin(); it != mMemories.end();) {
    if (it->second.batch != batch) {
      ++it;
      continue;
    }
    mBytes -= it->second.size;
    release(std::move(it->second));
    it = mMemories.erase(it);
    ++undone;
  }
  return undone;
}

int ClientTable::deregister(const std::vector<int32_t>& handles) {
  int result = 0;
  for (const int32_t handle : handles) {
    auto found = mMemories.find(handle);
    if (found == mMemories.end()) {
      result = -ENOENT;
      continue;
    }
    mBytes -= found->second.size;
    release(std::move(found->second));
    mMemories.erase(found);
  }
  return result;
}

const Memory* ClientTable::find(int32_t handle) const {
  auto found = mMemories.find(handle);
  return found == mMemories.end() ? nullptr : &found->second;
}

}  // namespace peer
}  // namespace vrocam
