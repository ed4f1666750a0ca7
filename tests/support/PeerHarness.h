// SPDX-License-Identifier: Apache-2.0
// The peer daemon as tests see it: a vrocam_ipc_peer child process on a private socket with its
// log in a file, and a raw client that speaks the wire format.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "PeerProcess.h"
#include "PeerWire.h"
#include "PrivateDirectory.h"
#include "UniqueFd.h"

namespace vrocam {
namespace test {

// What tool (a path), run with args by a shell (behind the emulator of a cross build, and after
// the command prefix, such as "env -u NAME"), prints on stdout; its exit code goes to *exitCode.
std::string runTool(const std::string& tool, const std::string& args, int* exitCode = nullptr,
                    const std::string& prefix = "");
// What the peer daemon, run with args, prints.
std::string runPeer(const std::string& args);

class TestPeer {
 public:
  // Serves socket, or a socket in a new private directory when socket is empty.
  explicit TestPeer(std::string socket = "");
  // Kills a peer still running; then the private directory goes, with what is in it.
  ~TestPeer();

  // Starts the peer with extra flags (and a descriptor limit, unless 0) and waits until it
  // answers: 0, or PeerProcess::start's error.
  int start(const std::vector<std::string>& extra = {}, rlim_t maxFiles = 0);
  // Sends signal and waits: the exit code, 128 + the signal that ended the peer, or -1 when none
  // was running.
  int stop(int signal = SIGTERM);
  // Stops the peer with SIGSTOP and returns once it is stopped, so that what is sent to it waits
  // in its socket until thaw().
  void freeze() const;
  void thaw() const;
  pid_t pid() const { return mProcess.pid(); }
  const std::string& socket() const { return mSocket; }
  const std::string& dir() const { return mDir.path(); }
  // What the peer logged so far.
  std::string log() const;
  // Whether the log holds text within a few seconds.
  bool logShows(const std::string& text) const;

 private:
  peer::PrivateDirectory mDir;
  std::string mSocket;
  std::string mLog;
  peer::PeerProcess mProcess;
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
