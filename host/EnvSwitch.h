// SPDX-License-Identifier: Apache-2.0
// Switches of the host stand-ins read from the environment at start.
#pragma once

#include <cstdint>

namespace vrocam {
namespace host {

// The value of the environment variable name (decimal or 0x hex) when it is a whole number from
// min to max; fallback when it is unset or empty; fallback and one warning line naming the value
// when it is anything else.
uint32_t envSwitch(const char* name, uint32_t fallback, uint32_t min = 0,
                   uint32_t max = UINT32_MAX);

}  // namespace host
}  // namespace vrocam
