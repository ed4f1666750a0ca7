// SPDX-License-Identifier: Apache-2.0
// One SOCK_SEQPACKET message with its descriptors, sent and received without SIGPIPE, and the
// connection to a peer's socket.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "UniqueFd.h"

namespace vrowire {

// Sends one message with fdCount descriptors attached. 0, or a negative errno.
int sendPacket(int sock, const void* data, size_t size, const int* fds, size_t fdCount,
               int flags = 0);

struct Received {
  size_t size = 0;
  bool truncated = false;     // the message was longer than the buffer
  bool fdsTruncated = false;  // some descriptors could not be received
  std::vector<UniqueFd> fds;  // every descriptor that arrived, close-on-exec
};

// Receives one message into buffer. The size (0: the connection ended, or an empty message), or
// a negative errno (-ETIMEDOUT when a receive timeout passed). Descriptors end up owned by out.
ssize_t recvPacket(int sock, void* buffer, size_t capacity, Received* out, int flags = 0);

struct Answer;

// Receives the answer to the request of kind and seq and decodes it: 0, or a negative errno:
// -ECONNRESET when the connection ended, -ETIMEDOUT, -EPROTO for anything but that answer
// (descriptors that came with it are closed).
int receiveAnswer(int sock, uint8_t* buffer, size_t capacity, uint16_t kind, uint32_t seq,
                  Answer* answer);

// Sends the request of size bytes in buffer and receives its answer into the same buffer, as
// receiveAnswer does. 0, or a negative errno.
int roundTrip(int sock, uint8_t* buffer, size_t capacity, size_t size, Answer* answer);

// Sets the send and receive timeouts of a socket (0: none). 0, or a negative errno.
int setTimeouts(int sock, int timeoutMs);

// A SOCK_SEQPACKET connection to the socket at path, close-on-exec, with the timeouts set before
// connecting. 0, or a negative errno (-ENAMETOOLONG, -ENOENT, -ECONNREFUSED, ...).
int connectTo(const std::string& path, int timeoutMs, UniqueFd* out);

}  // namespace vrowire
