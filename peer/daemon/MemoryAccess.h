// SPDX-License-Identifier: Apache-2.0
// The peer's reads and writes of client memory, which the client may have left without pages
// behind it (a hole punched in huge pages that are gone): a fault becomes an error, never SIGBUS.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vrocam {
namespace peer {

// Writes value into size bytes at data: 0, or -EFAULT when the memory could not take a write.
int guardedFill(uint8_t* data, size_t size, uint8_t value);

// Reads size bytes of the memory behind fd from offset on, through the descriptor (holes read
// as zeros without allocating pages), into *crc: 0, or a negative errno (-EIO when the memory
// ended early). buffer is scratch space.
int checksumRange(int fd, uint64_t offset, size_t size, uint32_t* crc,
                  std::vector<uint8_t>* buffer);

}  // namespace peer
}  // namespace vrocam
