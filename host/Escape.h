// SPDX-License-Identifier: Apache-2.0
// The escapers of text that may come from anywhere (a name another process chose), for a log line,
// a terminal and JSON: so that the text shows as it should and forges nothing.
#pragma once

#include <cstddef>
#include <string>

namespace vrocam {
namespace host {

// Writes text, escaped, into out (at most capacity bytes), never cutting an escape: the number of
// bytes written.
size_t escapeInto(char* out, size_t capacity, const char* text, size_t length);

// text, escaped.
std::string escaped(const std::string& text);

// text as a terminal may show it, though another process made it: line breaks stay, every other
// control byte (C1 controls and DEL included) and every byte that is not UTF-8 shows as \xHH.
std::string printable(const std::string& text);

// text as a JSON string, quotes included: valid UTF-8 as it is, control bytes and bytes that are
// not UTF-8 as \u00HH.
std::string jsonQuoted(const std::string& text);

}  // namespace host
}  // namespace vrocam
