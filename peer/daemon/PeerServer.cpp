// SPDX-License-Identifier: Apache-2.0
// PeerServer: the socket, the serving rounds, the client slots and the budgets.
#include "PeerServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Budget.h"
#include "Connection.h"
#include "PeerLog.h"

namespace vrocam {
namespace peer {

namespace {

// "200 ms" or "30 s".
std::string duration(std::chrono::milliseconds ms) {
  return ms.count() % 1000 != 0 ? std::to_string(ms.count()) + " ms"
                                : std::to_string(ms.count() / 1000) + " s";
}

// Creates the missing directories of path, each with mode 0700, adding them to *made. 0, or a
// negative errno.
int makeDirectories(const std::string& path, std::vector<std::string>* made) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), 0700) == 0) {
      made->push_back(part);
    } else if (errno != EEXIST) {
      return -errno;
    }
    if (slash == std::string::npos) return 0;
  }
}

}  // namespace

PeerServer::PeerServer(const ServerLimits& limits)
    : mLimits(limits),
      mBudget(limits.maxMemories != 0 ? limits.maxMemories : SIZE_MAX),
      mIn(new uint8_t[kMaxMessage]),
      mOut(new uint8_t[kMaxMessage]) {}

PeerServer::~PeerServer() {
  const size_t memories = this->memories();
  const size_t clients = this->clients();
  mConnections.clear();
  struct stat st {};
  if (!mPath.empty() && lstat(mPath.c_str(), &st) == 0 && st.st_ino == mInode) {
    unlink(mPath.c_str());
  }
  for (auto dir = mMadeDirectories.rbegin(); dir != mMadeDirectories.rend(); ++dir) {
    rmdir(dir->c_str());  // only when empty: what others put there stays
  }
  if (mListen) peerLog('I', "stopped: released %zu memories of %zu clients", memories, clients);
}

size_t PeerServer::clients() const {
  size_t joined = 0;
  for (const auto& connection : mConnections) joined += connection->joined;
  return joined;
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
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "."
                          : slash == 0               ? "/"
                                                     : path.substr(0, slash);
  int err = makeDirectories(dir, &mMadeDirectories);
  UniqueFd lock(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (err == 0 && !lock) err = -errno;
  // Peers that start together take turns in the directory: one that binds has listened before
  // the next one looks, so the next one finds it serving, not a stale socket to replace.
  while (err == 0 && flock(lock.get(), LOCK_EX) != 0) {
    if (errno != EINTR) err = -errno;
  }
  const Budget budget = planBudget(mLimits.maxClients, mLimits.maxMemories);
  if (err == 0 && budget.memories == 0) {
    peerLog('E', "cannot serve %s: %s", path.c_str(), budget.shortfall.c_str());
    err = -EMFILE;
  }
  UniqueFd sock(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (err == 0 && !sock) err = -errno;
  // bind() gives the file the socket's mode less the umask: never more than 0600.
  if (err == 0 && fchmod(sock.get(), 0600) != 0) err = -errno;
  if (err != 0) return err;
  const auto* name = reinterpret_cast<const sockaddr*>(&addr);
  if (bind(sock.get(), name, sizeof(addr)) != 0) {
    if (errno != EADDRINUSE) return -errno;
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return -errno;
    if (!S_ISSOCK(st.st_mode)) return -EEXIST;
    UniqueFd probe;
    const int probed = connectTo(path, 1000, &probe);
    if (probed == 0) return -EADDRINUSE;
    if (probed != -ECONNREFUSED) return probed;
    // Nobody serves the socket any more: it was left by a peer that did not stop cleanly.
    if (unlink(path.c_str()) != 0 || bind(sock.get(), name, sizeof(addr)) != 0) return -errno;
  }
  struct stat st {};
  if (::listen(sock.get(), 64) != 0 || lstat(path.c_str(), &st) != 0) {
    err = -errno;
    unlink(path.c_str());
    return err;
  }
  mReserve.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
  mListen = std::move(sock);
  mPath = path;
  mInode = st.st_ino;
  mBudget = budget.memories;
  peerLog('I', "serving %s (per client at most %u memories and %llu bytes; at most %u clients)",
          path.c_str(), mLimits.perClient.maxMemories,
          static_cast<unsigned long long>(mLimits.perClient.maxBytes), mLimits.maxClients);
  peerLog('I',
          "budget: at most %zu memories in all (descriptor limit %zu, mapping limit %zu); an idle "
          "client holding nothing gives up its slot after %s; an unfinished batch or an untaken "
          "answer is dropped after %s",
          mBudget, budget.descriptors, budget.mappings, duration(mLimits.idleTimeout).c_str(),
          duration(mLimits.batchTimeout).c_str());
  return 0;
}

void PeerServer::adopt(UniqueFd sock, pid_t pid, uid_t uid) {
  fcntl(sock.get(), F_SETFL, fcntl(sock.get(), F_GETFL) | O_NONBLOCK);
  mConnections.push_back(
      std::make_unique<Connection>(std::move(sock), pid, uid, mNextSerial++, mLimits.perClient));
  mConnections.back()->since = Clock::now();
}

int PeerServer::run(int stopFd) {
  for (;;) {
    const int result = round(stopFd, -1);
    if (result <= 0) return result;
  }
}

int PeerServer::waitMs(Clock::time_point now) const {
  Clock::time_point next = Clock::time_point::max();
  for (const auto& connection : mConnections) {
    if (connection->command.memory != nullptr && connection->unsent.empty()) return 0;
    if (connection->table.batchOpen() || !connection->unsent.empty()) {
      next = std::min(next, connection->since + mLimits.batchTimeout);
    }
  }
  if (peerLogPending()) next = std::min(next, now + std::chrono::seconds(1));
  if (next == Clock::time_point::max()) return -1;
  const auto ms = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
  return ms <= 0 ? 0 : static_cast<int>(std::min<long long>(ms, 60000));
}

int PeerServer::round(int stopFd, int waitMs) {
  std::vector<pollfd> polled;
  polled.push_back(pollfd{mListen.get(), POLLIN, 0});
  polled.push_back(pollfd{stopFd, POLLIN, 0});
  for (const auto& connection : mConnections) {
    const short events = !connection->unsent.empty()             ? POLLOUT
                         : connection->command.memory != nullptr ? 0
                                                                 : POLLIN;
    polled.push_back(pollfd{connection->sock.get(), events, 0});
  }
  int timeout = this->waitMs(Clock::now());
  if (waitMs >= 0 && (timeout < 0 || waitMs < timeout)) timeout = waitMs;
  if (poll(polled.data(), polled.size(), timeout) < 0) return errno == EINTR ? 1 : -errno;
  if (polled[1].revents != 0) return 0;
  const Clock::time_point now = Clock::now();
  // Each client gets at most one request or one slice per round, so that none waits on another.
  // The newest come first: a client that ended before an older one's request is dropped before
  // that request is answered.
  for (size_t i = mConnections.size(); i-- > 0;) {
    Connection& connection = *mConnections[i];
    const short events = polled[i + 2].revents;
    const char* why = nullptr;
    if (connection.gone) continue;
    if ((events & (POLLERR | POLLNVAL)) != 0 || (events & (POLLHUP | POLLIN)) == POLLHUP) {
      why = "disconnected";
    } else if (!connection.unsent.empty()) {
      if ((events & POLLOUT) != 0) why = flush(connection);
      if (why == nullptr && !connection.unsent.empty() &&
          now - connection.since >= mLimits.batchTimeout) {
        why = "dropped: it left its answer untaken too long";
      }
    } else if (connection.command.memory != nullptr) {
      why = advance(connection);
    } else if ((events & POLLIN) != 0) {
      why = serve(connection);
    }
    if (why != nullptr) drop(connection, why, 0);
  }
  expireBatches(now);
  mConnections.erase(std::remove_if(mConnections.begin(), mConnections.end(),
                                    [](const auto& connection) { return connection->gone; }),
                     mConnections.end());
  if ((polled[0].revents & POLLIN) != 0) accept();
  flushPeerLog();
  return 1;
}

void PeerServer::expireBatches(Clock::time_point now) {
  for (const auto& connection : mConnections) {
    ClientTable& table = connection->table;
    if (!table.batchOpen() || now - connection->since < mLimits.batchTimeout) continue;
    peerLog('W',
            "client pid %d uid %u: dropped an unfinished batch of %zu memories (%llu bytes): its "
            "next part did not come within %s",
            connection->pid, connection->uid, table.staged(),
            static_cast<unsigned long long>(table.stagedBytes()),
            duration(mLimits.batchTimeout).c_str());
    mHeld -= table.staged();
    table.abandonBatch();
  }
}

void PeerServer::refuse(UniqueFd sock, int reason) {
  Answer closing;
  closing.kind = answerKind(Kind::Closing);
  closing.status = reason;
  const size_t length = encodeAnswer(mOut.get(), kMaxMessage, closing);
  sendPacket(sock.get(), mOut.get(), length, nullptr, 0, Deadline::min());
}

void PeerServer::accept() {
  UniqueFd sock(accept4(mListen.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!sock) {
    if ((errno == EMFILE || errno == ENFILE) && mReserve) {
      // Out of descriptors: take the client off the queue and refuse it, or poll would spin. The
      // refusal is closed before the reserve is taken again, so that the reserve is there next
      // time.
      mReserve.reset();
      refuse(UniqueFd(accept4(mListen.get(), nullptr, nullptr, SOCK_CLOEXEC)), -EMFILE);
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
    return refuse(std::move(sock), -EACCES);
  }
  if (mConnections.size() >= mLimits.maxClients + kVisitors && !reclaimIdleSlot()) {
    peerLog('W', "refused client pid %d uid %u: already %zu clients", cred.pid, cred.uid,
            clients());
    return refuse(std::move(sock), -EUSERS);
  }
  adopt(std::move(sock), cred.pid, cred.uid);
}

bool PeerServer::join(Connection& connection) {
  if (clients() >= mLimits.maxClients && !reclaimIdleSlot()) {
    peerLog('W', "refused client pid %d uid %u: already %zu clients", connection.pid,
            connection.uid, clients());
    return false;
  }
  connection.joined = true;
  peerLog('I', "client pid %d uid %u connected", connection.pid, connection.uid);
  return true;
}

bool PeerServer::reclaimIdleSlot() {
  const Clock::time_point now = Clock::now();
  Connection* idlest = nullptr;
  for (const auto& connection : mConnections) {
    if (connection->gone || connection->busy() ||
        connection->table.held() != 0 || now - connection->since < mLimits.idleTimeout) {
      continue;
    }
    if (idlest == nullptr || connection->since < idlest->since) idlest = connection.get();
  }
  if (idlest == nullptr) return false;
  drop(*idlest, "gave up its slot to a new client: idle and holding nothing", -ETIMEDOUT);
  return true;
}

void PeerServer::drop(Connection& gone, const char* why, int reason) {
  const ClientTable& table = gone.table;
  if (gone.joined) {
    char staged[96] = "";
    if (table.staged() != 0) {
      snprintf(staged, sizeof(staged), " and %zu staged (%llu bytes)", table.staged(),
               static_cast<unsigned long long>(table.stagedBytes()));
    }
    peerLog('I', "client pid %d uid %u %s: released %zu memories (%llu bytes)%s", gone.pid,
            gone.uid, why, table.memories().size(), static_cast<unsigned long long>(table.bytes()),
            staged);
  }
  if (reason != 0) refuse(std::move(gone.sock), reason);
  mHeld -= table.held();
  gone.gone = true;
  gone.joined = false;
  gone.command = LongCommand();
  gone.table.clear();
  gone.sock.reset();
}

}  // namespace peer
}  // namespace vrocam
