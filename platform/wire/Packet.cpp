// SPDX-License-Identifier: Apache-2.0
// SOCK_SEQPACKET messages with SCM_RIGHTS.
#include "Packet.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "PeerWire.h"

namespace vrowire {

int sendPacket(int sock, const void* data, size_t size, const int* fds, size_t fdCount, int flags) {
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
  ssize_t sent;
  do {
    sent = sendmsg(sock, &msg, flags | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return errno == EAGAIN ? -ETIMEDOUT : -errno;
  return static_cast<size_t>(sent) == size ? 0 : -EMSGSIZE;
}

ssize_t recvPacket(int sock, void* buffer, size_t capacity, Received* out, int flags) {
  out->fds.clear();
  iovec iov{buffer, capacity};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)];
  msg.msg_control = control;
  msg.msg_controllen = sizeof(control);
  ssize_t got;
  do {
    got = recvmsg(sock, &msg, flags | MSG_CMSG_CLOEXEC);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return errno == EAGAIN ? -ETIMEDOUT : -errno;
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

int receiveAnswer(int sock, uint8_t* buffer, size_t capacity, uint16_t kind, uint32_t seq,
                  Answer* answer) {
  Received received;
  const ssize_t got = recvPacket(sock, buffer, capacity, &received);
  if (got < 0) return static_cast<int>(got);
  if (got == 0) return -ECONNRESET;
  if (received.truncated || !received.fds.empty() ||
      decodeAnswer(buffer, static_cast<size_t>(got), answer) != 0 || answer->seq != seq ||
      answer->kind != (kAnswer | kind)) {
    return -EPROTO;
  }
  return 0;
}

int roundTrip(int sock, uint8_t* buffer, size_t capacity, size_t size, Answer* answer) {
  if (size < kHeaderSize) return -EINVAL;
  Reader header(buffer, kHeaderSize);
  header.u16();
  const uint16_t kind = header.u16();
  const uint32_t seq = header.u32();
  const int err = sendPacket(sock, buffer, size, nullptr, 0);
  return err != 0 ? err : receiveAnswer(sock, buffer, capacity, kind, seq, answer);
}

int setTimeouts(int sock, int timeoutMs) {
  timeval tv{};
  if (timeoutMs > 0) {
    tv.tv_sec = timeoutMs / 1000;
    tv.tv_usec = static_cast<suseconds_t>(timeoutMs % 1000) * 1000;
  }
  if (setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) != 0 ||
      setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0) {
    return -errno;
  }
  return 0;
}

int connectTo(const std::string& path, int timeoutMs, UniqueFd* out) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(addr.sun_path)) return -ENAMETOOLONG;
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  UniqueFd sock(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!sock) return -errno;
  const int timeouts = setTimeouts(sock.get(), timeoutMs);
  if (timeouts != 0) return timeouts;
  int done;
  do {
    done = connect(sock.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
  } while (done != 0 && errno == EINTR);
  if (done != 0) return errno == EAGAIN ? -ETIMEDOUT : -errno;
  *out = std::move(sock);
  return 0;
}

}  // namespace vrowire
