// SPDX-License-Identifier: Apache-2.0
// How many memories the peer can hold in all: each costs a descriptor and a mapping, and the
// peer keeps back what it needs to accept, refuse and serve its clients.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vrocam {
namespace peer {

struct Budget {
  size_t memories = 0;     // 0: no room at all
  size_t descriptors = 0;  // the descriptor limit
  size_t mappings = 0;     // the kernel's limit of mappings per process
  std::string shortfall;   // why there is no room, when memories is 0
};

// Descriptors kept back besides one per client: one message's descriptors, the connections that
// only ask for the status, the spare descriptor given up to refuse a client when out of them, the
// log's.
constexpr size_t kKeptDescriptors = 64 + 4 + 8;
// Mappings kept back for the process's own needs (threads, allocator, libraries).
constexpr size_t kKeptMappings = 1024;

// The budget as the process stands now: within the descriptor limit and the mapping limit, less
// what is in use and kept back for maxClients clients, and within maxMemories unless it is 0.
Budget planBudget(uint32_t maxClients, uint32_t maxMemories);

}  // namespace peer
}  // namespace vrocam
