// SPDX-License-Identifier: Apache-2.0
// The merge of the traces in a directory (both sides' TraceFile files, or any file of one event
// per line) into one trace sorted by time, and what it finds out about the flows: which start in a
// client's call and end nowhere, or end in the peer and start nowhere.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vrocam {
namespace trace {

struct MergeResult {
  int error = 0;  // 0, or a negative errno (the directory, the output)
  size_t files = 0;
  size_t events = 0;
  size_t skipped = 0;  // lines that were no event
  // "client call 4711.12 has no end in a peer", or a flow id that more than one call used
  std::vector<std::string> unmatched;
};

// Merges the *.json files of dir (not out, and not files beyond 1 GiB) into out, written as
// {"traceEvents": [...]} with the metadata first and every other event in order of time; only the
// events from sinceUs to untilUs (microseconds of CLOCK_BOOTTIME) when untilUs is above 0.
MergeResult mergeTraces(const std::string& dir, const std::string& out, double sinceUs = 0,
                        double untilUs = 0);

}  // namespace trace
}  // namespace vrocam
