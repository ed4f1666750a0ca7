// SPDX-License-Identifier: Apache-2.0
// An errno as the host tools, the peer and the stand-ins print it: "-28 ENOSPC: No space left on
// device", so that a reader sees the number, its name and its meaning at once.
#pragma once

#include <string>

namespace vrocam {
namespace host {

// err as given (negative or positive) with its name and text; a number that is no errno is
// printed as a number only, with "(no errno)".
std::string errnoText(int err);
// err's name ("ENOSPC" for 28 or -28), or "" when it is no errno.
std::string errnoName(int err);
// The positive errno whose name is name (ENOSPC: 28), or 0 when there is none.
int errnoNamed(const std::string& name);

}  // namespace host
}  // namespace vrocam
