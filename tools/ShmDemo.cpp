// SPDX-License-Identifier: Apache-2.0
// The demo: allocates, registers, looks up and releases shared memories through the manager and
// the host IPC client (the in-process loopback, or with --peer the peer daemon), showing the
// registry after each step and counting leaks.
#include <fcntl.h>
#include <getopt.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "DemoPeer.h"
#include "DemoTable.h"
#include "ErrnoText.h"
#include "ProcessSnapshot.h"
#include "SealedMemfd.h"
#include "SocketClient.h"
#include "ULogger.h"

namespace vrocam {
namespace tools {
namespace {

using NSCam::ipc::wrapper::IPC_USER;
using NSCam::ipc::wrapper::ShmMemAlloc;
using Id = IPCClientShmMgr::Identifier;

// A result as the manager gives it: -1 is its own failure, another negative value the IPC
// client's errno.
std::string resultText(int result) {
  return result == -1 ? "-1 (failed)" : result == 0 ? "0" : host::errnoText(result);
}

struct Options {
  unsigned int regions = 3;
  unsigned int size = 4096;
  std::string peer;   // the peer daemon's binary, for --peer
  std::string trace;  // where both sides write their traces, merged at the end
};

void usage(const char* program) {
  printf(
      "usage: %s [--regions N] [--size SIZE] [--peer BINARY [--trace DIR]]\n"
      "  --regions N    memories per batch, 1 to 64 (default 3)\n"
      "  --size SIZE    size of each memory, 1 to 16M, with K or M (default 4K)\n"
      "  --peer BINARY  start the peer daemon BINARY on a private socket and run against it\n"
      "  --trace DIR    the demo and its peer write their traces into DIR, and the demo merges\n"
      "                 them into DIR/demo-trace.json (for Perfetto) at the end\n"
      "  --help, --version\n"
      "Options also take the form --name=VALUE. Without --peer the demo uses the peer that\n"
      "VROCAM_IPC_SOCKET names, or else the in-process loopback client. Set vendor.debug.ipc.log\n"
      "(env vendor.debug.ipc.log=2 %s) to see the manager's log lines.\n",
      program, program);
}

Options parse(int argc, char** argv) {
  const tools::CommandLine line("vrocam_shm_demo");
  const option longOptions[] = {
      {"regions", required_argument, nullptr, 'r'},
      {"size", required_argument, nullptr, 's'},
      {"peer", required_argument, nullptr, 'p'},
      {"trace", required_argument, nullptr, 't'},
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},
      {nullptr, 0, nullptr, 0},
  };
  Options options;
  opterr = 0;
  for (int c; (c = getopt_long(argc, argv, ":h", longOptions, nullptr)) != -1;) {
    switch (c) {
      case 'r':
        options.regions = line.number("regions", optarg, 1, 64);
        break;
      case 's':
        options.size = line.number("size", optarg, 1, 16u << 20, true);
        break;
      case 'p':
        options.peer = optarg;
        break;
      case 't':
        options.trace = optarg;
        break;
      case 'h':
        usage(argv[0]);
        exit(0);
      case 'V':
        line.version();
      default:
        line.unknown(c, argv);
    }
  }
  line.noOperands(argc, argv);
  if (!options.trace.empty() && options.peer.empty()) line.fail("--trace goes with --peer");
  return options;
}

class Demo {
 public:
  // withPeer: a peer process is on the other side of the client, to cross-check with.
  Demo(const Options& options, IPCClientShmMgr& mgr, IPCClient& client, bool withPeer)
      : mOptions(options), mMgr(mgr), mClient(client), mTable(client), mWithPeer(withPeer) {}

  // Runs every step; true when every call succeeded and every memory read back its pattern.
  bool run();

 private:
  void expect(const std::string& call, int result) {
    printf("  %-58s -> %s\n", call.c_str(), resultText(result).c_str());
    if (result != 0) mOk = false;
  }
  void forEachMemory(const std::function<void(const DemoKey&, const ShmMemInfo&)>& visit);
  void allocate();
  void registerOwnMemory();
  void writeAndReadBack();
  void checkWithPeer();
  void releaseEachWay();

  const Options mOptions;
  IPCClientShmMgr& mMgr;
  IPCClient& mClient;
  DemoTable mTable;
  const bool mWithPeer;
  bool mOk = true;
  const Id mPipeline{NSCam::ipc::wrapper::IPC_USER_PIPELINE, 0, 0};
  const Id mAaa{NSCam::ipc::wrapper::IPC_USER_3A, 0, 42};
  const Id mFace{NSCam::ipc::wrapper::IPC_USER_FACE, 2, 0};
  std::vector<ShmMemAlloc> mRequests;
};

void Demo::allocate() {
  for (unsigned int i = 0; i < mOptions.regions; ++i) {
    mRequests.push_back(ShmMemAlloc{"pipeline-" + std::to_string(i), 100 + i, mOptions.size});
    mTable.track(mPipeline, 100 + i);
  }
  expect("allocateAllShmMems(pipeline, " + std::to_string(mOptions.regions) + " types)",
         mMgr.allocateAllShmMems(mPipeline, mRequests.data(), mOptions.regions));

  ShmMemAlloc stats{"isp-stats", 7, mOptions.size};
  mTable.track(Id{NSCam::ipc::wrapper::IPC_USER_ISP, 1, 0}, 7);
  expect("allocateShmMem(IPC_USER_ISP, sensor 1, type 7)",
         mMgr.allocateShmMem(NSCam::ipc::wrapper::IPC_USER_ISP, 1, stats));

  ShmMemAlloc aaa{"aaa-user-42", 3, mOptions.size};
  mTable.track(mAaa, 3);
  expect("allocateShmMem(3A, sensor 0, userId 42, type 3)", mMgr.allocateShmMem(mAaa, aaa));
  mTable.print(mMgr, "after allocation");
}

void Demo::registerOwnMemory() {
  // Memory this program made itself: a memfd sealed at its size (the peer maps nothing that could
  // shrink under it), mapped read-write. The manager frees it on release.
  auto makeOwn = [this](const std::string& name) {
    ShmMemInfo info;
    info.name = name;
    info.size = mOptions.size;
    info.fd = host::sealedMemfd(name.c_str(), mOptions.size).release();  // the manager's to free
    if (info.fd >= 0) {
      info.addr = mmap(nullptr, mOptions.size, PROT_READ | PROT_WRITE, MAP_SHARED, info.fd, 0);
    }
    return info;
  };
  ShmMemInfo single = makeOwn("face-own-single");
  ShmMemInfo out;
  out.type = 9;
  mTable.track(mFace, 9);
  expect("registerShmMem(face, type 9, own memfd)",
         mMgr.registerShmMem(mFace, 9, single.name, single.fd, single.size, single.addr, out));

  std::vector<ShmMemInfo> batch;
  for (unsigned int i = 0; i < mOptions.regions; ++i) {
    batch.push_back(makeOwn("face-own-" + std::to_string(i)));
    batch.back().type = 10;
  }
  mTable.track(mFace, 10);
  expect("registerShmMem(face, " + std::to_string(batch.size()) + " own memfds of type 10)",
         mMgr.registerShmMem(mFace, batch));
  mTable.print(mMgr, "after registering the program's own memory");
}

void Demo::forEachMemory(const std::function<void(const DemoKey&, const ShmMemInfo&)>& visit) {
  for (const DemoKey& key : mTable.keys()) {
    std::vector<ShmMemInfo> infos;
    if (mMgr.getShmInfo(infos, key.id, key.type) != 0) continue;
    for (const ShmMemInfo& info : infos) visit(key, info);
  }
}

// The byte the demo writes into a memory.
unsigned char patternOf(const ShmMemInfo& info) {
  return static_cast<unsigned char>(0x5A ^ info.handle);
}

void Demo::writeAndReadBack() {
  size_t memories = 0;
  size_t bytes = 0;
  forEachMemory([&](const DemoKey& key, const ShmMemInfo& info) {
    const unsigned char pattern = patternOf(info);
    memset(info.addr, pattern, info.size);
    ShmMemInfo found;  // looked up again by descriptor, read through the address found
    const bool same =
        mMgr.getShmInfo(found, key.id, key.type, info.fd) == 0 && found.handle == info.handle;
    const auto* data = static_cast<const unsigned char*>(found.addr);
    bool intact = same;
    for (unsigned int i = 0; intact && i < found.size; ++i) intact = data[i] == pattern;
    if (!intact) {
      printf("  pattern lost in %s (fd %d)\n", info.name.c_str(), info.fd);
      mOk = false;
    }
    ++memories;
    bytes += info.size;
  });
  printf("\n== wrote a pattern into %zu memories (%zu bytes) and read it back through lookup\n",
         memories, bytes);
}

void Demo::checkWithPeer() {
  printf("\n== the peer checksums each memory from its side, then writes a byte into all of it\n");
  forEachMemory([&](const DemoKey&, const ShmMemInfo& info) {
    if (!showPeerView(mClient, info, patternOf(info))) mOk = false;
  });
}

void Demo::releaseEachWay() {
  std::vector<ShmMemInfo> own;
  mMgr.getShmInfo(own, mFace, 10);
  if (!own.empty()) {
    expect("releaseShmMem(face, type 10, fd " + std::to_string(own[0].fd) + ")",
           mMgr.releaseShmMem(mFace, 10, true, own[0].fd));
    mTable.print(mMgr, "after releasing one descriptor");
  }

  expect("releaseShmMem(IPC_USER_ISP, sensor 1, type 7)",
         mMgr.releaseShmMem(NSCam::ipc::wrapper::IPC_USER_ISP, 1, 7));
  mTable.print(mMgr, "after releasing one type");

  const unsigned int listed = mOptions.regions < 2 ? mOptions.regions : 2;
  expect("releaseShmMem(pipeline, first " + std::to_string(listed) + " requests)",
         mMgr.releaseShmMem(mPipeline, mRequests.data(), listed));
  mTable.print(mMgr, "after releasing a list of requests");

  std::vector<unsigned int> types;
  for (unsigned int i = listed; i < mOptions.regions; ++i) types.push_back(100 + i);
  expect("releaseShmMem(pipeline, " + std::to_string(types.size()) + " more types)",
         mMgr.releaseShmMem(mPipeline, types));
  mTable.print(mMgr, "after releasing several types at once");

  ShmMemInfo kept;
  if (mMgr.getShmInfo(kept, mFace, 9, -1) == 0) {
    expect("releaseShmMem(face, type 9, bReleaseBuf false)",
           mMgr.releaseShmMem(mFace, 9, false, -1));
    expect("releaseShmMem(size, fd, addr) on what the caller kept",
           mMgr.releaseShmMem(static_cast<int>(kept.size), kept.fd, kept.addr));
    mTable.print(mMgr, "after a release that left the buffer to the caller");
  }

  expect("releaseAllShmMems()", mMgr.releaseAllShmMems());
  if (mTable.print(mMgr, "after releasing everything") != 0) mOk = false;
}

bool Demo::run() {
  allocate();
  registerOwnMemory();
  writeAndReadBack();
  if (mWithPeer) checkWithPeer();
  releaseEachWay();
  return mOk;
}

}  // namespace
}  // namespace tools
}  // namespace vrocam

int main(int argc, char** argv) {
  const vrocam::tools::Options options = vrocam::tools::parse(argc, argv);
  // Setting the property asks for the manager's detail lines: open the details level for them.
  if (getenv("vendor.debug.ipc.log") != nullptr && getenv("VROCAM_LOG_LEVEL") == nullptr) {
    NSCam::Utils::ULog::ULogger::sDetailsLevel = 5;
  }
  (void)setvbuf(stdout, nullptr, _IOLBF, 0);  // keep table rows between log lines

  vrocam::tools::DemoPeer peer;
  if (!options.trace.empty()) setenv("VROCAM_IPC_TRACE", options.trace.c_str(), 1);
  if (!options.peer.empty() && !peer.start(options.peer, options.trace)) return 1;
  const char* socket = getenv("VROCAM_IPC_SOCKET");
  const bool withPeer = socket != nullptr && *socket != '\0';
  if (options.peer.empty()) {
    printf("== IPC client: %s\n",
           withPeer ? ("the peer at " + std::string(socket) + " (VROCAM_IPC_SOCKET)").c_str()
                    : "the in-process loopback (no peer process; VROCAM_IPC_SOCKET is unset)");
  }
  vrocam::tools::IPCClientShmMgr* mgr = vrocam::tools::IPCClientShmMgr::getInstance();
  NSCam::ipc::wrapper::IPCClient* client =
      NSCam::ipc::wrapper::IPCClientFactory::getInstance(NSCam::ipc::wrapper::IPC_PLATFORM_DEFAULT);
  if (client == nullptr) {  // the factory gives none while the peer does not answer: why not
    const int err = NSCam::ipc::wrapper::SocketClient::shared()->waitForPeer(0);
    fprintf(stderr, "vrocam_shm_demo: no IPC client: the peer at %s: %s\n", socket,
            vrocam::host::errnoText(err).c_str());
    return 1;
  }

  using vrocam::host::ProcessSnapshot;
  const ProcessSnapshot before = ProcessSnapshot::of();
  vrocam::tools::Demo demo(options, *mgr, *client, withPeer);
  const bool ok = demo.run();
  const ProcessSnapshot after = ProcessSnapshot::of();

  const auto fdLeaks = static_cast<int>(after.descriptors.size() - before.descriptors.size());
  const auto mapLeaks =
      static_cast<int>(after.memfdMappings().size() - before.memfdMappings().size());
  printf("\n== summary: %s; leaked descriptors: %d, leaked mappings: %d",
         ok ? "every step succeeded" : "a step FAILED", fdLeaks, mapLeaks);
  // After the release of everything the peer holds nothing of this process.
  const long held = vrocam::tools::DemoTable(*client).peerHoldings();
  bool peerOk = held == 0;
  if (!options.peer.empty()) {
    const int exitCode = peer.stop();
    printf("; the peer holds %ld memories and exited with %d", held, exitCode);
    peerOk = peerOk && exitCode == 0;
  }
  printf("\n");
  if (!options.trace.empty()) vrocam::tools::mergeDemoTrace(options.trace);
  return ok && peerOk && fdLeaks == 0 && mapLeaks == 0 ? 0 : 1;
}
