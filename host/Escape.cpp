// SPDX-License-Identifier: Apache-2.0
// Escaping of control characters.
#include "Escape.h"

#include <cstdio>
#include <cstring>

namespace vrocam {
namespace host {

size_t escapeInto(char* out, size_t capacity, const char* text, size_t length) {
  size_t used = 0;
  for (size_t i = 0; i < length; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    char escape[5] = {static_cast<char>(c)};
    size_t size = 1;
    if (c == '\n' || c == '\r' || c == '\t') {
      escape[0] = '\\';
      escape[1] = c == '\n' ? 'n' : c == '\r' ? 'r' : 't';
      size = 2;
    } else if (c < 0x20 || c == 0x7F) {
      snprintf(escape, sizeof(escape), "\\x%02x", c);
      size = 4;
    }
    if (capacity - used < size) break;
    memcpy(out + used, escape, size);
    used += size;
  }
  return used;
}

std::string escaped(const std::string& text) {
  std::string out(text.size() * 4, '\0');
  out.resize(escapeInto(&out[0], out.size(), text.data(), text.size()));
  return out;
}

}  // namespace host
}  // namespace vrocam
