// SPDX-License-Identifier: Apache-2.0
// printf into a std::string, as Android's libbase offers it.
#pragma once

#include <string>

namespace vrocam {
namespace host {

// The text that printf would print for format and its arguments (at most 1023 bytes of it).
std::string StringPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace host
}  // namespace vrocam
