// SPDX-License-Identifier: Apache-2.0
// The peer's budget of memories, from its descriptor limit and the kernel's mapping limit, and of
// address space, from the machine's.
#include "Budget.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "ProcessSnapshot.h"

namespace vrocam {
namespace peer {
namespace {

// The address space this process may map: the processor's user address space (the top of the
// highest mapping, the stack, rounded up to a power of two) within RLIMIT_AS.
uint64_t mappableAddressSpace(const host::ProcessSnapshot& now) {
  uint64_t top = 0;
  for (const std::string& line : now.mappings) {
    unsigned long long start = 0, end = 0;
    // [vsyscall] lies above the user address space on x86-64.
    if (sscanf(line.c_str(), "%llx-%llx", &start, &end) == 2 && end < (1ull << 63) &&
        line.find("[vsyscall]") == std::string::npos) {
      top = std::max<uint64_t>(top, end);
    }
  }
  uint64_t space = 1ull << 32;
  while (space < top) space <<= 1;
  rlimit limit{};
  if (getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
    space = std::min<uint64_t>(space, limit.rlim_cur);
  }
  return space;
}

}  // namespace

Budget planBudget(uint32_t maxClients, uint32_t maxMemories, uint64_t addressSpace) {
  Budget budget;
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  budget.descriptors = files.rlim_cur == RLIM_INFINITY ? SIZE_MAX : files.rlim_cur;
  const host::ProcessSnapshot now = host::ProcessSnapshot::of();
  const size_t descriptorsUsed = now.descriptors.size() + maxClients + kKeptDescriptors;
  budget.mappings = 65530;  // the kernel's default
  std::ifstream("/proc/sys/vm/max_map_count") >> budget.mappings;
  const size_t mappingsUsed = now.mappings.size() + kKeptMappings;
  budget.addressSpace = addressSpace != 0 ? addressSpace : mappableAddressSpace(now) / 2;
  if (budget.descriptors <= descriptorsUsed) {
    char text[256];
    snprintf(text, sizeof(text),
             "the descriptor limit %zu leaves none for memories: %zu clients and what the peer "
             "keeps need %zu; raise it (ulimit -n) or lower --max-clients",
             budget.descriptors, size_t{maxClients}, descriptorsUsed);
    budget.shortfall = text;
    return budget;
  }
  if (budget.mappings <= mappingsUsed) {
    budget.shortfall = "the kernel's mapping limit (vm.max_map_count " +
                       std::to_string(budget.mappings) + ") leaves none for memories";
    return budget;
  }
  budget.memories = std::min(budget.descriptors - descriptorsUsed, budget.mappings - mappingsUsed);
  if (maxMemories != 0) budget.memories = std::min<size_t>(budget.memories, maxMemories);
  return budget;
}

Limits shareOf(const Limits& given, const Budget& budget, uint32_t maxClients) {
  const Limits most;
  const uint32_t shares = std::min<uint32_t>(std::max<uint32_t>(maxClients, 1), 4);
  Limits limits = given;
  if (limits.maxMemories == 0) {
    limits.maxMemories = static_cast<uint32_t>(
        std::max<size_t>(std::min<size_t>(most.maxMemories, budget.memories / shares), 1));
  }
  if (limits.maxBytes == 0) {
    limits.maxBytes = std::max<uint64_t>(std::min(most.maxBytes, budget.addressSpace / shares), 1);
  }
  return limits;
}

}  // namespace peer
}  // namespace vrocam
