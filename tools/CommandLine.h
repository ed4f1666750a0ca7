// SPDX-License-Identifier: Apache-2.0
// What the tools share in reading their command lines (getopt_long): values checked and a bad
// one named in one line on stderr with exit status 2, sizes with K, M, G or T, --version.
#pragma once

#include <chrono>

namespace vrocam {
namespace tools {

class CommandLine {
 public:
  explicit CommandLine(const char* program) : mProgram(program) {}

  // Reports a problem with the command line in one line on stderr, and exits with 2.
  [[noreturn]] void fail(const char* what) const;
  // Reports option's value as not what it should be, and exits with 2.
  [[noreturn]] void bad(const char* option, const char* value, const char* expected) const;
  // The option's value as a whole number from min to max (with K, M, G or T when sizes), or
  // exits.
  unsigned long long number(const char* option, const char* value, unsigned long long min,
                            unsigned long long max, bool sizes = false) const;
  // The option's value as a duration: milliseconds, or a number with "ms" or "s"; at most max.
  std::chrono::milliseconds duration(const char* option, const char* value,
                                     std::chrono::milliseconds max) const;
  // Reports the first of argv's operands left after the options (optind on), if any, and exits.
  void noOperands(int argc, char** argv) const;
  // Reports the option getopt_long did not take, by what it returned: ':' for an option that
  // lacks its value (the option string starts with ':'), '?' for an unknown one; and exits.
  [[noreturn]] void unknown(int returned, char** argv) const;
  // Prints the program's name and the project's version, and exits with 0.
  [[noreturn]] void version() const;

 private:
  const char* mProgram;
};

}  // namespace tools
}  // namespace vrocam
