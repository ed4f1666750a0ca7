// SPDX-License-Identifier: Apache-2.0
// The demo's peer daemon.
#include "DemoPeer.h"

#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "PeerCommands.h"
#include "PeerWire.h"

namespace vrodemo {

using namespace NSCam::ipc::wrapper;

DemoPeer::~DemoPeer() {
  stop();
  if (mDir.empty()) return;
  unlink((mDir + "/peer.sock").c_str());
  rmdir(mDir.c_str());
}

bool DemoPeer::start(const std::string& binary) {
  char dir[] = "/tmp/vrocam-demo-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    perror("mkdtemp");
    return false;
  }
  mDir = dir;
  const std::string socket = mDir + "/peer.sock";
  vropeer::PeerLaunch launch;
  launch.command = {binary};
  launch.socket = socket;
  const int err = mProcess.start(launch);
  if (err != 0) {
    fprintf(stderr, "cannot start the peer %s: %s\n", binary.c_str(), strerror(-err));
    return false;
  }
  setenv("VROCAM_IPC_SOCKET", socket.c_str(), 1);
  printf("== peer daemon pid %d serving %s\n", static_cast<int>(mProcess.pid()), socket.c_str());
  return true;
}

int DemoPeer::stop() {
  const int status = mProcess.stop(SIGTERM);
  return status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool showPeerView(IPCClient& client, const ShmMemInfo& info, unsigned char written) {
  const std::vector<unsigned char> expected(info.size, written);
  PeerChecksum checksum{info.handle, 0, 0};
  const int asked = client.sendCommand(PEER_COMMAND_CHECKSUM, &checksum, sizeof(checksum));
  const bool sees =
      asked == 0 && checksum.bytes == info.size &&
      checksum.crc32 == static_cast<uint32_t>(crc32_z(0, expected.data(), expected.size()));

  const auto theirs = static_cast<unsigned char>(written ^ 0xFF);
  PeerFill fill{info.handle, theirs};
  const int filled = client.sendCommand(PEER_COMMAND_FILL, &fill, sizeof(fill));
  const auto* data = static_cast<const unsigned char*>(info.addr);
  bool arrived = filled == 0;
  for (unsigned int i = 0; arrived && i < info.size; ++i) arrived = data[i] == theirs;

  printf("  handle %3d %-16s peer checksum %08x %s ours (%d); peer wrote 0x%02x: %s (%d)\n",
         info.handle, info.name.c_str(), checksum.crc32, sees ? "==" : "!=", asked, theirs,
         arrived ? "read back through our mapping" : "NOT seen here", filled);
  return sees && arrived;
}

}  // namespace vrodemo
