// SPDX-License-Identifier: Apache-2.0
// The peer daemon as the project's tests see it: the test kit's peer, run through the emulator of
// a cross build; and a raw client that speaks the wire format.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "PeerWire.h"
#include "UniqueFd.h"
#include "vrocam/testkit/Peer.h"

namespace vrocam {
namespace test {

// What tool (a path), run with args by a shell (behind the emulator of a cross build, and after
// the command prefix, such as "env -u NAME"), prints on stdout; its exit code goes to *exitCode.
std::string runTool(const std::string& tool, const std::string& args, int* exitCode = nullptr,
                    const std::string& prefix = "");
// What the peer daemon, run with args, prints.
std::string runPeer(const std::string& args);

// The options of a peer for the project's tests: the peer built here, behind the emulator of a
// cross build, serving socket (a fresh abstract name when empty).
testkit::PeerOptions testPeerOptions(const std::string& socket = "");

// The kit's peer with the project's options.
class TestPeer : public testkit::Peer {
 public:
  explicit TestPeer(const std::string& socket = "") : Peer(testPeerOptions(socket)) {}
};

// A connection to the peer that sends whatever bytes and descriptors a test gives it.
class RawClient {
 public:
  explicit RawClient(const std::string& socket);
  // Sends a message and waits for the answer: its status, or the link's error (-ECONNRESET when
  // the peer ended the connection, or the reason it gave). The answer lands in *answer if given.
  int send(const std::vector<uint8_t>& bytes, const std::vector<int>& fds = {},
           peer::Answer* answer = nullptr);
  // Sends a message and leaves its answer unread: 0, or the link's error (-ETIMEDOUT when the
  // peer took nothing more within waitMs).
  int post(const std::vector<uint8_t>& bytes, int waitMs = 5000);
  int fd() const { return mSock.get(); }

 private:
  host::UniqueFd mSock;
};

// The bytes of request, as the socket client encodes them.
std::vector<uint8_t> encoded(const peer::Request& request);
// A message of kind (seq 1) whose payload is the given bytes, well-formed or not.
std::vector<uint8_t> message(peer::Kind kind, const std::vector<uint8_t>& payload = {});
// A Register request of the records, with flags.
std::vector<uint8_t> registerMessage(const std::vector<peer::Record>& records, uint32_t flags = 0,
                                     uint32_t seq = 1);

}  // namespace test
}  // namespace vrocam
