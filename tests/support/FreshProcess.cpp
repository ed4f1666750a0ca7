// SPDX-License-Identifier: Apache-2.0
// Fresh process: fork and exec this executable with a filter naming the current test.
#include "FreshProcess.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace vrotest {
namespace {
constexpr char kFreshVariable[] = "VROTEST_FRESH_TEST";
}

bool InFreshProcess() {
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  const std::string name = std::string(info->test_suite_name()) + "." + info->name();
  const char* fresh = getenv(kFreshVariable);
  if (fresh != nullptr && name == fresh) return true;

  const std::string filter = "--gtest_filter=" + name;
  const pid_t child = fork();
  if (child == 0) {
    setenv(kFreshVariable, name.c_str(), 1);
    execl("/proc/self/exe", "fresh-test", filter.c_str(), "--gtest_brief=1",
          static_cast<char*>(nullptr));
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
