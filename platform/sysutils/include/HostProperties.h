// SPDX-License-Identifier: Apache-2.0
// Host only: sets system properties inside this process (the device sets them system-wide).
#pragma once

namespace NSCam {
namespace Utils {
namespace Properties {

// Sets key to value for this process; a null value removes the in-process setting, so that the
// environment variable named like the key, or the default, applies again.
void host_property_set(const char* key, const char* value);

}  // namespace Properties
}  // namespace Utils
}  // namespace NSCam
