// SPDX-License-Identifier: Apache-2.0
// The peer's budget of memories, from its descriptor limit and the kernel's mapping limit.
#include "Budget.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "ProcessSnapshot.h"

namespace vrocam {
namespace peer {

Budget planBudget(uint32_t maxClients, uint32_t maxMemories) {
  Budget budget;
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  budget.descriptors = files.rlim_cur == RLIM_INFINITY ? SIZE_MAX : files.rlim_cur;
  const host::ProcessSnapshot now = host::ProcessSnapshot::of();
  const size_t descriptorsUsed = now.descriptors.size() + maxClients + kKeptDescriptors;
  budget.mappings = 65530;  // the kernel's default
  std::ifstream("/proc/sys/vm/max_map_count") >> budget.mappings;
  const size_t mappingsUsed = now.mappings.size() + kKeptMappings;
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

}  // namespace peer
}  // namespace vrocam
