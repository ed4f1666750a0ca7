// SPDX-License-Identifier: Apache-2.0
// The peer daemon as tests see it: a vrocam_ipc_peer child process on a private socket with its
// log in a file, and a raw client that speaks the wire format.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "PeerProcess.h"
#include "PeerWire.h"
#include "UniqueFd.h"

namespace vrotest {

// What the peer daemon, run with args by a shell (behind the emulator of a cross build), prints.
std::string runPeer(const std::string& args);

class TestPeer {
 public:
  // Serves socket, or a socket in a new private directory when socket is empty.
  explicit TestPeer(std::string socket = "");
  // Kills a peer still running and removes the private directory.
  ~TestPeer();

  // Starts the peer with extra flags and waits until it answers; fails the test otherwise.
  void start(const std::vector<std::string>& extra = {});
  // Sends signal and waits: the exit code, or 128 + the signal that ended the peer.
  int stop(int signal = SIGTERM);
  pid_t pid() const { return mProcess.pid(); }
  const std::string& socket() const { return mSocket; }
  // What the peer logged so far.
  std::string log() const;
  // Whether the log holds text within a few seconds.
  bool logShows(const std::string& text) const;

 private:
  std::string mDir;
  std::string mSocket;
  std::string mLog;
  vropeer::PeerProcess mProcess;
};

// A connection to the peer that sends whatever bytes and descriptors a test gives it.
class RawClient {
 public:
  explicit RawClient(const std::string& socket);
  // The answer's status, or the link's error (-ECONNRESET when the peer ended the connection).
  int send(const std::vector<uint8_t>& bytes, const std::vector<int>& fds = {});

 private:
  vrowire::UniqueFd mSock;
};

// A whole message of kind: the header, then the payload written by fill (if any).
std::vector<uint8_t> message(vrowire::Kind kind, uint32_t seq = 1,
                             const std::function<void(vrowire::Writer&)>& fill = nullptr);
// A Register message of the records, with flags.
std::vector<uint8_t> registerMessage(const std::vector<vrowire::Record>& records,
                                     uint32_t flags = 0);

}  // namespace vrotest
