// SPDX-License-Identifier: Apache-2.0
// The IPC client as the manager's tests see it: a GoogleMock client, and the test executable's
// IPC client factory in place of the host's.
#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <vector>

#include "IPCClient.h"

namespace vrocam {
namespace test {

using NSCam::ipc::wrapper::IPCClient;
using NSCam::ipc::wrapper::ShmMemInfo;

class MockIPCClient : public IPCClient {
 public:
  MOCK_METHOD(int, registerShm, (ShmMemInfo & info), (override));
  MOCK_METHOD(int, registerShms, (std::vector<ShmMemInfo> & infos), (override));
  MOCK_METHOD(int, sendCommand, (int command, void* data, size_t length), (override));
  MOCK_METHOD(int, waitForPeer, (int timeoutMs), (override));
  MOCK_METHOD(int, deregisterShms, (std::vector<ShmMemInfo> infos), (override));
};

// The test executable's IPC client factory, in place of the host's: it hands out the loopback
// client while gFactoryGives is set (at first it is not), and counts the calls.
extern std::atomic<bool> gFactoryGives;
extern std::atomic<int> gFactoryCalls, gFactoryLastType;
IPCClient* factoryClient();

}  // namespace test
}  // namespace vrocam
