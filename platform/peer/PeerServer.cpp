// SPDX-License-Identifier: Apache-2.0
// PeerServer: the socket, the poll loop, the clients' requests and the status text.
#include "PeerServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "HostLogLine.h"
#include "Packet.h"

namespace vropeer {

using vrowire::Kind;
using vrowire::UniqueFd;

struct PeerServer::Connection {
  Connection(UniqueFd socket, const ucred& cred, const Limits& limits)
      : sock(std::move(socket)), pid(cred.pid), uid(cred.uid), table(limits) {}

  UniqueFd sock;
  pid_t pid;
  uid_t uid;
  ClientTable table;
  std::string statusText;  // the snapshot that Status pages are served from
};

void peerLog(char level, const char* format, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, format);
  vsnprintf(text, sizeof(text), format, ap);
  va_end(ap);
  vrocam_host::writeLogLine(level, "vrocam_ipc_peer", text);
}

PeerServer::PeerServer(const ServerLimits& limits)
    : mLimits(limits),
      mIn(new uint8_t[vrowire::kMaxMessage]),
      mOut(new uint8_t[vrowire::kMaxMessage]) {}

PeerServer::~PeerServer() {
  size_t memories = this->memories();
  const size_t clients = mConnections.size();
  mConnections.clear();
  struct stat st {};
  if (!mPath.empty() && lstat(mPath.c_str(), &st) == 0 && st.st_ino == mInode) {
    unlink(mPath.c_str());
  }
  if (mListen) peerLog('I', "stopped: released %zu memories of %zu clients", memories, clients);
}

size_t PeerServer::memories() const {
  size_t total = 0;
  for (const auto& connection : mConnections) total += connection->table.memories().size();
  return total;
}

int PeerServer::listen(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(addr.sun_path)) return -ENAMETOOLONG;
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  UniqueFd sock(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!sock) return -errno;
  // bind() gives the file the socket's mode less the umask: never more than 0600.
  if (fchmod(sock.get(), 0600) != 0) return -errno;
  const auto* name = reinterpret_cast<const sockaddr*>(&addr);
  if (bind(sock.get(), name, sizeof(addr)) != 0) {
    if (errno != EADDRINUSE) return -errno;
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return -errno;
    if (!S_ISSOCK(st.st_mode)) return -EEXIST;
    UniqueFd probe;
    const int probed = vrowire::connectTo(path, 1000, &probe);
    if (probed == 0) return -EADDRINUSE;
    if (probed != -ECONNREFUSED) return probed;
    // Nobody serves the socket any more: it was left by a peer that did not stop cleanly.
    if (unlink(path.c_str()) != 0 || bind(sock.get(), name, sizeof(addr)) != 0) return -errno;
  }
  struct stat st {};
  if (::listen(sock.get(), 64) != 0 || lstat(path.c_str(), &st) != 0) {
    const int err = -errno;
    unlink(path.c_str());
    return err;
  }
  mReserve.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
  mListen = std::move(sock);
  mPath = path;
  mInode = st.st_ino;
  peerLog('I', "serving %s (per client at most %u memories and %llu bytes; at most %u clients)",
          path.c_str(), mLimits.perClient.maxMemories,
          static_cast<unsigned long long>(mLimits.perClient.maxBytes), mLimits.maxClients);
  return 0;
}

int PeerServer::run(int stopFd) {
  std::vector<pollfd> polled;
  for (;;) {
    polled.clear();
    polled.push_back(pollfd{mListen.get(), POLLIN, 0});
    polled.push_back(pollfd{stopFd, POLLIN, 0});
    for (const auto& connection : mConnections) {
      polled.push_back(pollfd{connection->sock.get(), POLLIN, 0});
    }
    if (poll(polled.data(), polled.size(), -1) < 0) {
      if (errno == EINTR) continue;
      return -errno;
    }
    if (polled[1].revents != 0) return 0;
    // One message per client and round, so that no client can starve the others.
    for (size_t i = mConnections.size(); i-- > 0;) {
      if (polled[i + 2].revents == 0) continue;
      if (const char* why = serve(*mConnections[i])) drop(i, why);
    }
    if ((polled[0].revents & POLLIN) != 0) accept();
  }
}

void PeerServer::accept() {
  UniqueFd sock(accept4(mListen.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!sock) {
    if ((errno == EMFILE || errno == ENFILE) && mReserve) {
      // Out of descriptors: take the client off the queue and refuse it, or poll would spin. The
      // refusal is closed before the reserve is taken again, so that the reserve is there next
      // time.
      mReserve.reset();
      UniqueFd(accept4(mListen.get(), nullptr, nullptr, SOCK_CLOEXEC)).reset();
      mReserve.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
      peerLog('W', "refused a client: out of descriptors");
    }
    return;
  }
  ucred cred{};
  socklen_t length = sizeof(cred);
  if (getsockopt(sock.get(), SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0) return;
  if (cred.uid != geteuid() && cred.uid != 0) {
    peerLog('W', "refused client pid %d uid %u: neither the peer's uid nor root", cred.pid,
            cred.uid);
    return;
  }
  if (mConnections.size() >= mLimits.maxClients) {
    peerLog('W', "refused client pid %d uid %u: already %zu clients", cred.pid, cred.uid,
            mConnections.size());
    return;
  }
  mConnections.push_back(std::make_unique<Connection>(std::move(sock), cred, mLimits.perClient));
  peerLog('I', "client pid %d uid %u connected", cred.pid, cred.uid);
}

void PeerServer::drop(size_t index, const char* why) {
  const Connection& gone = *mConnections[index];
  peerLog('I', "client pid %d uid %u %s: released %zu memories (%llu bytes)", gone.pid, gone.uid,
          why, gone.table.memories().size(), static_cast<unsigned long long>(gone.table.bytes()));
  mConnections.erase(mConnections.begin() + static_cast<std::ptrdiff_t>(index));
}

const char* PeerServer::serve(Connection& connection) {
  vrowire::Received& received = mReceived;
  const ssize_t size = vrowire::recvPacket(connection.sock.get(), mIn.get(), vrowire::kMaxMessage,
                                           &received, MSG_DONTWAIT);
  if (size == -ETIMEDOUT) return nullptr;  // nothing there after all
  // An empty message cannot be told from the end of the connection: both end it.
  if (size <= 0) return "disconnected";

  vrowire::Request request;
  int status =
      vrowire::decodeRequest(mIn.get(), static_cast<size_t>(size), received.fds.size(), &request);
  if (received.truncated) status = -EMSGSIZE;
  if (received.fdsTruncated) status = -EMFILE;
  if (status != 0 || request.kind != Kind::Register) connection.table.abandonBatch();
  vrowire::Answer answer;
  if (status == 0) status = handle(connection, request, received.fds, answer);
  answer.kind = vrowire::kAnswer | static_cast<uint16_t>(request.kind);
  answer.seq = request.seq;
  answer.status = status;
  const size_t length = vrowire::encodeAnswer(mOut.get(), vrowire::kMaxMessage, answer);
  received.fds.clear();  // whatever the table did not keep is closed now
  // A client that does not read its answers is not waited for.
  if (length == 0 || vrowire::sendPacket(connection.sock.get(), mOut.get(), length, nullptr, 0,
                                         MSG_DONTWAIT) != 0) {
    return "dropped: it does not take its answers";
  }
  return nullptr;
}

int PeerServer::handle(Connection& connection, const vrowire::Request& request,
                       std::vector<UniqueFd>& fds, vrowire::Answer& answer) {
  ClientTable& table = connection.table;
  const Memory* memory = nullptr;
  switch (request.kind) {
    case Kind::Ping:
      return 0;
    case Kind::Register:
      return table.registerPart(request, fds);
    case Kind::Deregister:
      return table.deregister(request.handles);
    case Kind::Checksum:
      memory = table.find(request.handle);
      if (memory == nullptr) return -ENOENT;
      answer.word = vrowire::crc32(memory->mapping.data(), memory->size);
      answer.wide = memory->size;
      return 0;
    case Kind::Fill:
      memory = table.find(request.handle);
      if (memory == nullptr) return -ENOENT;
      if (!memory->writable) return -EACCES;
      memset(memory->mapping.data(), request.value, memory->size);
      return 0;
    case Kind::Holdings:
      answer.word = static_cast<uint32_t>(table.memories().size());
      answer.wide = table.bytes();
      return 0;
    case Kind::Status: {
      if (request.offset == 0) connection.statusText = status(connection);
      const std::string& text = connection.statusText;
      if (request.offset > text.size()) return -EINVAL;
      const size_t page = vrowire::kMaxMessage - vrowire::kHeaderSize - 8;
      answer.word = static_cast<uint32_t>(text.size());
      answer.text = text.substr(request.offset, page);
      return 0;
    }
  }
  return -EOPNOTSUPP;
}

std::string PeerServer::status(const Connection& asking) const {
  std::string out;
  char line[256];
  size_t clients = 0;
  size_t memories = 0;
  unsigned long long bytes = 0;
  for (const auto& connection : mConnections) {
    if (connection.get() == &asking) continue;
    const ClientTable& table = connection->table;
    snprintf(line, sizeof(line), "client pid %d uid %u: %zu memories, %llu bytes\n",
             connection->pid, connection->uid, table.memories().size(),
             static_cast<unsigned long long>(table.bytes()));
    out += line;
    for (const auto& entry : table.memories()) {
      const Memory& memory = entry.second;
      snprintf(line, sizeof(line), "  handle %d type %u size %llu%s name ", memory.handle,
               memory.type, static_cast<unsigned long long>(memory.size),
               memory.writable ? "" : " read-only");
      out += line + vrowire::escaped(memory.name) + "\n";
    }
    ++clients;
    memories += table.memories().size();
    bytes += table.bytes();
  }
  snprintf(line, sizeof(line), "total: %zu clients, %zu memories, %llu bytes\n", clients, memories,
           bytes);
  return out + line;
}

}  // namespace vropeer
