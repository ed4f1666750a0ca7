// SPDX-License-Identifier: Apache-2.0
// vrocam_trace_merge: joins the traces of a directory (the peer's and the clients') into one, for
// Perfetto or the Chrome DevTools, and says which calls are not linked to their other end.
#include <getopt.h>

#include <cstdio>
#include <string>

#include "CommandLine.h"
#include "ErrnoText.h"
#include "TraceMerge.h"

namespace {

constexpr char kProgram[] = "vrocam_trace_merge";

void usage() {
  printf(
      "usage: vrocam_trace_merge [OPTION...] DIR\n"
      "Joins the traces in DIR (peer-PID.json of vrocam_ipc_peer --trace DIR, client-PID.json of\n"
      "processes run with VROCAM_IPC_TRACE=DIR) into one trace sorted by time, and names the\n"
      "calls whose flow has no other end, or more than one. Open the result in the Perfetto UI or "
      "the DevTools.\n"
      "  --out FILE   where the trace goes (default: DIR/merged.json)\n"
      "  --strict     exit with 1 when a flow has no other end, or more than one\n"
      "  --help, --version\n");
}

}  // namespace

int main(int argc, char** argv) {
  const vrocam::tools::CommandLine line(kProgram);
  const option longOptions[] = {
      {"out", required_argument, nullptr, 'o'},
      {"strict", no_argument, nullptr, 's'},
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},
      {nullptr, 0, nullptr, 0},
  };
  std::string out;
  bool strict = false;
  opterr = 0;
  for (int c; (c = getopt_long(argc, argv, ":h", longOptions, nullptr)) != -1;) {
    switch (c) {
      case 'o':
        out = optarg;
        break;
      case 's':
        strict = true;
        break;
      case 'h':
        usage();
        return 0;
      case 'V':
        line.version();
      default:
        line.unknown(c, argv);
    }
  }
  if (optind + 1 != argc) line.fail("one DIR is needed");
  const std::string dir = argv[optind];
  if (out.empty()) out = dir + "/merged.json";
  const vrocam::trace::MergeResult merged = vrocam::trace::mergeTraces(dir, out);
  if (merged.error != 0) {
    fprintf(stderr, "%s: cannot merge %s into %s: %s\n", kProgram, dir.c_str(), out.c_str(),
            vrocam::host::errnoText(merged.error).c_str());
    return 1;
  }
  printf("merged %zu events of %zu files into %s", merged.events, merged.files, out.c_str());
  if (merged.skipped != 0) printf(" (%zu lines were no event)", merged.skipped);
  if (merged.unmatched.empty()) {
    printf("; every flow has both ends\n");
    return 0;
  }
  printf("; %zu flows have no other end, or more than one:\n", merged.unmatched.size());
  for (size_t i = 0; i < merged.unmatched.size() && i < 10; ++i) {
    printf("  %s\n", merged.unmatched[i].c_str());
  }
  if (merged.unmatched.size() > 10) printf("  and %zu more\n", merged.unmatched.size() - 10);
  return strict ? 1 : 0;
}
