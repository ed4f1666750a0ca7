// SPDX-License-Identifier: Apache-2.0
// Release of everything beside a munmap + close loop over as many memories; and allocating then
// releasing N memories, whose cost per memory should grow with N no more than the bare calls'.
#include <string>
#include <vector>

#include "BareSequence.h"

namespace vrobench {
namespace {

using NSCam::ipc::wrapper::IPCClientShmMgr;
using NSCam::ipc::wrapper::ShmMemAlloc;

std::vector<ShmMemAlloc> requests(size_t count) {
  std::vector<ShmMemAlloc> allocs;
  for (unsigned int type = 0; type < count; ++type) allocs.push_back({"bench", type, 4096});
  return allocs;
}

void BM_Mgr_ReleaseAll(benchmark::State& state) {
  raiseDescriptorLimit();
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  std::vector<ShmMemAlloc> allocs = requests(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    const int allocated =
        mgr->allocateAllShmMems(owner(0), allocs.data(), static_cast<unsigned int>(allocs.size()));
    state.ResumeTiming();
    if (allocated != 0 || mgr->releaseAllShmMems() != 0) {
      state.SkipWithError("allocation or release failed");
      break;
    }
  }
}

void BM_Bare_ReleaseAll(benchmark::State& state) {
  raiseDescriptorLimit();
  std::vector<BareMemory> memories(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    for (BareMemory& memory : memories) {
      if (!bareCreate(4096, false, &memory)) state.SkipWithError("bare sequence failed");
    }
    state.ResumeTiming();
    for (const BareMemory& memory : memories) bareRelease(memory);
  }
}

void BM_Mgr_AllocAllRelease(benchmark::State& state) {
  raiseDescriptorLimit();
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  std::vector<ShmMemAlloc> allocs = requests(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    if (mgr->allocateAllShmMems(owner(0), allocs.data(),
                                static_cast<unsigned int>(allocs.size())) != 0 ||
        mgr->releaseAllShmMems() != 0) {
      state.SkipWithError("allocation or release failed");
      break;
    }
  }
}

void BM_Bare_AllocAllRelease(benchmark::State& state) {
  raiseDescriptorLimit();
  std::vector<BareMemory> memories(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    for (BareMemory& memory : memories) {
      if (!bareCreate(4096, true, &memory)) state.SkipWithError("bare sequence failed");
    }
    for (const BareMemory& memory : memories) bareRelease(memory);
  }
}

BENCHMARK(BM_Mgr_ReleaseAll)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Bare_ReleaseAll)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Mgr_AllocAllRelease)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Bare_AllocAllRelease)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace vrobench
