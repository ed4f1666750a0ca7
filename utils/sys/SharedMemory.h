// SPDX-License-Identifier: Apache-2.0
// SharedMemory: creation of an anonymous, readable and writable shared-memory region.
#pragma once

#include "VrocamExport.h"

#include <cstddef>
#include <string>

#include "FileDescriptor.h"

namespace NSCam {
namespace utils {
namespace sys {

class SharedMemory {
 public:
  SharedMemory() = delete;
  // A wrapper that owns the new region's descriptor, or holds -1 when any step failed; a failure
  // leaves no descriptor of the attempt open and is logged.
  VROCAM_API static FileDescriptor allocate(const std::string& name, size_t size);
};

}  // namespace sys
}  // namespace utils
}  // namespace NSCam
