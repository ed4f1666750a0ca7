// SPDX-License-Identifier: Apache-2.0
// Benchmarks: a registration + deregistration through the manager, the socket client and the peer,
// beside the bare SCM_RIGHTS exchanges that any such round trip needs (the latency of a ping under
// load is in PeerLoadBench.cpp).
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

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "IPCClientShmMgr.h"
#include "PeerBenchSupport.h"
#include "PeerCommands.h"
#include "PeerServer.h"
#include "PrivateDirectory.h"
#include "SocketClient.h"

namespace vrocam {
namespace bench {

std::string gSocket;

namespace {

using NSCam::ipc::wrapper::IPCClientShmMgr;
using NSCam::ipc::wrapper::ShmMemInfo;
using vrocam::host::UniqueFd;

const IPCClientShmMgr::Identifier kOwner{NSCam::ipc::wrapper::IPC_USER_ISP, 0, 0};

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

}  // namespace
}  // namespace bench
}  // namespace vrocam

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);  // --help ends here, before anything is made
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  const vrocam::peer::PrivateDirectory dir("/tmp/vrocam-bench-");
  if (dir.path().empty()) return 1;
  vrocam::bench::gSocket = dir.socket();
  setenv("VROCAM_IPC_SOCKET", dir.socket().c_str(), 1);
  const vrocam::host::UniqueFd stop(eventfd(0, EFD_CLOEXEC));
  int failed = 0;
  {
    vrocam::peer::PeerServer peer(vrocam::peer::ServerLimits{});
    failed = peer.listen(dir.socket());
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
