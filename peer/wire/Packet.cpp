// SPDX-License-Identifier: Apache-2.0
// SOCK_SEQPACKET messages with SCM_RIGHTS, deadlines and answers.
#include "Packet.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "PeerWire.h"

namespace vrocam {
namespace peer {
namespace {

// Waits until sock has events or deadline passed: 0, -ETIMEDOUT, or poll's error.
int waitFor(int sock, short events, Deadline deadline) {
  for (;;) {
    int ms = -1;
    if (deadline != Deadline::max()) {
      // Compared first: Deadline::min() less now does not fit in a duration.
      const Deadline now = Clock::now();
      if (deadline <= now) return -ETIMEDOUT;
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
      ms = left.count() > 1000000 ? 1000000 : static_cast<int>(left.count());
    }
    pollfd one{sock, events, 0};
    const int ready = poll(&one, 1, ms);
    if (ready > 0) return 0;
    if (ready < 0 && errno != EINTR) return -errno;
  }
}

}  // namespace

int sendPacket(int sock, const void* data, size_t size, const int* fds, size_t fdCount,
               Deadline deadline) {
  if (fdCount > kMaxFds) return -EINVAL;
  iovec iov{const_cast<void*>(data), size};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)];
  if (fdCount != 0) {
    msg.msg_control = control;
    msg.msg_controllen = CMSG_SPACE(sizeof(int) * fdCount);
    cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    cmsg->cmsg_len = CMSG_LEN(sizeof(int) * fdCount);
    memcpy(CMSG_DATA(cmsg), fds, sizeof(int) * fdCount);
  }
  for (;;) {
    const ssize_t sent = sendmsg(sock, &msg, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) return static_cast<size_t>(sent) == size ? 0 : -EMSGSIZE;
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return -errno;
    const int waited = waitFor(sock, POLLOUT, deadline);
    if (waited != 0) return waited;
  }
}

ssize_t recvPacket(int sock, void* buffer, size_t capacity, Received* out, Deadline deadline) {
  out->fds.clear();
  iovec iov{buffer, capacity};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)];
  msg.msg_control = control;
  msg.msg_controllen = sizeof(control);
  ssize_t got;
  bool reset = false;
  for (;;) {
    got = recvmsg(sock, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got >= 0) break;
    if (errno == EINTR) continue;
    // A socket closed with our message unread reports the reset first, then still delivers
    // what it sent before (the reason it gave, say).
    if (errno == ECONNRESET && !reset) {
      reset = true;
      continue;
    }
    if (reset && errno == EAGAIN) return -ECONNRESET;
    if (errno != EAGAIN) return -errno;
    const int waited = waitFor(sock, POLLIN, deadline);
    if (waited != 0) return waited;
  }
  // Take every descriptor first, so that none escapes whatever the message turns out to be.
  for (cmsghdr* cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
    if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
      int fd = -1;
      memcpy(&fd, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(int));
      out->fds.emplace_back(fd);
    }
  }
  out->size = static_cast<size_t>(got);
  out->truncated = (msg.msg_flags & MSG_TRUNC) != 0;
  out->fdsTruncated = (msg.msg_flags & MSG_CTRUNC) != 0;
  return got;
}

bool connectionEnded(int sock) {
  // The end of a connection reads as 0 bytes for ever; an empty message only once.
  char byte = 0;
  const ssize_t got = recv(sock, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR);
}

int awaitAnswer(int sock, uint8_t* buffer, size_t capacity, uint16_t kind, uint32_t seq,
                Deadline deadline, Answer* answer, int* closing, size_t* late) {
  *closing = 0;
  for (;;) {
    Received received;
    const ssize_t got = recvPacket(sock, buffer, capacity, &received, deadline);
    if (got < 0) return static_cast<int>(got);
    if (got == 0) return -ECONNRESET;
    if (received.truncated || !received.fds.empty() ||
        decodeAnswer(buffer, static_cast<size_t>(got), answer) != 0) {
      return -EPROTO;
    }
    if (answer->kind == answerKind(Kind::Closing)) {
      *closing = answer->status;
      return -ECONNRESET;
    }
    if (answer->seq == seq && answer->kind == (kAnswer | kind)) return 0;
    // An answer to an earlier request, which gave up waiting for it, is dropped.
    if (static_cast<int32_t>(answer->seq - seq) >= 0) return -EPROTO;
    if (late != nullptr) ++*late;
  }
}

int roundTrip(int sock, uint8_t* buffer, size_t capacity, size_t size, int timeoutMs,
              Answer* answer, int* closing) {
  *closing = 0;
  if (size < kHeaderSize) return -EINVAL;
  Reader header(buffer, kHeaderSize);
  header.u16();
  const uint16_t kind = header.u16();
  const uint32_t seq = header.u32();
  const Deadline deadline = after(timeoutMs);
  const int err = sendPacket(sock, buffer, size, nullptr, 0, deadline);
  return err != 0 ? err : awaitAnswer(sock, buffer, capacity, kind, seq, deadline, answer, closing);
}

socklen_t socketAddress(const std::string& path, sockaddr_un* out) {
  *out = sockaddr_un{};
  out->sun_family = AF_UNIX;
  const bool abstract = abstractSocket(path);
  // A path needs its terminator; an abstract name is as long as it is.
  if (path.empty() || path.size() + (abstract ? 0 : 1) > sizeof(out->sun_path)) return 0;
  memcpy(out->sun_path, path.data(), path.size());
  if (abstract) out->sun_path[0] = '\0';
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + (abstract ? 0 : 1));
}

int connectTo(const std::string& path, int timeoutMs, UniqueFd* out) {
  sockaddr_un addr{};
  const socklen_t length = socketAddress(path, &addr);
  if (length == 0) return -ENAMETOOLONG;
  UniqueFd sock(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!sock) return -errno;
  // A listener whose backlog is full keeps connect() waiting, as long as the send timeout says.
  timeval tv{timeoutMs / 1000, static_cast<suseconds_t>(timeoutMs % 1000) * 1000};
  if (setsockopt(sock.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0) return -errno;
  int done;
  do {
    done = connect(sock.get(), reinterpret_cast<const sockaddr*>(&addr), length);
  } while (done != 0 && errno == EINTR);
  if (done != 0) return errno == EAGAIN || errno == EINPROGRESS ? -ETIMEDOUT : -errno;
  *out = std::move(sock);
  return 0;
}

}  // namespace peer
}  // namespace vrocam
