// SPDX-License-Identifier: Apache-2.0
// A test of the frame pool without GoogleTest, run under a private peer by vrocam_add_peer_test():
// 0 when a pool of 8 frames starts, hands them all out and stops.
#include <cstdio>

#include "FramePool.h"

int main() {
  FramePool pool({NSCam::ipc::wrapper::IPC_USER_PIPELINE, 1, 7}, 3, 8, 4096);
  const int started = pool.start();
  int out = 0;
  while (started == 0 && pool.acquire() != nullptr) ++out;
  const int stopped = started == 0 ? pool.stop() : 0;
  printf("frame pool: started %d, %d frames out, stopped %d\n", started, out, stopped);
  return started == 0 && out == 8 && stopped == 0 ? 0 : 1;
}
