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

std::string errnoName(int err) {
  const int positive = err == INT_MIN ? 0 : err < 0 ? -err : err;
  const char* name = positive == 0 ? nullptr : strerrorname_np(positive);
  return name == nullptr ? "" : name;
}

int errnoNamed(const std::string& name) {
  for (int err = 1; err < 4096; ++err) {
    const char* known = strerrorname_np(err);
    if (known != nullptr && name == known) return err;
  }
  return 0;
}

}  // namespace host
}  // namespace vrocam
