// SPDX-License-Identifier: Apache-2.0
// Mapping: munmap when done.
#include "Mapping.h"

#include <sys/mman.h>

namespace vrocam {
namespace host {

Mapping::Mapping(void* addr, size_t length)
    : mAddr(addr == MAP_FAILED ? nullptr : addr), mLength(length) {}

Mapping::Mapping(Mapping&& other) noexcept : mAddr(other.mAddr), mLength(other.mLength) {
  other.mAddr = nullptr;
}

Mapping& Mapping::operator=(Mapping&& other) noexcept {
  if (this != &other) {
    if (mAddr != nullptr) munmap(mAddr, mLength);
    mAddr = other.mAddr;
    mLength = other.mLength;
    other.mAddr = nullptr;
  }
  return *this;
}

Mapping::~Mapping() {
  if (mAddr != nullptr) munmap(mAddr, mLength);
}

}  // namespace host
}  // namespace vrocam
