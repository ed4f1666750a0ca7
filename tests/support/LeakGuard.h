// SPDX-License-Identifier: Apache-2.0
// LeakGuard: snapshots the open descriptors and the shared-memory mappings of this process, and
// reports what a test left behind.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace vrotest {

class LeakGuard {
 public:
  LeakGuard();

  // Fails the current test, naming every descriptor open now that was not open (to the same
  // file) at the snapshot, and every memfd mapping that was not there.
  void expectNoLeaks() const;

  static std::map<int, std::string> openDescriptors();
  static std::set<std::string> memfdMappings();

 private:
  std::map<int, std::string> mDescriptors;
  std::set<std::string> mMappings;
};

// The /proc/self/maps line of the mapping that contains addr, or "" when none does.
std::string mappingOf(const void* addr);

// Whether fd is open in this process.
bool isOpen(int fd);

}  // namespace vrotest
