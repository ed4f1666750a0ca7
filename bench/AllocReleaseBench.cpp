// SPDX-License-Identifier: Apache-2.0
// Allocate + release of one memory through the manager (loopback client) beside the bare system
// calls; and the same on one and two threads, where the manager's one lock serialises them.
#include <mutex>

#include "BareSequence.h"

namespace vrobench {
namespace {

using NSCam::ipc::wrapper::IPCClientShmMgr;
using NSCam::ipc::wrapper::ShmMemAlloc;

void BM_Mgr_AllocRelease(benchmark::State& state) {
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  const auto id = owner(state.thread_index());
  ShmMemAlloc alloc{"bench", 1, static_cast<unsigned int>(state.range(0))};
  for (auto _ : state) {
    if (mgr->allocateShmMem(id, alloc) != 0 || mgr->releaseShmMem(id, 1) != 0) {
      state.SkipWithError("allocation or release failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

template <bool withHostCalls>
void bareAllocRelease(benchmark::State& state) {
  BareMemory memory;
  for (auto _ : state) {
    if (!bareCreate(static_cast<size_t>(state.range(0)), withHostCalls, &memory)) {
      state.SkipWithError("bare sequence failed");
      break;
    }
    bareRelease(memory);
  }
  state.SetItemsProcessed(state.iterations());
}
void BM_Bare_AllocRelease(benchmark::State& state) { bareAllocRelease<false>(state); }
void BM_BareHost_AllocRelease(benchmark::State& state) { bareAllocRelease<true>(state); }

// The bare sequence with one lock held over it, as the manager holds its lock.
void BM_BareLocked_AllocRelease(benchmark::State& state) {
  static std::mutex lock;
  BareMemory memory;
  for (auto _ : state) {
    std::lock_guard<std::mutex> guard(lock);
    if (!bareCreate(static_cast<size_t>(state.range(0)), false, &memory)) {
      state.SkipWithError("bare sequence failed");
      break;
    }
    bareRelease(memory);
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_Mgr_AllocRelease)->Arg(4096)->Arg(64 << 10)->Arg(1 << 20);
BENCHMARK(BM_Bare_AllocRelease)->Arg(4096)->Arg(64 << 10)->Arg(1 << 20);
BENCHMARK(BM_BareHost_AllocRelease)->Arg(4096)->Arg(64 << 10)->Arg(1 << 20);
// Throughput on one and two threads, each on keys of its own (items per second, real time).
BENCHMARK(BM_Mgr_AllocRelease)->Name("Threads/Mgr")->Arg(4096)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_Bare_AllocRelease)->Name("Threads/Bare")->Arg(4096)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_BareLocked_AllocRelease)
    ->Name("Threads/BareLocked")
    ->Arg(4096)
    ->ThreadRange(1, 2)
    ->UseRealTime();

}  // namespace
}  // namespace vrobench
