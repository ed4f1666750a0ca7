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

namespace {

// The length of the UTF-8 sequence of a printable character at text (left bytes on), or 0 for a
// control byte, a C1 control or a byte that starts no valid sequence.
size_t printableAt(const unsigned char* text, size_t left) {
  const unsigned char c = text[0];
  if (c < 0x80) return c < 0x20 || c == 0x7F ? 0 : 1;
  const size_t length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
  if (length == 0 || c > 0xF4 || left < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((text[i] & 0xC0) != 0x80) return 0;
  }
  const unsigned char second = text[1];
  if ((c == 0xE0 && second < 0xA0) || (c == 0xED && second > 0x9F) ||  // overlong, surrogates
      (c == 0xF0 && second < 0x90) || (c == 0xF4 && second > 0x8F) ||  // overlong, beyond U+10FFFF
      (c == 0xC2 && second < 0xA0)) {                                  // C1 controls
    return 0;
  }
  return length;
}

// text with what printableAt takes as it is, other bytes written by escape, and with quote, when
// not 0, and backslashes escaped by a backslash.
template <typename Escape>
std::string rewritten(const std::string& text, char quote, Escape escape) {
  std::string out;
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  for (size_t i = 0; i < text.size();) {
    const size_t length = printableAt(bytes + i, text.size() - i);
    if (length == 0) {
      escape(bytes[i++], &out);
      continue;
    }
    if (quote != 0 && (bytes[i] == quote || bytes[i] == '\\')) out += '\\';
    out.append(text, i, length);
    i += length;
  }
  return out;
}

}  // namespace

std::string printable(const std::string& text) {
  return rewritten(text, 0, [](unsigned char c, std::string* out) {
    char escape[5];
    snprintf(escape, sizeof(escape), "\\x%02x", c);
    *out += c == '\n' ? "\n" : escape;
  });
}

std::string jsonQuoted(const std::string& text) {
  return "\"" +
         rewritten(text, '"',
                   [](unsigned char c, std::string* out) {
                     char escape[7];
                     snprintf(escape, sizeof(escape), "\\u%04x", c);
                     *out += escape;
                   }) +
         "\"";
}

std::string escaped(const std::string& text) {
  std::string out(text.size() * 4, '\0');
  out.resize(escapeInto(&out[0], out.size(), text.data(), text.size()));
  return out;
}

}  // namespace host
}  // namespace vrocam
