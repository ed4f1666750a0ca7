// SPDX-License-Identifier: Apache-2.0
// The trace of this process's calls to the peer (see trace/TraceFile.h): written when
// VROCAM_IPC_TRACE names a directory, as client-PID.json in it, with at most VROCAM_IPC_TRACE_LIMIT
// events (default 200000), keeping the first or, with VROCAM_IPC_TRACE_KEEP=newest, the newest.
#pragma once

#include "TraceFile.h"

namespace NSCam {
namespace ipc {
namespace wrapper {

// The process's trace, or null: no directory, or one whose file cannot be made (said once). A
// child after fork gets a file of its own.
vrocam::trace::TraceFile* clientTrace();

// Traces this process's calls into file instead (null: none), whatever the environment says; the
// caller keeps file alive meanwhile. For the benchmarks.
void setClientTrace(vrocam::trace::TraceFile* file);

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
