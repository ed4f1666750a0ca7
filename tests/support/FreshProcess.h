// SPDX-License-Identifier: Apache-2.0
// Runs a test against a pristine manager: the test is run again, alone, in a new process of the
// test executable, and the outer run reports that process's result.
#pragma once

#include <string>
#include <vector>

namespace vrotest {

// The emulator that runs this build's programs (qemu-user for a cross build), as the start of a
// command line; empty for a native build.
std::vector<std::string> emulatorCommand();

// True in the new process, where the test goes on; false in the outer run, after the new process
// ended (its failure, if any, has been reported).
bool InFreshProcess();

}  // namespace vrotest

// The first statement of a test that needs a manager nothing else in the process has touched.
#define RUN_IN_FRESH_PROCESS()                \
  do {                                        \
    if (!::vrotest::InFreshProcess()) return; \
  } while (0)
