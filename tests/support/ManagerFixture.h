// SPDX-License-Identifier: Apache-2.0
// ManagerTest: a manager connected to a mock IPC client, its logs captured, its registry empty,
// and a leak check at the end. Real memfd regions for tests that register or release memory.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "FaultInjection.h"
#include "HostProperties.h"
#include "IPCClientShmMgr.h"
#include "LeakGuard.h"
#include "LogCapture.h"
#include "ManagerInspector.h"
#include "TestIPCClient.h"
#include "TestRegion.h"

namespace vrotest {

using NSCam::ipc::wrapper::IPC_USER;
using NSCam::ipc::wrapper::IPCClientShmMgr;
using NSCam::ipc::wrapper::ShmMemAlloc;
using Inspector = NSCam::ipc::wrapper::IPCClientShmMgrInspector;
using Id = IPCClientShmMgr::Identifier;

// printf into a string, for expected log texts.
__attribute__((format(printf, 1, 2))) std::string format(const char* fmt, ...);

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

}  // namespace vrotest
