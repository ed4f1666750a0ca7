// SPDX-License-Identifier: Apache-2.0
// The logging front end: closed gates beside an empty loop, and an open detail line with only the
// unified logger on (its sink dropping the line) beside one snprintf of the same line.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>

#define LOG_TAG "IPCClientShmMgr"
#define LOG_MODULE_ID 0x101002u
#include "GatedLog.h"

namespace vrobench {
namespace {

using NSCam::Utils::ULog::ULogger;

// The manager's verbosity as the manager keeps it.
std::atomic<int> gDbgLog{0};
int dbgLog() { return gDbgLog.load(std::memory_order_relaxed); }

// The manager's allocation detail line, logged through the front end or formatted bare.
#define ALLOCATION_FORMAT \
  "[%s] [User:%d, Sensor:%u, UserId:%llu] shmMemType:%d, name:%s, size:%d, handle:%d\n"
#define ALLOCATION_ARGS(state) \
  __FUNCTION__, 1, 2u, 3ull, 4, "frame", 4096, static_cast<int>(state.iterations() & 0xFFFF)
#define LOG_ALLOCATION_LINE(state) \
  GLOG_DETAIL(dbgLog() != 0, ALLOCATION_FORMAT, ALLOCATION_ARGS(state))

class DroppingLogger : public ULogger {
 public:
  void onLogMessage(uint32_t, const char*, int, const char*, int) override {}
};

// Sets the switches for one benchmark and puts them back after it.
class Switches {
 public:
  Switches(uint32_t level, uint32_t mode, int dbgLog)
      : mLevel(ULogger::sDetailsLevel), mMode(ULogger::sMode), mLogger(ULogger::sULogger) {
    static DroppingLogger dropping;
    ULogger::sDetailsLevel = level;
    ULogger::sNormalDetailsMask = 0xFFFFFFFFu;
    ULogger::sMode = mode;
    ULogger::sULogger = &dropping;
    gDbgLog = dbgLog;
  }
  ~Switches() {
    ULogger::sDetailsLevel = mLevel;
    ULogger::sMode = mMode;
    ULogger::sULogger = mLogger;
  }

 private:
  uint32_t mLevel;
  uint32_t mMode;
  ULogger* mLogger;
};

void BM_Bare_EmptyLoop(benchmark::State& state) {
  for (auto _ : state) benchmark::ClobberMemory();
}

void BM_Mgr_ClosedLevelGate(benchmark::State& state) {
  Switches switches(4, 0x2, 1);
  for (auto _ : state) {
    LOG_ALLOCATION_LINE(state);
    benchmark::ClobberMemory();
  }
}

void BM_Mgr_ClosedDbgLogGate(benchmark::State& state) {
  Switches switches(5, 0x2, 0);
  for (auto _ : state) {
    LOG_ALLOCATION_LINE(state);
    benchmark::ClobberMemory();
  }
}

void BM_Mgr_OpenDetailLine(benchmark::State& state) {
  Switches switches(5, 0x2, 1);
  for (auto _ : state) {
    LOG_ALLOCATION_LINE(state);
    benchmark::ClobberMemory();
  }
}

void BM_Bare_Snprintf(benchmark::State& state) {
  char buffer[1024];
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        snprintf(buffer, sizeof(buffer), ALLOCATION_FORMAT, ALLOCATION_ARGS(state)));
    benchmark::ClobberMemory();
  }
}

BENCHMARK(BM_Bare_EmptyLoop);
BENCHMARK(BM_Mgr_ClosedLevelGate);
BENCHMARK(BM_Mgr_ClosedDbgLogGate);
BENCHMARK(BM_Mgr_OpenDetailLine);
BENCHMARK(BM_Bare_Snprintf);

}  // namespace
}  // namespace vrobench
