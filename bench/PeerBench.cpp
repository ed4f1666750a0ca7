// SPDX-License-Identifier: Apache-2.0
// Benchmarks: a registration + deregistration through the manager, the socket client and the peer,
// beside the bare SCM_RIGHTS exchanges that any such round trip needs; and the latency of a ping
// while another client has the peer checksum 512 MiB back to back, beside a ping to an idle peer.
//
// The peer serves in this process on a thread, at a socket in a private directory that
// VROCAM_IPC_SOCKET names before the manager takes its IPC client (it keeps the first one, hence
// a program of its own). The bare server answers over a socket pair: 'S' closes the descriptor it
// got (one exchange); 'R' maps it and 'D' unmaps and closes it, as a registration and a
// deregistration must at least do, without the peer's checks.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "IPCClientShmMgr.h"
#include "Mapping.h"
#include "Packet.h"
#include "PeerCommands.h"
#include "PeerServer.h"
#include "PrivateDirectory.h"
#include "SealedMemfd.h"
#include "SocketClient.h"

namespace {

using NSCam::ipc::wrapper::IPCClientShmMgr;
using NSCam::ipc::wrapper::ShmMemInfo;
using vrocam::host::UniqueFd;

const IPCClientShmMgr::Identifier kOwner{NSCam::ipc::wrapper::IPC_USER_ISP, 0, 0};
std::string gSocket;  // the peer's

// A memfd sealed as the host ashmem seals regions, mapped read-write, kept for every iteration.
struct Region {
  explicit Region(size_t size)
      : fd(vrocam::host::sealedMemfd("vrocam-bench", size)),
        size(size),
        mapping(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0), size) {
    if (!fd || !mapping) abort();
  }
  UniqueFd fd;
  size_t size;
  vrocam::host::Mapping mapping;
};

void BM_ManagerRegisterDeregister(benchmark::State& state) {
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  const Region region(static_cast<size_t>(state.range(0)));
  const auto size = static_cast<unsigned int>(region.size);
  ShmMemInfo out;
  for (auto _ : state) {
    // The release leaves the buffer to the caller, so that the next iteration registers it again.
    if (mgr->registerShmMem(kOwner, 1, "bench", region.fd.get(), size, region.mapping.data(),
                            out) != 0 ||
        mgr->releaseShmMem(kOwner, 1, false, region.fd.get()) != 0) {
      state.SkipWithError("registration or release failed");
      break;
    }
  }
}
BENCHMARK(BM_ManagerRegisterDeregister)->Arg(4096)->Arg(1 << 20)->UseRealTime();

// The bare server's end of a socket pair, served on a thread until the pair is closed.
class BareServer {
 public:
  BareServer() {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) abort();
    mClient.reset(pair[0]);
    mThread = std::thread(serve, UniqueFd(pair[1]));
  }
  ~BareServer() {
    shutdown(mClient.get(), SHUT_RDWR);
    mThread.join();
  }
  // Sends a one-byte request, with fd unless it is -1, and waits for the answer.
  bool ask(char request, int fd) {
    if (vrocam::peer::sendPacket(mClient.get(), &request, 1, &fd, fd < 0 ? 0 : 1) != 0)
      return false;
    vrocam::peer::Received received;
    char answer = 0;
    return vrocam::peer::recvPacket(mClient.get(), &answer, 1, &received) == 1 && answer == request;
  }

 private:
  static void serve(UniqueFd sock) {
    char buffer[64];
    vrocam::peer::Received received;
    vrocam::host::Mapping mapped;
    UniqueFd kept;
    while (vrocam::peer::recvPacket(sock.get(), buffer, sizeof(buffer), &received) > 0) {
      struct stat st {};
      if (buffer[0] == 'R' && !received.fds.empty() && fstat(received.fds[0].get(), &st) == 0) {
        const auto size = static_cast<size_t>(st.st_size);
        mapped = vrocam::host::Mapping(
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, received.fds[0].get(), 0),
            size);
        kept = std::move(received.fds[0]);
      } else if (buffer[0] == 'D') {
        mapped = vrocam::host::Mapping();
        kept.reset();
      }  // 'S': the received descriptor is closed with `received`
      if (vrocam::peer::sendPacket(sock.get(), buffer, 1, nullptr, 0) != 0) break;
    }
  }

  UniqueFd mClient;
  std::thread mThread;
};

void BM_BareScmRightsRoundTrip(benchmark::State& state) {
  BareServer server;
  const Region region(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    if (!server.ask('S', region.fd.get())) state.SkipWithError("exchange failed");
  }
}
BENCHMARK(BM_BareScmRightsRoundTrip)->Arg(4096)->Arg(1 << 20)->UseRealTime();

void BM_BareRegisterDeregister(benchmark::State& state) {
  BareServer server;
  const Region region(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    if (!server.ask('R', region.fd.get()) || !server.ask('D', -1)) {
      state.SkipWithError("exchange failed");
    }
  }
}
BENCHMARK(BM_BareRegisterDeregister)->Arg(4096)->Arg(1 << 20)->UseRealTime();

// A raw connection to the peer, asking one request at a time.
class Asker {
 public:
  Asker() {
    if (vrocam::peer::connectTo(gSocket, 2000, &mSock) != 0) abort();
  }
  // 0, or the error of the exchange or the answer.
  int ask(vrocam::peer::Request& request, const int* fds = nullptr, size_t fdCount = 0) {
    request.seq = ++mSeq;
    const size_t size = vrocam::peer::encodeRequest(mBuffer, sizeof(mBuffer), request);
    vrocam::peer::Answer answer;
    int closing = 0;
    int err = vrocam::peer::sendPacket(mSock.get(), mBuffer, size, fds, fdCount);
    if (err == 0) {
      err = vrocam::peer::awaitAnswer(mSock.get(), mBuffer, sizeof(mBuffer),
                                      static_cast<uint16_t>(request.kind), request.seq,
                                      vrocam::peer::after(60000), &answer, &closing);
    }
    return err != 0 ? err : answer.status;
  }

 private:
  UniqueFd mSock;
  uint32_t mSeq = 0;
  uint8_t mBuffer[vrocam::peer::kMaxMessage];
};

// Pings the peer, each ping an iteration; reports the 50th and 99th percentiles of their latency.
// With busy, another client has the peer checksum a 512 MiB memory back to back meanwhile.
void pingLatency(benchmark::State& state, bool busy) {
  std::atomic<bool> stop{false}, started{false};
  std::thread checksummer;
  if (busy) {
    checksummer = std::thread([&] {
      const Region memory(512u << 20);
      memset(memory.mapping.data(), 0x5A, memory.size);  // pages to read, not holes
      Asker asker;
      vrocam::peer::Request request;
      request.kind = vrocam::peer::Kind::Register;
      request.records = {vrocam::peer::Record{1, 0, static_cast<int64_t>(memory.size), "busy"}};
      const int fd = memory.fd.get();
      if (asker.ask(request, &fd, 1) != 0) abort();
      request.kind = vrocam::peer::Kind::Checksum;
      request.handle = 1;
      started = true;
      while (!stop) {
        if (asker.ask(request) != 0) abort();
      }
    });
    while (!started) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // the checksum is under way
  }
  Asker pinger;
  vrocam::peer::Request ping;
  std::vector<double> latencies;
  for (auto _ : state) {
    const auto start = vrocam::peer::Clock::now();
    if (pinger.ask(ping) != 0) state.SkipWithError("ping failed");
    latencies.push_back(
        std::chrono::duration<double, std::micro>(vrocam::peer::Clock::now() - start).count());
  }
  stop = true;
  if (checksummer.joinable()) checksummer.join();
  std::sort(latencies.begin(), latencies.end());
  state.counters["p50_us"] = latencies[latencies.size() / 2];
  state.counters["p99_us"] = latencies[latencies.size() * 99 / 100];
}

void BM_PingIdlePeer(benchmark::State& state) { pingLatency(state, false); }
BENCHMARK(BM_PingIdlePeer)->Iterations(2000)->UseRealTime();

void BM_PingPeerBusyWithAChecksum(benchmark::State& state) { pingLatency(state, true); }
BENCHMARK(BM_PingPeerBusyWithAChecksum)->Iterations(2000)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);  // --help ends here, before anything is made
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  const vrocam::peer::PrivateDirectory dir("/tmp/vrocam-bench-");
  if (dir.path().empty()) return 1;
  gSocket = dir.socket();
  setenv("VROCAM_IPC_SOCKET", gSocket.c_str(), 1);
  const UniqueFd stop(eventfd(0, EFD_CLOEXEC));
  int failed = 0;
  {
    vrocam::peer::PeerServer peer(vrocam::peer::ServerLimits{});
    failed = peer.listen(gSocket);
    std::thread serving;
    if (failed == 0) serving = std::thread([&] { failed = peer.run(stop.get()); });
    if (failed == 0) benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // Everything was deregistered again: the peer holds nothing for this process.
    NSCam::ipc::wrapper::PeerHoldings held{};
    if (failed == 0 && (NSCam::ipc::wrapper::SocketClient::shared()->sendCommand(
                            NSCam::ipc::wrapper::PEER_COMMAND_HOLDINGS, &held, sizeof(held)) != 0 ||
                        held.memories != 0)) {
      failed = 1;
    }
    const uint64_t one = 1;
    if (write(stop.get(), &one, sizeof(one)) != sizeof(one)) abort();
    if (serving.joinable()) serving.join();
  }
  return failed == 0 ? 0 : 1;
}
