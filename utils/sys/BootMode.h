// SPDX-License-Identifier: Apache-2.0
// getBootMode: the mode the device booted in, as the kernel publishes it.
#pragma once

#include "VrocamExport.h"

namespace NSCam {
namespace Utils {

// The number at the start of the kernel's boot-mode file, read afresh; 0 when it cannot be read.
VROCAM_API int getBootMode();

}  // namespace Utils
}  // namespace NSCam
