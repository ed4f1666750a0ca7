// SPDX-License-Identifier: Apache-2.0
// Benchmarks of the trace: a registration plus deregistration through the socket client and a
// peer (served on a thread), both traced into a private directory, beside the same untraced; and
// what tracing off costs an exchange.
#include <benchmark/benchmark.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "ClientTrace.h"
#include "PeerBenchSupport.h"
#include "PeerServer.h"
#include "PrivateDirectory.h"
#include "SocketClient.h"
#include "TraceFile.h"

namespace vrocam {
namespace bench {
namespace {

using NSCam::ipc::wrapper::ShmMemInfo;
using NSCam::ipc::wrapper::SocketClient;

void roundTrip(benchmark::State& state, bool traced) {
  const peer::PrivateDirectory dir("/tmp/vrocam-bench-");
  const std::string socket = dir.path() + "/traced.sock";
  const host::UniqueFd stop(eventfd(0, EFD_CLOEXEC));
  std::unique_ptr<trace::TraceFile> clientTrace;
  {
    peer::PeerServer server(peer::ServerLimits{});
    if (traced) server.traceTo(dir.path(), "bench peer", trace::TraceLimits{});
    if (server.listen(socket) != 0) return state.SkipWithError("the peer did not listen");
    std::thread serving([&] { server.run(stop.get()); });
    if (traced) {
      clientTrace = trace::TraceFile::open(dir.path(), "client", "bench", {}, nullptr);
      NSCam::ipc::wrapper::setClientTrace(clientTrace.get());
    }
    {
      SocketClient client(socket, 2000);
      const Region region(4096);
      ShmMemInfo info("bench", 0, 4096, region.fd.get(), region.mapping.data(), 1);
      for (auto _ : state) {
        if (client.registerShm(info) != 0 || client.deregisterShms({info}) != 0) {
          state.SkipWithError("registration or release failed");
          break;
        }
      }
    }
    NSCam::ipc::wrapper::setClientTrace(nullptr);
    const uint64_t one = 1;
    if (write(stop.get(), &one, sizeof(one)) != sizeof(one)) abort();
    serving.join();
  }
  clientTrace.reset();  // the directory goes with its files: the traces and the socket
}

void BM_ClientRoundTripUntraced(benchmark::State& state) { roundTrip(state, false); }
void BM_ClientRoundTripTraced(benchmark::State& state) { roundTrip(state, true); }
BENCHMARK(BM_ClientRoundTripUntraced)->UseRealTime();
BENCHMARK(BM_ClientRoundTripTraced)->UseRealTime();

// What tracing off adds to each exchange: the question whether to trace, beside nothing.
void BM_ClientTraceOffQuestion(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(NSCam::ipc::wrapper::clientTrace());
}
void BM_ClientTraceOffBaseline(benchmark::State& state) {
  trace::TraceFile* none = nullptr;
  for (auto _ : state) benchmark::DoNotOptimize(none);
}
BENCHMARK(BM_ClientTraceOffQuestion);
BENCHMARK(BM_ClientTraceOffBaseline);

}  // namespace
}  // namespace bench
}  // namespace vrocam
