// SPDX-License-Identifier: Apache-2.0
// The test executable's IPC client factory.
#include "MockClient.h"

#include "LoopbackClient.h"

namespace vrocam {
namespace test {

std::atomic<bool> gFactoryGives{false};
std::atomic<int> gFactoryCalls{0}, gFactoryLastType{-1};
IPCClient* factoryClient() { return &NSCam::ipc::wrapper::LoopbackClient::instance(); }

}  // namespace test
}  // namespace vrocam

namespace NSCam {
namespace ipc {
namespace wrapper {

// Replaces the host factory for the whole test executable.
IPCClient* IPCClientFactory::getInstance(IPC_PLATFORM_TYPE type) {
  ++vrocam::test::gFactoryCalls;
  vrocam::test::gFactoryLastType = type;
  return vrocam::test::gFactoryGives ? vrocam::test::factoryClient() : nullptr;
}

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
