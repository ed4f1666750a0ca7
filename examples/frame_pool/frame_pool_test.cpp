// SPDX-License-Identifier: Apache-2.0
// The frame pool's tests against a real peer process, each with a peer of its own that the test
// kit starts, makes fail on purpose, and reads; no harness code of the pool's own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "FramePool.h"
#include "vrocam/testkit/PeerFixture.h"

namespace {

const NSCam::ipc::wrapper::IPCClientShmMgr::Identifier kOwner{
    NSCam::ipc::wrapper::IPC_USER_PIPELINE, 0, 42};

class FramePoolTest : public vrocam::testkit::PeerFixture {};

TEST_F(FramePoolTest, HandsOutTheFramesThePeerHolds) {
  FramePool pool(kOwner, 5, 4, 4096);
  ASSERT_EQ(pool.start(), 0);
  const auto held = peer().holdings(getpid());
  ASSERT_EQ(held.size(), 4u);
  EXPECT_EQ(held[0].name, "frame-0");
  EXPECT_EQ(held[0].size, 4096u);
  size_t out = 0;
  while (pool.acquire() != nullptr) ++out;
  EXPECT_EQ(out, 4u);
  EXPECT_EQ(pool.stop(), 0);
  EXPECT_TRUE(peer().holdings(getpid()).empty());
}

TEST_F(FramePoolTest, ARefusedSecondPartLeavesNothingAnywhere) {
  // 100 frames go in two messages; the peer refuses the second, so the batch is undone.
  ASSERT_EQ(peer().addFault("register:errno=ENOSPC:nth=2"), 0);
  FramePool pool(kOwner, 5, 100, 4096);
  EXPECT_EQ(pool.start(), -ENOSPC);
  std::vector<vrocam::testkit::FaultCount> counts;
  ASSERT_EQ(peer().faults(&counts), 0);
  EXPECT_EQ(counts.at(0).fired, 1u);
  EXPECT_TRUE(peer().holdings(getpid()).empty());
}

TEST_F(FramePoolTest, ASlowPeerTimesOutAndTheRegistrationIsUndone) {
  // The IPC client waits VROCAM_IPC_TIMEOUT_MS (500 here, set in CMakeLists.txt) at most.
  ASSERT_EQ(peer().addFault("register:delay=3s"), 0);
  FramePool pool(kOwner, 5, 4, 4096);
  EXPECT_EQ(pool.start(), -ETIMEDOUT);
  EXPECT_TRUE(peer().logShows("gave up on a registration: released 4 memories"));
}

TEST_F(FramePoolTest, ThePeerEndingMidBatchFailsTheStart) {
  ASSERT_EQ(peer().addFault("register:exit:nth=2"), 0);
  FramePool pool(kOwner, 5, 100, 4096);
  EXPECT_EQ(pool.start(), -ECONNRESET);
  EXPECT_EQ(peer().stop(), 1);  // it ended as the rule said
}

TEST_F(FramePoolTest, WhatThePoolLeftRegisteredIsSeenFromThePeersSide) {
  FramePool pool(kOwner, 6, 2, 4096);
  ASSERT_EQ(pool.start(), 0);
  // Were the pool not stopped, the fixture would fail the test, naming both frames.
  EXPECT_EQ(peer().holdings(getpid()).size(), 2u);
  EXPECT_EQ(pool.stop(), 0);
}

}  // namespace
