// SPDX-License-Identifier: Apache-2.0
// Fault injection: the test executable defines mmap, munmap, close, fcntl (duplication), open and
// the ashmem calls. While a FaultScope is alive they record their calls and fail on demand;
// otherwise, and for calls not armed, they forward to the real functions.
#pragma once

#include <string>
#include <vector>

namespace vrocam {
namespace test {

enum class Fn { Mmap, Munmap, Close, Dup, Open, AshmemCreate, AshmemSetProt, AshmemValid, kCount };

// A call as it was made: the path or name it was given (open, ashmem_create_region), its other
// arguments in order (mmap: length, prot, flags, fd, offset; munmap: addr, length; close, dup,
// ashmem_valid: fd; open: flags; ashmem_create_region: size; ashmem_set_prot_region: fd, prot),
// and its result.
struct Call {
  std::string name;
  std::vector<long> args;
  long result;
};

// Records and arms faults for its lifetime; only one is alive at a time.
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

  // The calls of fn in this scope, run or failed, in call order.
  std::vector<Call> calls(Fn fn) const;
  int count(Fn fn) const { return static_cast<int>(calls(fn).size()); }
  std::vector<int> closedFds() const;
};

}  // namespace test
}  // namespace vrocam
