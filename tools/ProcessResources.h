// SPDX-License-Identifier: Apache-2.0
// What this process holds: open descriptors and shared-memory (memfd) mappings, read from /proc.
#pragma once

namespace vrodemo {

struct ProcessResources {
  int descriptors = 0;
  int sharedMappings = 0;

  static ProcessResources now();
};

}  // namespace vrodemo
