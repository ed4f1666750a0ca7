// SPDX-License-Identifier: Apache-2.0
// printf into a std::string.
#include "StringPrintf.h"

#include <cstdarg>
#include <cstdio>

namespace vrocam {
namespace host {

std::string StringPrintf(const char* format, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, format);
  vsnprintf(text, sizeof(text), format, ap);
  va_end(ap);
  return text;
}

}  // namespace host
}  // namespace vrocam
