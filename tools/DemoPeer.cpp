// SPDX-License-Identifier: Apache-2.0
// The demo's peer daemon.
#include "DemoPeer.h"

#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ErrnoText.h"
#include "PeerCommands.h"
#include "PeerWire.h"
#include "TraceMerge.h"

namespace vrocam {
namespace tools {

using namespace NSCam::ipc::wrapper;

DemoPeer::DemoPeer() : mDir("/tmp/vrocam-demo-", true) {}

DemoPeer::~DemoPeer() { stop(); }

bool DemoPeer::start(const std::string& binary, const std::string& traceDir) {
  if (mDir.path().empty()) {
    fprintf(stderr, "vrocam_shm_demo: cannot make a private directory: %s\n",
            host::errnoText(errno).c_str());
    return false;
  }
  peer::PeerLaunch launch;
  launch.command = {binary};
  launch.socket = mDir.socket();
  if (!traceDir.empty()) launch.flags = {"--trace", traceDir};
  const int err = mProcess.start(launch);
  if (err != 0) {
    fprintf(stderr, "vrocam_shm_demo: cannot start the peer %s: %s\n", binary.c_str(),
            host::errnoText(err).c_str());
    return false;
  }
  setenv("VROCAM_IPC_SOCKET", launch.socket.c_str(), 1);
  printf("== IPC client: the peer daemon pid %d that this demo started, serving %s\n",
         static_cast<int>(mProcess.pid()), launch.socket.c_str());
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
  const bool sees = asked == 0 && checksum.bytes == info.size &&
                    checksum.crc32 == crc32_z(0, expected.data(), expected.size());

  const auto theirs = static_cast<unsigned char>(written ^ 0xFF);
  PeerFill fill{info.handle, theirs};
  const int filled = client.sendCommand(PEER_COMMAND_FILL, &fill, sizeof(fill));
  const auto* data = static_cast<const unsigned char*>(info.addr);
  bool arrived = filled == 0;
  for (unsigned int i = 0; arrived && i < info.size; ++i) arrived = data[i] == theirs;

  char seen[96], wrote[96];
  snprintf(seen, sizeof(seen), "%08x %s ours", checksum.crc32, sees ? "==" : "!=");
  snprintf(wrote, sizeof(wrote), "0x%02x: %s", theirs,
           arrived ? "read back through our mapping" : "NOT seen here");
  printf("  handle %3d %-16s peer checksum %s; peer wrote %s\n", info.handle, info.name.c_str(),
         asked == 0 ? seen : ("failed, " + host::errnoText(asked)).c_str(),
         filled == 0 ? wrote : ("nothing, " + host::errnoText(filled)).c_str());
  return sees && arrived;
}

void mergeDemoTrace(const std::string& dir) {
  const trace::MergeResult merged = trace::mergeTraces(dir, dir + "/demo-trace.json");
  if (merged.error != 0) {
    printf("== trace: none in %s: %s\n", dir.c_str(), host::errnoText(merged.error).c_str());
    return;
  }
  printf(
      "== trace: %zu events of %zu files in %s/demo-trace.json (open it in the Perfetto UI); %s\n",
      merged.events, merged.files, dir.c_str(),
      merged.unmatched.empty()
          ? "every call is linked to the peer's handling of it"
          : (std::to_string(merged.unmatched.size()) + " flows have no other end, or more than one")
                .c_str());
}

}  // namespace tools
}  // namespace vrocam
