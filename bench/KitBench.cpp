// SPDX-License-Identifier: Apache-2.0
// Benchmarks of the test kit: starting a private peer until it is ready and stopping it, beside a
// bare fork and exec of a trivial program; and a ping to a peer with fault rules that do not match
// it, beside a ping to a peer without rules.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "PeerBenchSupport.h"
#include "vrocam/testkit/Peer.h"

namespace vrocam {
namespace bench {
namespace {

void BM_KitStartPeerUntilReadyThenStop(benchmark::State& state) {
  testkit::Peer peer;
  for (auto _ : state) {
    if (peer.start() != 0 || peer.stop() != 0) state.SkipWithError("the peer did not start");
  }
}
BENCHMARK(BM_KitStartPeerUntilReadyThenStop)->UseRealTime();

void BM_BareForkExecOfTrue(benchmark::State& state) {
  for (auto _ : state) {
    const pid_t child = fork();
    if (child == 0) {
      execl("/bin/true", "true", nullptr);
      _exit(127);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
      state.SkipWithError("fork and exec failed");
    }
  }
}
BENCHMARK(BM_BareForkExecOfTrue)->UseRealTime();

// Pings a peer of the kit that has, when rules, eight fault rules none of which matches a ping.
void pingPeer(benchmark::State& state, bool rules) {
  testkit::PeerOptions options;
  if (rules) {
    for (const char* kind : {"register", "deregister", "checksum", "fill"}) {
      options.faults.push_back(std::string(kind) + ":errno=EIO");
      options.faults.push_back(std::string(kind) + ":delay=1s:nth=1000000");
    }
  }
  testkit::Peer peer(options);
  if (peer.start() != 0) return state.SkipWithError("the peer did not start");
  Asker asker(peer.socket());
  peer::Request ping;
  for (auto _ : state) {
    if (asker.ask(ping) != 0) state.SkipWithError("ping failed");
  }
}

void BM_KitPingPeerWithoutRules(benchmark::State& state) { pingPeer(state, false); }
void BM_KitPingPeerWithRulesThatDoNotMatch(benchmark::State& state) { pingPeer(state, true); }
BENCHMARK(BM_KitPingPeerWithoutRules)->UseRealTime();
BENCHMARK(BM_KitPingPeerWithRulesThatDoNotMatch)->UseRealTime();

}  // namespace
}  // namespace bench
}  // namespace vrocam
