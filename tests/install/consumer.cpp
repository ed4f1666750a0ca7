// SPDX-License-Identifier: Apache-2.0
// Built against an installed package: allocates one memory through the manager, checks that it is
// mapped, releases everything and checks that no descriptor or mapping of it is left. 0 on success.
#include <sys/mman.h>

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

static int fail(const char* what) {
  std::fprintf(stderr, "consumer: %s\n", what);
  return 1;
}

int main() {
#ifdef VROCAM_CONSUMER_HOST
  if (SocketClient::shared() != nullptr) return fail("a socket client without VROCAM_IPC_SOCKET");
#endif
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  const long before = openDescriptors();
  ShmMemAlloc alloc{"consumer", 7, 4096};
  ShmMemInfo info;
  if (mgr->allocateShmMem(IPC_USER_PIPELINE, 0, alloc) != 0 ||
      mgr->getShmInfo(info, IPC_USER_PIPELINE, 0, 7, -1) != 0 || !mapped(info)) {
    return fail("allocation failed");
  }
  if (mgr->releaseAllShmMems() != 0 || mapped(info) || openDescriptors() != before) {
    return fail("the release left memory behind");
  }
  return 0;
}
