// SPDX-License-Identifier: Apache-2.0
// What the peer can hold in all: memories (each costs a descriptor and a mapping, and the peer
// keeps back what it needs to accept, refuse and serve its clients) and the address space of their
// mappings; and what one client may hold of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "ClientTable.h"

namespace vrocam {
namespace peer {

struct Budget {
  size_t memories = 0;        // 0: no room at all
  size_t descriptors = 0;     // the descriptor limit
  size_t mappings = 0;        // the kernel's limit of mappings per process
  uint64_t addressSpace = 0;  // for the mappings of memories
  std::string shortfall;      // why there is no room, when memories is 0
};

// Descriptors kept back besides one per client: one message's descriptors, the connections that
// only ask for the status, the spare descriptor given up to refuse a client when out of them, the
// log's, the reaper's.
constexpr size_t kKeptDescriptors = 64 + 4 + 8;
// Mappings kept back for the process's own needs (threads, allocator, libraries).
constexpr size_t kKeptMappings = 1024;

// The budget as the process stands now: within the descriptor limit and the mapping limit, less
// what is in use and kept back for maxClients clients, and within maxMemories unless it is 0; the
// address space given, or (0) half of what the machine lets this process map.
Budget planBudget(uint32_t maxClients, uint32_t maxMemories, uint64_t addressSpace);

// What one client may hold: what was given, or where 0 the default, 4096 memories and 4 GiB or
// its share of the budget, whichever is less. A share is a quarter (a half with two client slots,
// a third with three, all with one), so that one client always leaves room for others.
Limits shareOf(const Limits& given, const Budget& budget, uint32_t maxClients);

}  // namespace peer
}  // namespace vrocam
