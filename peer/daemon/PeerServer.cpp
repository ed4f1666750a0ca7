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
#include <map>
#include <new>

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

// The same file: the directory at a path still the one opened.
bool same(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

PeerServer::PeerServer(const ServerLimits& limits)
    : mLimits(limits), mIn(new uint8_t[kMaxMessage]), mOut(new uint8_t[kMaxMessage]) {
  // Until listen() plans the budgets, as given (a server that only adopts connections).
  mBudget.memories = limits.maxMemories != 0 ? limits.maxMemories : SIZE_MAX;
  mBudget.addressSpace = limits.maxAddressSpace != 0 ? limits.maxAddressSpace : UINT64_MAX;
  mShare = shareOf(limits.perClient, mBudget, limits.maxClients);
}

PeerServer::~PeerServer() {
  const size_t memories = this->memories();
  const size_t clients = this->clients();
  struct stat st {};
  if (!mPath.empty() && lstat(mPath.c_str(), &st) == 0 && st.st_ino == mInode) {
    unlink(mPath.c_str());
  }
  for (auto dir = mMadeDirectories.rbegin(); dir != mMadeDirectories.rend(); ++dir) {
    rmdir(dir->c_str());  // only when empty: what others put there stays
  }
  for (const auto& connection : mConnections) letGo(*connection);
  if (mListen) {
    peerLog('I', "stopped: released %s of %s", counted(memories, "memory", "memories").c_str(),
            counted(clients, "client", "clients").c_str());
  }
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

size_t PeerServer::held() const {
  size_t total = mReaper.memories();
  for (const auto& connection : mConnections) total += connection->table.held();
  return total;
}

Room PeerServer::room() const {
  size_t held = mReaper.memories();
  uint64_t length = mReaper.length();
  for (const auto& connection : mConnections) {
    held += connection->table.held();
    length += connection->table.length();
  }
  return Room{mBudget.memories > held ? mBudget.memories - held : 0,
              mBudget.addressSpace > length ? mBudget.addressSpace - length : 0};
}

void PeerServer::reap(Connection& connection) {
  // Small memories go at once, up to kInlineFree a round, so that what a client let go of is free
  // for its next request; the rest goes to the reaper.
  std::vector<Memory> released = connection.table.takeReleased();
  std::vector<Memory> later;
  for (Memory& memory : released) {
    const size_t length = memory.mapping.size();
    if (length > kInlineFree - mFreedInline) {
      later.push_back(std::move(memory));
    } else {
      mFreedInline += length;
    }
  }
  mReaper.take(std::move(later));
}  // what stayed in released is unmapped and closed here

int PeerServer::openDirectory(const std::string& dir, UniqueFd* out) {
  const size_t madeBefore = mMadeDirectories.size();
  const int err = makeDirectories(dir, &mMadeDirectories);
  if (err != 0) return err;
  if (mMadeDirectories.size() > madeBefore) {
    out->reset(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return *out ? 0 : -errno;
  }
  // It was there: another user must not be able to swap the socket in it, or the directory.
  struct stat st {};
  std::string problem;
  if (lstat(dir.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
    problem = "is a symbolic link";
  } else {
    out->reset(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!*out || fstat(out->get(), &st) != 0) return -errno;
    if (st.st_uid != geteuid() && st.st_uid != 0) {
      problem = "belongs to uid " + std::to_string(st.st_uid);
    } else if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
      char mode[64];
      snprintf(mode, sizeof(mode), "can be written by others (mode %04o)", st.st_mode & 07777);
      problem = mode;
    }
  }
  if (problem.empty()) return 0;
  peerLog('E', "cannot serve in %s: the directory %s; use one that only this user can write to",
          dir.c_str(), problem.c_str());
  return -EPERM;
}

int PeerServer::lockDirectory(const std::string& path, int stopFd, std::string* dir,
                              UniqueFd* lock) {
  const size_t slash = path.rfind('/');
  *dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  int err = openDirectory(*dir, lock);
  // Peers that start together take turns in the directory: one that binds has listened before
  // the next one looks, so the next one finds it serving, not a stale socket to replace. A lock
  // that stays taken ends the wait, and so does a stop.
  const Deadline deadline = after(kLockWaitMs);
  while (err == 0 && flock(lock->get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      err = -errno;
    } else if (Clock::now() >= deadline) {
      peerLog('E', "cannot serve %s: another process has held the lock of %s for %s", path.c_str(),
              dir->c_str(), duration(std::chrono::milliseconds(kLockWaitMs)).c_str());
      err = -ETIMEDOUT;
    } else if (pollfd stop{stopFd, POLLIN, 0}; poll(&stop, 1, 10) > 0) {
      err = -EINTR;
    }
  }
  return err;
}

int PeerServer::bindPath(int sock, const std::string& path, const sockaddr_un& addr,
                         socklen_t length, const std::string& dir, int lock) {
  const auto* name = reinterpret_cast<const sockaddr*>(&addr);
  if (bind(sock, name, length) != 0) {
    if (errno != EADDRINUSE) return -errno;
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return -errno;
    if (!S_ISSOCK(st.st_mode)) return -EEXIST;
    UniqueFd probe;
    const int probed = connectTo(path, 1000, &probe);
    if (probed == 0) return -EADDRINUSE;
    if (probed != -ECONNREFUSED) return probed;
    // Nobody serves the socket any more: it was left by a peer that did not stop cleanly.
    if (unlink(path.c_str()) != 0 || bind(sock, name, length) != 0) return -errno;
  }
  struct stat st {
  }, opened{}, named{};
  if (::listen(sock, 64) != 0 || lstat(path.c_str(), &st) != 0) {
    const int err = -errno;
    unlink(path.c_str());
    return err;
  }
  if (fstat(lock, &opened) != 0 || stat(dir.c_str(), &named) != 0 || !same(opened, named)) {
    peerLog('E', "cannot serve %s: its directory was replaced while the peer started",
            path.c_str());
    return -EPERM;
  }
  mPath = path;
  mInode = st.st_ino;
  return 0;
}

int PeerServer::listen(const std::string& path, int stopFd) {
  sockaddr_un addr{};
  const socklen_t length = socketAddress(path, &addr);
  if (length == 0) return -ENAMETOOLONG;
  const bool abstract = abstractSocket(path);
  std::string dir;
  UniqueFd lock;
  int err = abstract ? 0 : lockDirectory(path, stopFd, &dir, &lock);
  const Budget budget =
      planBudget(mLimits.maxClients, mLimits.maxMemories, mLimits.maxAddressSpace);
  if (err == 0 && budget.memories == 0) {
    peerLog('E', "cannot serve %s: %s", path.c_str(), budget.shortfall.c_str());
    err = -EMFILE;
  }
  UniqueFd sock(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (err == 0 && !sock) err = -errno;
  // bind() gives the file the socket's mode less the umask: never more than 0600.
  if (err == 0 && fchmod(sock.get(), 0600) != 0) err = -errno;
  if (err != 0) return err;
  if (abstract) {
    // Nothing on disk: a name taken is served by someone, and a peer's name goes with it.
    const auto* name = reinterpret_cast<const sockaddr*>(&addr);
    if (bind(sock.get(), name, length) != 0 || ::listen(sock.get(), 64) != 0) return -errno;
  } else if ((err = bindPath(sock.get(), path, addr, length, dir, lock.get())) != 0) {
    return err;
  }
  mReserve.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
  mListen = std::move(sock);
  mBudget = budget;
  mShare = shareOf(mLimits.perClient, budget, mLimits.maxClients);
  peerLog('I', "serving %s (per client at most %s and %llu bytes; at most %s)", path.c_str(),
          counted(mShare.maxMemories, "memory", "memories").c_str(),
          static_cast<unsigned long long>(mShare.maxBytes),
          counted(mLimits.maxClients, "client", "clients").c_str());
  peerLog('I',
          "budget: at most %zu memories in all (descriptor limit %zu, mapping limit %zu) and %llu "
          "bytes of address space; an idle client holding nothing gives up its slot after %s; an "
          "unfinished batch or an untaken answer is dropped after %s",
          mBudget.memories, budget.descriptors, budget.mappings,
          static_cast<unsigned long long>(mBudget.addressSpace),
          duration(mLimits.idleTimeout).c_str(), duration(mLimits.batchTimeout).c_str());
  return 0;
}

void PeerServer::adopt(UniqueFd sock, pid_t pid, uid_t uid) {
  fcntl(sock.get(), F_SETFL, fcntl(sock.get(), F_GETFL) | O_NONBLOCK);
  mConnections.push_back(
      std::make_unique<Connection>(std::move(sock), pid, uid, mNextSerial++, mShare));
  mConnections.back()->since = Clock::now();
}

void PeerServer::adoptControl(UniqueFd sock) {
  adopt(std::move(sock), getppid(), geteuid());
  mConnections.back()->control = true;
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
    if (!connection->kept.empty()) next = std::min(next, connection->keptUntil);
  }
  if (peerLogPending()) next = std::min(next, now + std::chrono::seconds(1));
  if (next == Clock::time_point::max()) return -1;
  const auto ms = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
  return ms <= 0 ? 0 : static_cast<int>(std::min<long long>(ms, 60000));
}

const char* PeerServer::turn(Connection& connection) {
  connection.served = mRound;
  try {
    return connection.command.memory != nullptr ? advance(connection) : serve(connection);
  } catch (const std::bad_alloc&) {
    // Nothing of the request was kept; the client is told, and what it holds is freed.
    drop(connection, "dropped: the peer ran out of memory serving it", -ENOMEM);
    return nullptr;
  }
}

int PeerServer::round(int stopFd, int waitMs) {
  std::vector<pollfd> polled;
  polled.push_back(pollfd{mListen.get(), POLLIN, 0});
  polled.push_back(pollfd{stopFd, POLLIN, 0});
  for (const auto& connection : mConnections) {
    const short events = !connection->unsent.empty() ? POLLOUT
                         : connection->command.memory != nullptr || !connection->kept.empty()
                             ? 0
                             : POLLIN;
    polled.push_back(pollfd{connection->sock.get(), events, 0});
  }
  int timeout = this->waitMs(Clock::now());
  if (waitMs >= 0 && (timeout < 0 || waitMs < timeout)) timeout = waitMs;
  if (poll(polled.data(), polled.size(), timeout) < 0) return errno == EINTR ? 1 : -errno;
  if (polled[1].revents != 0) return 0;
  const Clock::time_point now = Clock::now();
  ++mRound;
  mFreedInline = 0;
  // First the connections that ended, the newest first, and the answers that wait for room: a
  // client that ended before an older one's request is dropped before that request is answered.
  for (size_t i = mConnections.size(); i-- > 0;) {
    Connection& connection = *mConnections[i];
    const short events = connection.revents = polled[i + 2].revents;
    const char* why = nullptr;
    if (connection.gone) continue;
    if ((events & (POLLERR | POLLNVAL)) != 0 || (events & (POLLHUP | POLLIN)) == POLLHUP) {
      why = "disconnected";
    } else if (!connection.kept.empty() && now >= connection.keptUntil) {
      connection.unsent = std::move(connection.kept);  // what a fault rule kept back goes now
      connection.kept.clear();
      connection.since = now;
      why = flush(connection);
    } else if (!connection.unsent.empty()) {
      if ((events & POLLOUT) != 0) why = flush(connection);
      if (why == nullptr && !connection.unsent.empty() &&
          now - connection.since >= mLimits.batchTimeout) {
        why = "dropped: it left its answer untaken too long";
      }
    }
    if (why != nullptr) drop(connection, why, 0);
  }
  // Then each client process gets one turn, however many connections it has: the one of them
  // with something to do that had its turn longest ago.
  std::map<std::pair<uid_t, pid_t>, Connection*> turns;
  for (const auto& connection : mConnections) {
    const bool ready = connection->command.memory != nullptr || (connection->revents & POLLIN);
    if (connection->gone || !connection->unsent.empty() || !connection->kept.empty() || !ready) {
      continue;
    }
    Connection*& chosen = turns[{connection->uid, connection->pid}];
    if (chosen == nullptr || connection->served < chosen->served) chosen = connection.get();
  }
  for (const auto& [process, connection] : turns) {
    if (const char* why = turn(*connection)) drop(*connection, why, 0);
  }
  expireBatches(now);
  mConnections.erase(std::remove_if(mConnections.begin(), mConnections.end(),
                                    [](const auto& connection) { return connection->gone; }),
                     mConnections.end());
  if ((polled[0].revents & POLLIN) != 0 && mExitCode < 0) {
    try {
      accept();
    } catch (const std::bad_alloc&) {  // the connection is closed on the way out
      peerLog(LogKind::Refused, 'W', "refused a client: out of memory");
    }
  }
  flushPeerLog();
  return mExitCode < 0 ? 1 : 0;  // a fault rule may end the peer
}

void PeerServer::expireBatches(Clock::time_point now) {
  for (const auto& connection : mConnections) {
    ClientTable& table = connection->table;
    if (!table.batchOpen() || now - connection->since < mLimits.batchTimeout) continue;
    peerLog('W',
            "client pid %d uid %u: dropped an unfinished batch of %s (%llu bytes): its next part "
            "did not come within %s",
            connection->pid, connection->uid, counted(table.staged(), "memory", "memories").c_str(),
            static_cast<unsigned long long>(table.stagedBytes()),
            duration(mLimits.batchTimeout).c_str());
    table.abandonBatch();
    reap(*connection);
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
      peerLog(LogKind::Refused, 'W', "refused a client: out of descriptors");
    }
    return;
  }
  ucred cred{};
  socklen_t length = sizeof(cred);
  if (getsockopt(sock.get(), SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0) return;
  if (cred.uid != geteuid() && cred.uid != 0) {
    peerLog(LogKind::Refused, 'W', "refused client pid %d uid %u: neither the peer's uid nor root",
            cred.pid, cred.uid);
    traceMark("client refused", cred.pid, "neither the peer's uid nor root");
    return refuse(std::move(sock), -EACCES);
  }
  const Fault fault = mFaults ? inject("accept", cred.pid, "accept") : Fault();
  if (fault.action == FaultAction::Errno) return refuse(std::move(sock), -fault.value);
  if (fault.action != FaultAction::None) return;  // closed, or the peer ends
  const auto controls = std::count_if(mConnections.begin(), mConnections.end(),
                                      [](const auto& connection) { return connection->control; });
  if (mConnections.size() - controls >= mLimits.maxClients + kVisitors && !reclaimIdleSlot()) {
    peerLog(LogKind::Refused, 'W', "refused client pid %d uid %u: already %s", cred.pid, cred.uid,
            counted(clients(), "client", "clients").c_str());
    traceMark("client refused", cred.pid, "every slot is taken");
    return refuse(std::move(sock), -EUSERS);
  }
  adopt(std::move(sock), cred.pid, cred.uid);
}

bool PeerServer::join(Connection& connection) {
  if (clients() >= mLimits.maxClients && !reclaimIdleSlot()) {
    peerLog(LogKind::Refused, 'W', "refused client pid %d uid %u: already %s", connection.pid,
            connection.uid, counted(clients(), "client", "clients").c_str());
    traceMark("client refused", connection.pid, "every client slot is taken");
    return false;
  }
  connection.joined = true;
  peerLog(LogKind::Connected, 'I', "client pid %d uid %u connected", connection.pid,
          connection.uid);
  traceMark("client connected", connection.pid, "");
  return true;
}

bool PeerServer::reclaimIdleSlot() {
  const Clock::time_point now = Clock::now();
  Connection* idlest = nullptr;
  for (const auto& connection : mConnections) {
    if (connection->gone || connection->control || connection->busy() ||
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
  ClientTable& table = gone.table;
  if (gone.joined) {
    std::string staged;
    if (table.staged() != 0) {
      staged = " and " + std::to_string(table.staged()) + " staged (" +
               std::to_string(table.stagedBytes()) + " bytes)";
    }
    peerLog(LogKind::Disconnected, 'I', "client pid %d uid %u %s: released %s (%llu bytes)%s",
            gone.pid, gone.uid, why, counted(table.memories().size(), "memory", "memories").c_str(),
            static_cast<unsigned long long>(table.bytes()), staged.c_str());
    if (mTrace) {
      traceMark("client gone", gone.pid,
                std::string(why) + ": released " + counted(table.held(), "memory", "memories") +
                    " (" + std::to_string(table.bytes() + table.stagedBytes()) + " bytes)");
    }
  }
  if (reason != 0) refuse(std::move(gone.sock), reason);
  gone.gone = true;
  gone.joined = false;
  letGo(gone);
  gone.sock.reset();
  if (!gone.control) traceHoldings(gone);
}

void PeerServer::letGo(Connection& connection) {
  connection.command = LongCommand();
  connection.table.clear();
  reap(connection);
}

}  // namespace peer
}  // namespace vrocam
