// SPDX-License-Identifier: Apache-2.0
// Benchmarks: the allocate/release cycle, lookup in a populated registry, a closed log gate.
#include <benchmark/benchmark.h>

#include <vector>

#include "IPCClientShmMgr.h"

#define LOG_TAG "Bench"
#define LOG_MODULE_ID 0x101002u
#include "GatedLog.h"

namespace {

using NSCam::ipc::wrapper::IPCClientShmMgr;
using NSCam::ipc::wrapper::ShmMemAlloc;
using NSCam::ipc::wrapper::ShmMemInfo;

const IPCClientShmMgr::Identifier kOwner{NSCam::ipc::wrapper::IPC_USER_ISP, 0, 0};

// One memory created, mapped, registered, then deregistered, unmapped and closed.
void BM_AllocateRelease(benchmark::State& state) {
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  ShmMemAlloc alloc{"bench", 1, static_cast<unsigned int>(state.range(0))};
  for (auto _ : state) {
    if (mgr->allocateShmMem(kOwner, alloc) != 0 || mgr->releaseShmMem(kOwner, 1) != 0) {
      state.SkipWithError("allocation or release failed");
      break;
    }
  }
}
BENCHMARK(BM_AllocateRelease)->Arg(4096)->Arg(1 << 20);

// The first record of one key among range(0) keys.
void BM_LookupFirst(benchmark::State& state) {
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  const auto keys = static_cast<unsigned int>(state.range(0));
  std::vector<ShmMemAlloc> allocs;
  for (unsigned int type = 0; type < keys; ++type) allocs.push_back({"lookup", type, 4096});
  if (mgr->allocateAllShmMems(kOwner, allocs.data(), keys) != 0) {
    state.SkipWithError("allocation failed");
    return;
  }
  ShmMemInfo out;
  for (auto _ : state) benchmark::DoNotOptimize(mgr->getShmInfo(out, kOwner, keys / 2, -1));
  if (mgr->releaseAllShmMems() != 0) state.SkipWithError("release failed");
}
BENCHMARK(BM_LookupFirst)->Arg(16)->Arg(1024);

// A detail line whose gate is closed: nothing may be formatted.
void BM_ClosedDetailGate(benchmark::State& state) {
  NSCam::Utils::ULog::ULogger::sDetailsLevel = 2;
  for (auto _ : state) {
    GLOG_DETAIL(true, "[%s] closed gate %d\n", __FUNCTION__, static_cast<int>(state.iterations()));
  }
}
BENCHMARK(BM_ClosedDetailGate);

}  // namespace
