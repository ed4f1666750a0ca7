// SPDX-License-Identifier: Apache-2.0
// FramePool: start, hand out, stop.
#include "FramePool.h"

#include <string>

using NSCam::ipc::wrapper::IPCClientShmMgr;
using NSCam::ipc::wrapper::ShmMemInfo;

FramePool::FramePool(IPCClientShmMgr::Identifier owner, unsigned int type, unsigned int count,
                     unsigned int frameSize)
    : mOwner(owner), mType(type), mCount(count), mFrameSize(frameSize) {}

FramePool::~FramePool() {
  if (!mFrames.empty()) stop();
}

int FramePool::start() {
  IPCClientShmMgr* mgr = IPCClientShmMgr::getInstance();
  std::vector<ShmMemInfo> infos;
  int err = 0;
  for (unsigned int i = 0; i < mCount && err == 0; ++i) {
    int fd = -1;
    void* addr = nullptr;
    const std::string name = "frame-" + std::to_string(i);
    err = mgr->allocateShmMem(mOwner.sensorIdx, name, static_cast<int>(mFrameSize), &fd, &addr);
    if (err == 0) infos.emplace_back(name, mType, mFrameSize, fd, addr, -1);
  }
  // One batch for all; it gives no handles back, so they are read from the registry after.
  if (err == 0) err = mgr->registerShmMem(mOwner, infos);
  if (err != 0) {
    // The memories are still ours after a refusal: free them, or they leak here.
    for (const ShmMemInfo& info : infos) {
      (void)mgr->releaseShmMem(static_cast<int>(info.size), info.fd, info.addr);
    }
    return err;
  }
  std::vector<ShmMemInfo> registered;
  mgr->getShmInfo(registered, mOwner, mType);
  for (const ShmMemInfo& info : registered) {
    mFrames.push_back(Frame{info.handle, info.fd, info.addr, info.size});
  }
  mOut.assign(mFrames.size(), false);
  return 0;
}

const FramePool::Frame* FramePool::acquire() {
  for (size_t i = 0; i < mFrames.size(); ++i) {
    if (!mOut[i]) {
      mOut[i] = true;
      return &mFrames[i];
    }
  }
  return nullptr;
}

void FramePool::giveBack(const Frame* frame) {
  mOut[static_cast<size_t>(frame - &mFrames[0])] = false;
}

int FramePool::stop() {
  mFrames.clear();
  mOut.clear();
  return IPCClientShmMgr::getInstance()->releaseShmMem(mOwner, mType);
}
