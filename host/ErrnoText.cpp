// SPDX-License-Identifier: Apache-2.0
// errno names and texts, from the C library.
#include "ErrnoText.h"

#include <climits>
#include <cstring>

namespace vrocam {
namespace host {

namespace {

// err's number, positive; 0 for none.
int positive(int err) { return err == INT_MIN ? 0 : err < 0 ? -err : err; }

}  // namespace

std::string errnoText(int err) {
  const std::string name = errnoName(err);
  const char* text = name.empty() ? nullptr : strerrordesc_np(positive(err));
  if (text == nullptr) return std::to_string(err) + " (no errno)";
  return std::to_string(err) + " " + name + ": " + text;
}

std::string errnoName(int err) {
  const char* name = positive(err) == 0 ? nullptr : strerrorname_np(positive(err));
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
