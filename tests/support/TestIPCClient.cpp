// SPDX-License-Identifier: Apache-2.0
// The test factory and its forwarding client.
#include "TestIPCClient.h"

#include <gtest/gtest.h>

#include <atomic>

namespace vrotest {
namespace {

std::atomic<bool> gAvailable{false};
std::atomic<IPCClient*> gTarget{nullptr};
std::atomic<int> gCalls{0};
std::atomic<int> gLastType{-1};

IPCClient* target() {
  IPCClient* client = gTarget.load();
  if (client == nullptr) ADD_FAILURE() << "the IPC client was called without a target";
  return client;
}

class Forwarder : public IPCClient {
 public:
  int registerShm(ShmMemInfo& info) override {
    IPCClient* client = target();
    return client != nullptr ? client->registerShm(info) : -1;
  }
  int registerShms(std::vector<ShmMemInfo>& infos) override {
    IPCClient* client = target();
    return client != nullptr ? client->registerShms(infos) : -1;
  }
  int sendCommand(int command, void* data, size_t length) override {
    IPCClient* client = target();
    return client != nullptr ? client->sendCommand(command, data, length) : -1;
  }
  int waitForPeer(int timeoutMs) override {
    IPCClient* client = target();
    return client != nullptr ? client->waitForPeer(timeoutMs) : -1;
  }
  int deregisterShms(std::vector<ShmMemInfo> infos) override {
    IPCClient* client = target();
    return client != nullptr ? client->deregisterShms(std::move(infos)) : -1;
  }
};

Forwarder gForwarder;

}  // namespace

void TestClientFactory::setAvailable(bool available) { gAvailable = available; }
void TestClientFactory::setTarget(IPCClient* client) { gTarget = client; }
IPCClient* TestClientFactory::forwarder() { return &gForwarder; }
int TestClientFactory::calls() { return gCalls; }
void TestClientFactory::resetCalls() { gCalls = 0; }
int TestClientFactory::lastType() { return gLastType; }

std::vector<int> fdsOf(const std::vector<ShmMemInfo>& infos) {
  std::vector<int> fds;
  for (const ShmMemInfo& info : infos) fds.push_back(info.fd);
  return fds;
}

std::vector<int> handlesOf(const std::vector<ShmMemInfo>& infos) {
  std::vector<int> handles;
  for (const ShmMemInfo& info : infos) handles.push_back(info.handle);
  return handles;
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
