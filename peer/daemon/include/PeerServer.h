// SPDX-License-Identifier: Apache-2.0
// PeerServer: the peer process's side of the IPC link. It listens on an AF_UNIX SOCK_SEQPACKET
// socket and serves every client of its own uid or root's from one thread, fairly: each round
// gives each client process (however many connections it has) at most one request or one slice of
// a long command (about a megabyte of its memory, or one page of status), so no client waits on
// another's work. It keeps each connection's memories in a ClientTable and hands what a client
// lets go of to a Reaper thread that unmaps and closes it. It holds what it holds within budgets:
// client slots, memories in all (each a descriptor and a mapping), the address space of their
// mappings, each client's share of them, time a batch may stay unfinished, time an answer may stay
// untaken.
//
// Locking: none of its own. One thread runs everything (listen, adopt, run and the destructor);
// another thread may only make stopFd readable. The Reaper locks what it shares with this thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Budget.h"
#include "ClientTable.h"
#include "FaultRules.h"
#include "Packet.h"
#include "PeerWire.h"
#include "Reaper.h"
#include "TraceFile.h"
#include "UniqueFd.h"

namespace vrocam {
namespace peer {

struct ServerLimits {
  // What one client may hold; where 0, its share of the totals (shareOf in Budget.h).
  Limits perClient{0, 0};
  uint32_t maxClients = 64;
  // Memories of all clients together, staged ones and those being freed included; 0: as many as
  // the descriptor limit and the kernel's mapping limit leave room for.
  uint32_t maxMemories = 0;
  // Address space of the mappings of all clients' memories; 0: half of what the machine allows.
  uint64_t maxAddressSpace = 0;
  // A connection idle this long that holds nothing gives up its slot to a new client.
  std::chrono::milliseconds idleTimeout{30000};
  // A batch whose next part does not come within this time is dropped; so is a client that
  // leaves an answer untaken this long.
  std::chrono::milliseconds batchTimeout{10000};
};

class PeerServer {
 public:
  explicit PeerServer(const ServerLimits& limits);
  // Removes the socket file if it is still this server's, and the directories listen() made for
  // it if they are empty; then unmaps and closes everything.
  ~PeerServer();
  PeerServer(const PeerServer&) = delete;
  PeerServer& operator=(const PeerServer&) = delete;

  // Creates the socket at path (a name in the abstract namespace when it starts with '@', see
  // socketAddress in Packet.h) with mode 0600 (never wider, whatever the umask), and its
  // directory with mode 0700 when missing, plans the budgets and listens. An existing directory is
  // used only when it belongs to this user or root, is no symbolic link and nobody else may write
  // to it. Peers starting together take turns in the directory, each waiting at most kLockWaitMs.
  // A stale socket file that nobody serves is replaced. 0, or a negative errno: -EADDRINUSE when a
  // peer serves there already, -EEXIST when path is something other than a socket; with why
  // logged, -EPERM for a directory not to be used, -ETIMEDOUT when the directory stayed locked,
  // -EMFILE when the descriptor limit leaves no room for memories; -EINTR when stopFd became
  // readable meanwhile.
  int listen(const std::string& path, int stopFd = -1);
  static constexpr int kLockWaitMs = 2000;
  // Serves until stopFd (-1: none) becomes readable. 0, or a negative errno if polling failed.
  int run(int stopFd);
  // Serves an already connected socket as a client of pid and uid (for in-process use).
  void adopt(host::UniqueFd sock, pid_t pid, uid_t uid);
  // Serves a connection that the process which started the peer made before it (a socket pair):
  // no rule faults its requests, and it takes no client slot and is never given away.
  void adoptControl(host::UniqueFd sock);
  // Injects the faults of rules, and takes more from clients of its uid at run time (without it,
  // every request about faults is refused with -EPERM).
  void takeFaults(FaultRules rules);
  // When a fault rule ended the peer: the exit code it gave; otherwise -1.
  int exitCode() const { return mExitCode; }
  // Writes a trace of what it does into dir (peer-PID.json, see TraceFile.h): a slice per request,
  // bound by a flow to the client's call, a slice per slice of long work and per free, instants for
  // clients coming, going and refused and for faults fired, counters of what it holds. 0, or -1
  // when the file cannot be made (logged; the peer serves on without it).
  int traceTo(const std::string& dir, const std::string& processName,
              const trace::TraceLimits& limits);
  // One round of service, waiting at most waitMs for something to do (-1: as long as it takes):
  // 1 to go on, 0 when stopFd became readable, or a negative errno if polling failed.
  int round(int stopFd, int waitMs);

  // Connections that asked for more than the status; beside them, up to kVisitors connections
  // that only ask for the status are served, so that a peer full of clients still shows them.
  size_t clients() const;
  static constexpr size_t kVisitors = 4;
  size_t memories() const;
  // Memories held in all, staged ones and those being freed included, and how many may be held.
  size_t held() const;

  struct Connection;

 private:
  void accept();
  // Makes a connection a client, giving it a slot (taken from an idle client if need be): false
  // when none is left.
  bool join(Connection& connection);
  // Drops the connection idle longest that holds nothing, if one was idle long enough: whether
  // one was.
  bool reclaimIdleSlot();
  // Ends a connection, logging why if it was a client; reason (a negative errno), when not 0, is
  // sent to it first. The connection is erased at the end of the round.
  void drop(Connection& connection, const char* why, int reason);
  // Sends a Closing answer with reason on sock, which is then closed.
  void refuse(host::UniqueFd sock, int reason);
  // Reads and answers one message; null, or why the connection is to end.
  const char* serve(Connection& connection);
  // Carries out a well-formed request; its status, with the answer's fields filled in; or 1 when
  // the request became a long command that answers later.
  int handle(Connection& connection, const Request& request, std::vector<host::UniqueFd>& fds,
             Answer& answer);
  // One slice of the connection's long command; null, or why the connection is to end.
  const char* advance(Connection& connection);
  // Sends the answer, or keeps it until the client takes it; null, or why the connection ends.
  const char* answer(Connection& connection, const Answer& answer);
  const char* flush(Connection& connection);
  void statusPage(const Connection& asking, const StatusCursor& from, Answer& answer) const;
  void expireBatches(Clock::time_point now);
  int waitMs(Clock::time_point now) const;
  // Opens the socket's directory into *out, made or checked (see listen): 0, or a negative errno.
  int openDirectory(const std::string& dir, UniqueFd* out);
  // Opens the directory of the socket at path (*dir) and takes its lock (*lock), waiting at most
  // kLockWaitMs: 0, or a negative errno (-EINTR when stopFd became readable meanwhile).
  int lockDirectory(const std::string& path, int stopFd, std::string* dir, UniqueFd* lock);
  // Binds sock to the socket file at path, replacing a stale one, and listens: 0, or a negative
  // errno.
  int bindPath(int sock, const std::string& path, const sockaddr_un& addr, socklen_t length,
               const std::string& dir, int lock);
  // Hands what the connection's table let go of to the reaper.
  void reap(Connection& connection);
  // Ends the connection's long command and hands all it holds to the reaper.
  void letGo(Connection& connection);
  // What the peer may still take in: memories and address space.
  Room room() const;
  // One request or slice of the connection's; null, or why the connection is to end.
  const char* turn(Connection& connection);
  // The fault that a rule injects into a request of kind of the client pid, what: the request as
  // the log line names it. A fault that fired is logged; one that ends the peer is carried out.
  Fault inject(const char* kind, pid_t pid, const std::string& what);
  // A Faults request of connection: its status, with the answer's text.
  int controlFaults(const Connection& connection, const Request& request, Answer& answer);
  // The trace: one event on the serving thread's track; the slice of a request handled since
  // start, ended by the flow from the client's call; what the connection and the peer hold.
  void traceEvent(const trace::Event& event);
  void traceRequest(const Connection& connection, const Request& request, int64_t start,
                    int status);
  void traceHoldings(const Connection& connection);
  void holdingsOf(const Connection& connection, int64_t now,
                  std::vector<trace::Event>* events) const;
  // An instant about a client: what happened, and why or what came of it.
  void traceMark(const char* what, pid_t client, const std::string& detail);

  const ServerLimits mLimits;
  Budget mBudget;
  Limits mShare;  // what one client may hold
  std::string mPath;
  std::vector<std::string> mMadeDirectories;
  ino_t mInode = 0;
  host::UniqueFd mListen;
  host::UniqueFd mReserve;  // given up to accept, and refuse, a client when out of descriptors
  std::vector<std::unique_ptr<Connection>> mConnections;  // in the order they came
  uint32_t mNextSerial = 1;
  uint64_t mRound = 0;
  // Mapping unmapped, and descriptors closed, on this thread this round; beyond kInlineFree the
  // reaper frees.
  size_t mFreedInline = 0;
  static constexpr size_t kInlineFree = 1 << 20;
  std::unique_ptr<uint8_t[]> mIn;
  std::unique_ptr<uint8_t[]> mOut;
  Received mReceived;  // of the message being served, kept for its buffers' sake
  Request mRequest;
  std::vector<uint8_t> mScratch;             // for reading memory
  std::unique_ptr<FaultRules> mFaults;       // null: this peer takes no faults
  std::unique_ptr<trace::TraceFile> mTrace;  // null: no trace; the reaper writes into it too
  bool mTraceFailed = false;                 // said once
  int mExitCode = -1;
  // Declared last, so gone first: the destructor hands it everything, and it frees that and ends.
  Reaper mReaper;
};

// Sends the peer's log lines to fd instead of stderr (a peer served inside another program).
void setPeerLogFile(int fd);

}  // namespace peer
}  // namespace vrocam
