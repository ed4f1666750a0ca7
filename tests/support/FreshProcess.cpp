// SPDX-License-Identifier: Apache-2.0
// Fresh process: fork and exec this executable with a filter naming the current test.
#include "FreshProcess.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace vrotest {
constexpr char kFreshVariable[] = "VROTEST_FRESH_TEST";

std::vector<std::string> emulatorCommand() {
  std::vector<std::string> command;
  std::istringstream words(VROCAM_TEST_EMULATOR);
  for (std::string word; words >> word;) command.push_back(word);
  return command;
}

bool InFreshProcess() {
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  const std::string name = std::string(info->test_suite_name()) + "." + info->name();
  const char* fresh = getenv(kFreshVariable);
  if (fresh != nullptr && name == fresh) return true;

  // Under an emulator /proc/self/exe names the emulated program, which only the emulator runs.
  char self[PATH_MAX] = {};
  if (readlink("/proc/self/exe", self, sizeof(self) - 1) <= 0) ADD_FAILURE() << "no /proc/self/exe";
  std::vector<std::string> args = emulatorCommand();
  args.insert(args.end(), {self, "--gtest_filter=" + name, "--gtest_brief=1"});
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    setenv(kFreshVariable, name.c_str(), 1);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  EXPECT_GT(child, 0) << "fork failed";
  if (child > 0) {
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << name << " failed in its own process (status " << status << ")";
  }
  return false;
}

}  // namespace vrotest
