// SPDX-License-Identifier: Apache-2.0
// The test factory with its forwarding client, and ManagerTest.
#include "ManagerFixture.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace vrotest {
namespace {

std::atomic<bool> gAvailable{false};
std::atomic<IPCClient*> gTarget{nullptr};
std::atomic<int> gCalls{0}, gLastType{-1};

IPCClient* target() {
  IPCClient* client = gTarget.load();
  if (client == nullptr) ADD_FAILURE() << "the IPC client was called without a target";
  return client;
}

#define VROTEST_FORWARD(call)   \
  IPCClient* client = target(); \
  return client != nullptr ? client->call : -1
class Forwarder : public IPCClient {
 public:
  int registerShm(ShmMemInfo& info) override { VROTEST_FORWARD(registerShm(info)); }
  int registerShms(std::vector<ShmMemInfo>& infos) override {
    VROTEST_FORWARD(registerShms(infos));
  }
  int sendCommand(int command, void* data, size_t length) override {
    VROTEST_FORWARD(sendCommand(command, data, length));
  }
  int waitForPeer(int timeoutMs) override { VROTEST_FORWARD(waitForPeer(timeoutMs)); }
  int deregisterShms(std::vector<ShmMemInfo> infos) override {
    VROTEST_FORWARD(deregisterShms(std::move(infos)));
  }
} gForwarder;
#undef VROTEST_FORWARD

std::vector<int> fieldOf(const std::vector<ShmMemInfo>& infos, int ShmMemInfo::*field) {
  std::vector<int> out;
  for (const ShmMemInfo& info : infos) out.push_back(info.*field);
  return out;
}

}  // namespace

void TestClientFactory::setAvailable(bool available) { gAvailable = available; }
void TestClientFactory::setTarget(IPCClient* client) { gTarget = client; }
IPCClient* TestClientFactory::forwarder() { return &gForwarder; }
int TestClientFactory::calls() { return gCalls; }
void TestClientFactory::resetCalls() { gCalls = 0; }
int TestClientFactory::lastType() { return gLastType; }

std::vector<int> fdsOf(const std::vector<ShmMemInfo>& infos) {
  return fieldOf(infos, &ShmMemInfo::fd);
}
std::vector<int> handlesOf(const std::vector<ShmMemInfo>& infos) {
  return fieldOf(infos, &ShmMemInfo::handle);
}

std::string format(const char* fmt, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof(text), fmt, ap);
  va_end(ap);
  return text;
}

void setDbgLog(IPCClientShmMgr* mgr, const char* value) {
  NSCam::Utils::Properties::host_property_set("vendor.debug.ipc.log", value);
  mgr->init();
}

void ManagerTest::SetUp() {
  TestClientFactory::setAvailable(true);
  TestClientFactory::setTarget(&client);
  mgr = IPCClientShmMgr::getInstance();
  Inspector::setClient(*mgr, TestClientFactory::forwarder());
  Inspector::forgetRegistry(*mgr);
  setDbgLog(mgr, "1");
  log.clear();
}

void ManagerTest::TearDown() {
  setDbgLog(mgr, nullptr);
  EXPECT_TRUE(Inspector::lockFree(*mgr));
  Inspector::forgetRegistry(*mgr);
  TestClientFactory::setTarget(nullptr);
  leaks.expectNoLeaks();
}

}  // namespace vrotest

namespace NSCam {
namespace ipc {
namespace wrapper {

// Replaces the host factory for the whole test executable.
IPCClient* IPCClientFactory::getInstance(IPC_PLATFORM_TYPE type) {
  ++vrotest::gCalls;
  vrotest::gLastType = type;
  return vrotest::gAvailable ? &vrotest::gForwarder : nullptr;
}

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
