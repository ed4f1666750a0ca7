// SPDX-License-Identifier: Apache-2.0
// Host only: a hook that receives what log_dbg_print is given instead of printing it.
#pragma once

#include <cstdarg>

#include "DebugPrint.h"

using DebugPrintHook = void (*)(const char* tag, cam_debug_level_t level, const char* format,
                                va_list args);

// Installs hook (null: print to stderr again) and returns the one it replaces.
DebugPrintHook host_set_debug_print_hook(DebugPrintHook hook);
