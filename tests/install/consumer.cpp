// SPDX-License-Identifier: Apache-2.0
// Built against an installed package: allocates one memory through the manager, checks that it is
// mapped, releases everything and checks that no descriptor or mapping of it is left. 0 on success.
#include <sys/mman.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iterator>

#include "IPCClientShmMgr.h"
#ifdef VROCAM_CONSUMER_HOST
#include "PeerCommands.h"
#include "SocketClient.h"
#endif

using namespace NSCam::ipc::wrapper;

static long openDescriptors() {
  using std::filesystem::directory_iterator;
  return std::distance(directory_iterator("/proc/self/fd"), directory_iterator());
}

static bool mapped(const ShmMemInfo& info) { return msync(info.addr, info.size, MS_ASYNC) == 0; }

int main() {
#ifdef VROCAM_CONSUMER_HOST
  // The host headers and library: without VROCAM_IPC_SOCKET there is no socket client.
  PeerHoldings holdings{};
  if (SocketClient::shared() != nullptr || holdings.memories != 0) return 1;
#endif
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  const long before = openDescriptors();
  ShmMemAlloc alloc{"consumer", 7, 4096};
  ShmMemInfo info;
  if (mgr->allocateShmMem(IPC_USER_PIPELINE, 0, alloc) != 0 ||
      mgr->getShmInfo(info, IPC_USER_PIPELINE, 0, 7, -1) != 0 || !mapped(info)) {
    std::fprintf(stderr, "consumer: allocation failed\n");
    return 2;
  }
  const bool released = mgr->releaseAllShmMems() == 0;
  const bool unmapped = !mapped(info) && errno == ENOMEM;
  if (!released || !unmapped || openDescriptors() != before) {
    std::fprintf(stderr, "consumer: release left memory behind\n");
    return 3;
  }
  return 0;
}
