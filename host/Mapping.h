// SPDX-License-Identifier: Apache-2.0
// Mapping: the move-only owner of one mapping, unmapped when the owner goes or takes another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

namespace vrocam {
namespace host {

class Mapping {
 public:
  Mapping() = default;
  // Owns length bytes mapped at addr (MAP_FAILED or null: nothing).
  Mapping(void* addr, size_t length);
  Mapping(Mapping&& other) noexcept;
  Mapping& operator=(Mapping&& other) noexcept;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping();

  uint8_t* data() const { return static_cast<uint8_t*>(mAddr); }
  // Gives up ownership without unmapping: the caller now owns the mapping, of *length bytes.
  [[nodiscard]] uint8_t* release(size_t* length) {
    *length = mLength;
    return static_cast<uint8_t*>(std::exchange(mAddr, nullptr));
  }
  size_t size() const { return mLength; }
  explicit operator bool() const { return mAddr != nullptr; }

 private:
  void* mAddr = nullptr;
  size_t mLength = 0;
};

}  // namespace host
}  // namespace vrocam
