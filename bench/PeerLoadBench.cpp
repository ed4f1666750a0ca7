// SPDX-License-Identifier: Apache-2.0
// Benchmarks: the latency of a well-behaved client's ping while another client process loads the
// peer, each beside the ping of an idle peer. The loads: a checksum of 512 MiB back to back; the
// same from 32 connections of one process; deregistrations of 2 GiB of populated memory whose last
// reference the peer holds; three clients holding 1 GiB each that disconnect together.
//
// Pings go out on a fixed schedule, one every 2 ms (more time than a slice of the peer's work
// takes), and each is timed from when it was due, so that a stall of the peer counts once for
// every ping it held up, not once in all.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "PeerBenchSupport.h"

namespace vrocam {
namespace bench {
namespace {

using peer::Clock;
using peer::Kind;

enum class Load { None, Checksum, ManyChecksums, Deregister, Disconnect };

// A memfd of size bytes with every page allocated, and no mapping of ours.
host::UniqueFd populated(size_t size) {
  host::UniqueFd fd = host::sealedMemfd("vrocam-bench-load", size);
  if (!fd || fallocate(fd.get(), 0, 0, static_cast<off_t>(size)) != 0) abort();
  return fd;
}

// Checksums of the memory from `connections` connections, each asking again as soon as it is
// answered; ready is written once they are under way. Never returns.
[[noreturn]] void checksums(size_t connections, int ready) {
  const Region memory(512u << 20);
  memset(memory.mapping.data(), 0x5A, memory.size);  // pages to read, not holes
  std::vector<std::unique_ptr<Asker>> askers;
  std::vector<pollfd> polled;
  peer::Request checksum;
  checksum.kind = Kind::Checksum;
  checksum.handle = 1;
  for (size_t i = 0; i < connections; ++i) {
    askers.push_back(std::make_unique<Asker>());
    if (registerMemory(*askers.back(), memory.fd.get(), memory.size) != 0) abort();
    if (askers.back()->post(checksum) != 0) abort();
    polled.push_back(pollfd{askers.back()->fd(), POLLIN, 0});
  }
  if (write(ready, "r", 1) != 1) abort();
  for (;;) {
    if (poll(polled.data(), polled.size(), -1) < 0) abort();
    for (size_t i = 0; i < connections; ++i) {
      if (polled[i].revents == 0) continue;
      if (askers[i]->await() != 0 || askers[i]->post(checksum) != 0) abort();
    }
  }
}

// The loading client, in a process of its own; ready is written once the load is under way.
[[noreturn]] void runLoad(Load load, int ready) {
  if (load == Load::Checksum || load == Load::ManyChecksums) {
    checksums(load == Load::Checksum ? 1 : 32, ready);
  }
  if (write(ready, "r", 1) != 1) abort();
  peer::Request deregister;
  deregister.kind = Kind::Deregister;
  deregister.handles = {1};
  for (;;) {
    // The peer is left holding the only reference: freeing means giving the pages back.
    if (load == Load::Deregister) {
      Asker asker;
      if (registerMemory(asker, populated(2ull << 30).get(), 2ull << 30) != 0) abort();
      if (asker.ask(deregister) != 0) abort();
      continue;
    }
    std::vector<std::unique_ptr<Asker>> clients;
    for (int i = 0; i < 3; ++i) {
      clients.push_back(std::make_unique<Asker>());
      if (registerMemory(*clients.back(), populated(1ull << 30).get(), 1ull << 30) != 0) abort();
    }
    clients.clear();  // all three disconnect at once
  }
}

// A load in a child process, killed with this process at the latest.
class LoadProcess {
 public:
  explicit LoadProcess(Load load) {
    if (load == Load::None) return;
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) abort();
    const pid_t parent = getpid();
    mPid = fork();
    if (mPid < 0) abort();
    if (mPid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);
      close(ready[0]);
      runLoad(load, ready[1]);
    }
    close(ready[1]);
    char byte = 0;
    if (read(ready[0], &byte, 1) != 1) abort();
    close(ready[0]);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the load is under way
  }
  ~LoadProcess() {
    if (mPid <= 0) return;
    kill(mPid, SIGKILL);
    waitpid(mPid, nullptr, 0);
  }
  LoadProcess(const LoadProcess&) = delete;
  LoadProcess& operator=(const LoadProcess&) = delete;

 private:
  pid_t mPid = -1;
};

// Pings the peer on the schedule, each ping an iteration, while load runs; reports the 50th and
// 99th percentiles of the latencies from when each ping was due.
void pingLatency(benchmark::State& state, Load load) {
  const LoadProcess other(load);
  Asker pinger;
  peer::Request ping;
  std::vector<double> latencies;
  Clock::time_point due = Clock::now();
  for (auto _ : state) {
    std::this_thread::sleep_until(due);
    if (pinger.ask(ping) != 0) state.SkipWithError("ping failed");
    latencies.push_back(std::chrono::duration<double, std::micro>(Clock::now() - due).count());
    due += std::chrono::milliseconds(2);
  }
  std::sort(latencies.begin(), latencies.end());
  state.counters["p50_us"] = latencies[latencies.size() / 2];
  state.counters["p99_us"] = latencies[latencies.size() * 99 / 100];
  state.counters["max_us"] = latencies.back();
}

void BM_PingIdlePeer(benchmark::State& state) { pingLatency(state, Load::None); }
void BM_PingWhileAnotherClientChecksums512MiB(benchmark::State& state) {
  pingLatency(state, Load::Checksum);
}
void BM_PingWhileOneProcessChecksumsOver32Connections(benchmark::State& state) {
  pingLatency(state, Load::ManyChecksums);
}
void BM_PingWhileAnotherClientDeregisters2GiB(benchmark::State& state) {
  pingLatency(state, Load::Deregister);
}
void BM_PingWhileThreeClientsHolding1GiBDisconnect(benchmark::State& state) {
  pingLatency(state, Load::Disconnect);
}
constexpr int kPings = 1500;  // 3 s
BENCHMARK(BM_PingIdlePeer)->Iterations(kPings)->UseRealTime();
BENCHMARK(BM_PingWhileAnotherClientChecksums512MiB)->Iterations(kPings)->UseRealTime();
BENCHMARK(BM_PingWhileOneProcessChecksumsOver32Connections)->Iterations(kPings)->UseRealTime();
BENCHMARK(BM_PingWhileAnotherClientDeregisters2GiB)->Iterations(kPings)->UseRealTime();
BENCHMARK(BM_PingWhileThreeClientsHolding1GiBDisconnect)->Iterations(kPings)->UseRealTime();

}  // namespace
}  // namespace bench
}  // namespace vrocam
