// SPDX-License-Identifier: Apache-2.0
// Fault injection: the test executable defines mmap, munmap, close, fcntl (duplication), open and
// the ashmem calls. While a FaultScope is alive they count and record their calls and fail on
// demand; otherwise, and for calls not armed, they forward to the real functions.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace vrotest {

enum class Fn { Mmap, Munmap, Close, Dup, Open, AshmemCreate, AshmemSetProt, AshmemValid, kCount };

struct MmapCall {
  size_t length;
  int prot, flags, fd;
  off_t offset;
  void* result;
};
struct MunmapCall {
  void* addr;
  size_t length;
};
struct OpenCall {
  std::string path;  // as the caller named it
  int flags, result;
};
struct CreateCall {
  std::string name;
  size_t size;
  int result;
};

// Counts, records and arms faults for its lifetime; only one is alive at a time.
class FaultScope {
 public:
  FaultScope();
  ~FaultScope();
  FaultScope(const FaultScope&) = delete;
  FaultScope& operator=(const FaultScope&) = delete;

  // The nth call (1-based, counted in this scope; -1: every call) of fn returns result with errno
  // err and does not run. err 0 leaves errno alone, so result 0 swallows a call.
  void fail(Fn fn, int nth, long result, int err);
  // Serves reads of path from another file (the open is made on `to`).
  void redirectOpen(const std::string& from, const std::string& to);

  int count(Fn fn) const;
  std::vector<int> closedFds() const;  // every close, run or failed, in call order
  std::vector<MmapCall> mmaps() const;
  std::vector<MunmapCall> munmaps() const;
  std::vector<OpenCall> opens() const;
  std::vector<CreateCall> creates() const;
};

}  // namespace vrotest
