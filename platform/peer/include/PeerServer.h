// SPDX-License-Identifier: Apache-2.0
// PeerServer: the peer process's side of the IPC link. It listens on an AF_UNIX SOCK_SEQPACKET
// socket, serves any number of clients of its own uid or root's from one thread, keeps each
// client's memories in a ClientTable and frees them when the client goes.
//
// Locking: none. One thread runs everything (listen, run and the destructor); a second thread
// may only make stopFd readable.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ClientTable.h"
#include "Packet.h"
#include "PeerWire.h"
#include "UniqueFd.h"

namespace vropeer {

struct ServerLimits {
  Limits perClient;
  uint32_t maxClients = 64;
};

class PeerServer {
 public:
  explicit PeerServer(const ServerLimits& limits);
  // Unmaps and closes everything, and removes the socket file if it is still this server's.
  ~PeerServer();
  PeerServer(const PeerServer&) = delete;
  PeerServer& operator=(const PeerServer&) = delete;

  // Creates the socket at path with mode 0600 (never wider, whatever the umask) and listens. A
  // stale socket file that nobody serves is replaced. 0, or a negative errno: -EADDRINUSE when a
  // peer serves there already, -EEXIST when path is something other than a socket.
  int listen(const std::string& path);
  // Serves until stopFd (-1: none) becomes readable. 0, or a negative errno if polling failed.
  int run(int stopFd);

  size_t clients() const { return mConnections.size(); }
  size_t memories() const;

 private:
  struct Connection;

  void accept();
  // Reads and answers one message; null, or why the connection is to end.
  const char* serve(Connection& connection);
  // Carries out a well-formed request; its status, with the answer's fields filled in.
  int handle(Connection& connection, const vrowire::Request& request,
             std::vector<vrowire::UniqueFd>& fds, vrowire::Answer& answer);
  std::string status(const Connection& asking) const;
  void drop(size_t index, const char* why);

  const ServerLimits mLimits;
  std::string mPath;
  ino_t mInode = 0;
  vrowire::UniqueFd mListen;
  vrowire::UniqueFd mReserve;  // given up to accept, and refuse, a client when out of descriptors
  std::vector<std::unique_ptr<Connection>> mConnections;
  std::unique_ptr<uint8_t[]> mIn;
  std::unique_ptr<uint8_t[]> mOut;
  vrowire::Received mReceived;  // of the message being served, kept for its buffers' sake
  vrowire::Request mRequest;
};

// Writes one line of the peer's log on stderr ('I', 'W' or 'E').
void peerLog(char level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace vropeer
