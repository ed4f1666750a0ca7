// SPDX-License-Identifier: Apache-2.0
// FramePool: a camera component's pool of frame buffers in shared memory, as an example of a
// component tested with the test kit: count memories of one size for one owner, registered with
// the IPC peer in one batch, handed out one at a time and released together at stop.
#pragma once

#include <cstdint>
#include <vector>

#include "IPCClientShmMgr.h"

class FramePool {
 public:
  struct Frame {
    int32_t handle;  // as registered with the peer
    int fd;
    void* addr;
    unsigned int size;
  };

  FramePool(NSCam::ipc::wrapper::IPCClientShmMgr::Identifier owner, unsigned int type,
            unsigned int count, unsigned int frameSize);
  // Stops a pool still started.
  ~FramePool();
  FramePool(const FramePool&) = delete;
  FramePool& operator=(const FramePool&) = delete;

  // Makes the frames and registers them in one batch: 0, or -1 when a memory could not be made,
  // or the IPC client's error (the peer's refusal, -ETIMEDOUT, a lost link). After a failure the
  // pool holds nothing: it frees the memories it made itself.
  int start();
  // A frame not handed out yet, or null when every frame is out.
  const Frame* acquire();
  void giveBack(const Frame* frame);
  // Deregisters, unmaps and closes every frame: 0, or the IPC client's error (the memory is freed
  // all the same).
  int stop();

 private:
  const NSCam::ipc::wrapper::IPCClientShmMgr::Identifier mOwner;
  const unsigned int mType, mCount, mFrameSize;
  std::vector<Frame> mFrames;
  std::vector<bool> mOut;
};
