// SPDX-License-Identifier: Apache-2.0
// ManagerTest: a manager connected to a GoogleMock IPC client with its logs captured, its registry
// empty and a leak check at the end; and what its tests compare with.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "HostProperties.h"
#include "IPCClient.h"
#include "IPCClientShmMgr.h"
#include "LogCapture.h"
#include "ManagerInspector.h"
#include "MockClient.h"
#include "ProcessState.h"
#include "StringPrintf.h"

namespace vrocam {
namespace test {

using NSCam::ipc::wrapper::IPC_USER;
using NSCam::ipc::wrapper::IPCClient;
using NSCam::ipc::wrapper::IPCClientShmMgr;
using NSCam::ipc::wrapper::ShmMemAlloc;
using NSCam::ipc::wrapper::ShmMemInfo;
using Inspector = NSCam::ipc::wrapper::IPCClientShmMgrInspector;
using Id = IPCClientShmMgr::Identifier;

// A record with the given fields, for comparisons in expectations.
MATCHER_P6(InfoIs, name, type, size, fd, addr, handle, "") {
  return arg.name == name && arg.type == static_cast<unsigned int>(type) &&
         arg.size == static_cast<unsigned int>(size) && arg.fd == fd &&
         arg.addr == static_cast<const void*>(addr) && arg.handle == handle;
}

// Descriptors and handles of the records, in order.
std::vector<int> fdsOf(const std::vector<ShmMemInfo>& infos);
std::vector<int> handlesOf(const std::vector<ShmMemInfo>& infos);

// printf into a string, for expected log texts.
constexpr auto format = host::StringPrintf;

// Sets "vendor.debug.ipc.log" for this process (null: unset) and runs init() to pick it up.
void setDbgLog(IPCClientShmMgr* mgr, const char* value);

class ManagerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  LogCapture log;
  ::testing::NiceMock<MockIPCClient> client;
  IPCClientShmMgr* mgr = nullptr;
  LeakGuard leaks;
};

}  // namespace test
}  // namespace vrocam
