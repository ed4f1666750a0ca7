// SPDX-License-Identifier: Apache-2.0
// getShmInfo in a registry of 10 to 100,000 keys beside a bare two-level std::map find + copy
// under a std::mutex. Both look up the same pseudo-random sequence of keys.
#include <map>
#include <mutex>
#include <random>
#include <vector>

#include "BareSequence.h"

namespace vrobench {
namespace {

using NSCam::ipc::wrapper::IPCClientShmMgr;
using NSCam::ipc::wrapper::ShmMemInfo;

constexpr size_t kSequence = 4096;

std::vector<unsigned int> keySequence(unsigned int keys) {
  std::minstd_rand random(7);
  std::vector<unsigned int> types(kSequence);
  for (unsigned int& type : types) type = random() % keys;
  return types;
}

void BM_Mgr_Lookup(benchmark::State& state) {
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  const auto keys = static_cast<unsigned int>(state.range(0));
  const auto id = owner(0);
  BareMemory memory;  // one real memory, registered once under every key
  if (!bareCreate(4096, false, &memory)) return state.SkipWithError("no memory");
  std::vector<ShmMemInfo> infos;
  std::vector<unsigned int> types;
  for (unsigned int type = 0; type < keys; ++type) {
    infos.emplace_back("lookup", type, 4096, memory.fd, memory.addr, -1);
    types.push_back(type);
  }
  if (mgr->registerShmMem(id, infos) != 0) return state.SkipWithError("registration failed");
  const std::vector<unsigned int> sequence = keySequence(keys);
  ShmMemInfo out;
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(mgr->getShmInfo(out, id, sequence[i++ % kSequence], -1));
  }
  // Deregistered without unmapping: the one memory is released once, here.
  if (mgr->releaseShmMem(id, types, false) != 0) state.SkipWithError("release failed");
  bareRelease(memory);
}

struct Key {
  int user;
  unsigned int sensorIdx;
  uint64_t userId;
  unsigned int type;
  bool operator<(const Key& other) const {
    if (user != other.user) return user < other.user;
    if (sensorIdx != other.sensorIdx) return sensorIdx < other.sensorIdx;
    if (userId != other.userId) return userId < other.userId;
    return type < other.type;
  }
};

void BM_Bare_Lookup(benchmark::State& state) {
  const auto keys = static_cast<unsigned int>(state.range(0));
  std::map<Key, std::map<int, ShmMemInfo>> registry;
  std::mutex lock;
  int word = 0;
  for (unsigned int type = 0; type < keys; ++type) {
    registry[Key{10, 0, 0, type}][3] = ShmMemInfo("lookup", type, 4096, 3, &word, 1 + type);
  }
  const std::vector<unsigned int> sequence = keySequence(keys);
  ShmMemInfo out;
  size_t i = 0;
  for (auto _ : state) {
    std::lock_guard<std::mutex> guard(lock);
    auto key = registry.find(Key{10, 0, 0, sequence[i++ % kSequence]});
    if (key != registry.end() && !key->second.empty()) out = key->second.begin()->second;
    benchmark::DoNotOptimize(out);
  }
}

BENCHMARK(BM_Mgr_Lookup)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK(BM_Bare_Lookup)->Arg(10)->Arg(1000)->Arg(100000);

}  // namespace
}  // namespace vrobench
