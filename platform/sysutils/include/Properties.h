// SPDX-License-Identifier: Apache-2.0
// System properties as the closed system-utilities library offers them.
#pragma once

#include <cstdint>

namespace NSCam {
namespace Utils {
namespace Properties {

// The property's value when it is a whole number in range, else default_value. Read afresh.
int32_t property_get_int32(const char* key, int32_t default_value);

}  // namespace Properties
}  // namespace Utils
}  // namespace NSCam
