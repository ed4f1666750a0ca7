// SPDX-License-Identifier: Apache-2.0
// A GoogleTest fixture and environment over vrocam::testkit::Peer, for a component's own tests.
//
//   class FramePoolTest : public vrocam::testkit::PeerFixture {};
//   TEST_F(FramePoolTest, RefusedThirdRegistration) {
//     ASSERT_EQ(peer().addFault("register:errno=ENOSPC:nth=3"), 0);
//     ...  // the component under test, talking to the peer through the manager as it always does
//   }
//
// Each test gets a peer of its own, started before the test and stopped after it, on the one
// socket of the process (processSocket()): the manager keeps its IPC client for the life of the
// process, so the peer is restarted on the same socket, and the client reconnects at its next
// call. With a PeerEnvironment added (::testing::AddGlobalTestEnvironment), the tests share the
// environment's peer instead. After each test the fixture checks, from the peer's side, that this
// process left nothing registered (set expectNothingRegistered to false to skip it); when a test
// failed, it prints the peer's log and the fault rules with their counts. Release what the
// component holds in the test, or in your TearDown() before this one's.
//
// Header only, so that it builds with the GoogleTest of the project that uses it.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "vrocam/testkit/Peer.h"

namespace vrocam {
namespace testkit {

// One peer for the whole test program, on processSocket().
class PeerEnvironment : public ::testing::Environment {
 public:
  explicit PeerEnvironment(PeerOptions options = {}) : mOptions(std::move(options)) {}

  void SetUp() override {
    mOptions.socket = processSocket();
    mPeer = std::make_unique<Peer>(mOptions);
    ASSERT_EQ(mPeer->start(), 0) << mPeer->log();
    current() = mPeer.get();
  }
  void TearDown() override {
    current() = nullptr;
    mPeer.reset();
  }
  // The environment's peer while it runs, or null.
  static Peer* shared() { return current(); }

 private:
  static Peer*& current() {
    static Peer* peer = nullptr;
    return peer;
  }

  PeerOptions mOptions;
  std::unique_ptr<Peer> mPeer;
};

class PeerFixture : public ::testing::Test {
 protected:
  // The options of each test's own peer (not used with a PeerEnvironment); override to give
  // rules or flags. The socket is always processSocket().
  virtual PeerOptions peerOptions() const { return PeerOptions(); }

  void SetUp() override {
    mStarted = Peer::clockNs();
    if (PeerEnvironment::shared() != nullptr) return;
    PeerOptions options = peerOptions();
    options.socket = processSocket();
    mOwn = std::make_unique<Peer>(options);
    ASSERT_EQ(mOwn->start(), 0) << mOwn->log();
  }

  void TearDown() override {
    Peer& peer = this->peer();
    if (expectNothingRegistered && peer.running()) {
      std::string left;
      for (const PeerMemory& m : peer.holdings(getpid())) {
        left += "\n  handle " + std::to_string(m.handle) + " type " + std::to_string(m.type) +
                " size " + std::to_string(m.size) + " name " + m.name;
      }
      EXPECT_TRUE(left.empty()) << "this process left memories registered with the peer:" << left;
    }
    if (HasFailure()) {
      std::vector<FaultCount> counts;
      std::string faults;
      if (peer.running() && peer.faults(&counts) == 0) {
        for (const FaultCount& count : counts) {
          faults += "fault " + std::to_string(count.rule) + " " + count.text + ": matched " +
                    std::to_string(count.matched) + ", fired " + std::to_string(count.fired) + "\n";
        }
      }
      printf("--- the peer's log (pid %d, %s) ---\n%s--- its fault rules ---\n%s---\n",
             static_cast<int>(peer.pid()), peer.socket().c_str(), peer.log().c_str(),
             faults.empty() ? "(none)\n" : faults.c_str());
      const char* traces = getenv("VROCAM_TEST_TRACE");
      const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
      if (traces != nullptr && *traces != '\0' && test != nullptr) {
        std::string name = std::string(test->test_suite_name()) + "." + test->name();
        std::replace(name.begin(), name.end(), '/', '_');  // parameterized tests
        const std::string out = std::string(traces) + "/" + name + ".json";
        if (peer.mergeTrace(out, mStarted) == 0) {
          printf("--- the trace of this test, for the Perfetto UI: %s ---\n", out.c_str());
        }
      }
    }
    if (PeerEnvironment::shared() != nullptr) {
      if (peer.running()) peer.clearFaults();
      return;
    }
    mOwn.reset();
  }

  // The peer of this test.
  Peer& peer() { return mOwn ? *mOwn : *PeerEnvironment::shared(); }

  // Whether TearDown() checks that this process left nothing registered with the peer.
  bool expectNothingRegistered = true;

 private:
  std::unique_ptr<Peer> mOwn;
  int64_t mStarted = 0;
};

}  // namespace testkit
}  // namespace vrocam
