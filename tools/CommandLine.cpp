// SPDX-License-Identifier: Apache-2.0
// Command-line values, checked.
#include "CommandLine.h"

#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vrocam {
namespace tools {

void CommandLine::fail(const char* what) const {
  fprintf(stderr, "%s: %s (see --help)\n", mProgram, what);
  exit(2);
}

void CommandLine::bad(const char* option, const char* value, const char* expected) const {
  fail(("--" + std::string(option) + " " + value + ": " + expected).c_str());
}

unsigned long long CommandLine::number(const char* option, const char* value,
                                       unsigned long long min, unsigned long long max,
                                       bool sizes) const {
  const std::string expected = "not a whole number from " + std::to_string(min) + " to " +
                               std::to_string(max) + (sizes ? " (K, M, G and T allowed)" : "");
  char* end = nullptr;
  errno = 0;
  unsigned long long result = strtoull(value, &end, 10);
  if (errno != 0 || end == value || value[0] == '-') bad(option, value, expected.c_str());
  const char units[] = "KMGT";
  const char* unit = sizes && *end != '\0' ? strchr(units, *end) : nullptr;
  if (unit != nullptr) {
    const int shift = 10 * static_cast<int>(unit - units + 1);
    if (result > (max >> shift)) bad(option, value, expected.c_str());
    result <<= shift;
    ++end;
  }
  if (*end != '\0' || result < min || result > max) bad(option, value, expected.c_str());
  return result;
}

std::chrono::milliseconds CommandLine::duration(const char* option, const char* value,
                                                std::chrono::milliseconds max) const {
  std::string number = value;
  long long scale = 1;
  if (number.size() > 2 && number.compare(number.size() - 2, 2, "ms") == 0) {
    number.resize(number.size() - 2);
  } else if (number.size() > 1 && number.back() == 's') {
    number.pop_back();
    scale = 1000;
  }
  const std::string expected =
      "not a duration from 1 ms to " + std::to_string(max.count() / 1000) + " s (500ms, 30s)";
  char* end = nullptr;
  errno = 0;
  const long long count = strtoll(number.c_str(), &end, 10);
  if (errno != 0 || number.empty() || *end != '\0' || count < 1 || count > max.count() / scale) {
    bad(option, value, expected.c_str());
  }
  return std::chrono::milliseconds(count * scale);
}

void CommandLine::noOperands(int argc, char** argv) const {
  if (optind < argc) fail(("unexpected argument '" + std::string(argv[optind]) + "'").c_str());
}

void CommandLine::unknown(int returned, char** argv) const {
  const std::string given = argv[optind - 1];
  fail((returned == ':' ? given + " needs a value" : "unknown option '" + given + "'").c_str());
}

void CommandLine::version() const {
  printf("%s %s\n", mProgram, VROCAM_VERSION);
  exit(0);
}

}  // namespace tools
}  // namespace vrocam
