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

  // Descriptors open now that were not open (to the same file) at the snapshot: "fd -> target".
  std::vector<std::string> newDescriptors() const;
  // memfd mappings present now that were not at the snapshot: lines of /proc/self/maps.
  std::vector<std::string> newMappings() const;

  // Fails the current test, naming every leaked descriptor and mapping.
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
