// SPDX-License-Identifier: Apache-2.0
// The one maker of shared memory as the host makes it: a memfd, close-on-exec, sized once and
// sealed, as the host's ashmem regions are and as the peer takes memory.
#pragma once

#include <fcntl.h>

#include <cstddef>

#include "UniqueFd.h"

namespace vrocam {
namespace host {

// Sealed against shrinking and growing: a peer's mapping cannot lose its pages under it.
constexpr unsigned int kRegionSeals = F_SEAL_SHRINK | F_SEAL_GROW;

// A memfd named name of size bytes with seals added (none when 0): its owner, or an empty one with
// errno set (EINVAL for a size beyond what a file can have).
UniqueFd sealedMemfd(const char* name, size_t size, unsigned int seals = kRegionSeals);

}  // namespace host
}  // namespace vrocam
