// SPDX-License-Identifier: Apache-2.0
// One SOCK_SEQPACKET message with its descriptors, sent and received without SIGPIPE and without
// waiting past a deadline; the connection to a peer's socket; the wait for an answer.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "UniqueFd.h"

namespace vrocam {
namespace peer {

using host::UniqueFd;  // the one owner of a descriptor

using Clock = std::chrono::steady_clock;
// When a send or receive gives up: Deadline::min() never waits, Deadline::max() waits as long
// as it takes.
using Deadline = Clock::time_point;
inline Deadline after(int ms) { return Clock::now() + std::chrono::milliseconds(ms); }

// Sends one message with fdCount descriptors attached, waiting for room until deadline. 0, or a
// negative errno (-ETIMEDOUT when there was no room in time).
int sendPacket(int sock, const void* data, size_t size, const int* fds, size_t fdCount,
               Deadline deadline = Deadline::max());

struct Received {
  size_t size = 0;
  bool truncated = false;     // the message was longer than the buffer
  bool fdsTruncated = false;  // some descriptors could not be received
  std::vector<UniqueFd> fds;  // every descriptor that arrived, close-on-exec
};

// Receives one message into buffer, waiting for it until deadline. The size (0: the connection
// ended, or an empty message), or a negative errno (-ETIMEDOUT when nothing came in time).
// Descriptors end up owned by out, whatever the message turns out to be.
ssize_t recvPacket(int sock, void* buffer, size_t capacity, Received* out,
                   Deadline deadline = Deadline::max());

// After a receive of 0 bytes: whether the connection ended (true), or the 0 bytes were an empty
// message (false).
bool connectionEnded(int sock);

struct Answer;

// Waits until deadline for the answer to the request of kind and seq, dropping the answers to
// earlier requests that a call which timed out left behind. 0, or a negative errno: -ETIMEDOUT;
// -ECONNRESET when the connection ended, with *closing set to the reason the peer gave (a negative
// errno) or 0; -EPROTO for anything but an answer (descriptors that came with it are closed).
// *late (if given) counts the answers dropped.
int awaitAnswer(int sock, uint8_t* buffer, size_t capacity, uint16_t kind, uint32_t seq,
                Deadline deadline, Answer* answer, int* closing, size_t* late = nullptr);

// Sends the request of size bytes in buffer and receives its answer into the same buffer, as
// awaitAnswer does, within timeoutMs in all. 0, or a negative errno.
int roundTrip(int sock, uint8_t* buffer, size_t capacity, size_t size, int timeoutMs,
              Answer* answer, int* closing);

// The address of the socket at path, and its length; 0 when path is empty or too long. A path that
// starts with '@' names a socket in the abstract namespace: nothing on disk, gone with its last
// descriptor.
socklen_t socketAddress(const std::string& path, sockaddr_un* out);
inline bool abstractSocket(const std::string& path) { return !path.empty() && path[0] == '@'; }

// A SOCK_SEQPACKET connection to the socket at path, close-on-exec, that waits at most timeoutMs
// to be accepted. 0, or a negative errno (-ENAMETOOLONG, -ENOENT, -ECONNREFUSED, -ETIMEDOUT, ...).
int connectTo(const std::string& path, int timeoutMs, UniqueFd* out);

}  // namespace peer
}  // namespace vrocam
