// SPDX-License-Identifier: Apache-2.0
// errno names and texts, from the C library.
#include "ErrnoText.h"

#include <climits>
#include <cstring>

namespace vrocam {
namespace host {

std::string errnoText(int err) {
  const int positive = err == INT_MIN ? 0 : err < 0 ? -err : err;
  const char* name = positive == 0 ? nullptr : strerrorname_np(positive);
  const char* text = positive == 0 ? nullptr : strerrordesc_np(positive);
  if (name == nullptr || text == nullptr) return std::to_string(err) + " (no errno)";
  return std::to_string(err) + " " + name + ": " + text;
}

}  // namespace host
}  // namespace vrocam
