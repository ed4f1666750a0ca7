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

}  // namespace host
}  // namespace vrocam
