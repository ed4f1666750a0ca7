// SPDX-License-Identifier: Apache-2.0
// The IPC client as tests see it: a GoogleMock client, and a factory (defined in the test
// executable, in place of the host one) that hands the manager a forwarder to the current mock.
#pragma once

#include <gmock/gmock.h>

#include <vector>

#include "IPCClient.h"

namespace vrotest {

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

// The manager keeps the first client it gets for the life of the process, so the factory always
// hands out one forwarder; setTarget() chooses where its calls go.
class TestClientFactory {
 public:
  // Whether the factory gives a client at all (initially false).
  static void setAvailable(bool available);
  // The client that receives the forwarder's calls (null: every call fails the test).
  static void setTarget(IPCClient* target);
  // The client the factory hands out.
  static IPCClient* forwarder();
  static int calls();
  static void resetCalls();
  static int lastType();
};

// A record with the given fields, for comparisons in expectations.
MATCHER_P6(InfoIs, name, type, size, fd, addr, handle, "") {
  return arg.name == name && arg.type == static_cast<unsigned int>(type) &&
         arg.size == static_cast<unsigned int>(size) && arg.fd == fd &&
         arg.addr == static_cast<const void*>(addr) && arg.handle == handle;
}

// Descriptors of the records, in order.
std::vector<int> fdsOf(const std::vector<ShmMemInfo>& infos);
std::vector<int> handlesOf(const std::vector<ShmMemInfo>& infos);

}  // namespace vrotest
