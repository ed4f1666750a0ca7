// SPDX-License-Identifier: Apache-2.0
// SocketClient: requests to the peer daemon and their answers.
#include "SocketClient.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "ClientTrace.h"
#include "EnvSwitch.h"
#include "ErrnoText.h"
#include "HostLogLine.h"
#include "Packet.h"
#include "PeerCommands.h"
#include "PeerWire.h"
#include "ThreadSafety.h"
#include "UniqueFd.h"

namespace NSCam {
namespace ipc {
namespace wrapper {

namespace host = vrocam::host;
namespace peer = vrocam::peer;
using host::Mutex;
using host::MutexLock;
using host::UniqueFd;
using peer::Deadline;
using peer::Kind;

namespace {

// Errors of a send after which the connection is gone, not the request refused.
bool linkDown(int err) {
  return err == -EPIPE || err == -ECONNRESET || err == -ENOTCONN || err == -ECONNREFUSED;
}

// Registrations given up on, kept until their undoing can be sent; beyond, the connection is given
// up. (Deregistrations owed are bounded by what was registered: each handle is owed once.)
constexpr size_t kMaxCancels = 64;

// Sequence numbers rise on each connection and are unique in the process, so that the client pid
// and the number name one call in a trace, however many clients the process has.
uint32_t nextSeq() {
  static std::atomic<uint32_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

// The connection to the peer and its state, all of it under mLock, which each call of the client
// holds throughout (every part of a batch included), so that calls from several threads never
// interleave on the socket.
struct SocketClient::Link {
  Link(std::string path, int timeoutMs)
      : mPath(std::move(path)),
        mTimeoutMs(timeoutMs),
        mOut(new uint8_t[peer::kMaxMessage]),
        mIn(new uint8_t[peer::kMaxMessage]) {}

  int registerLocked(const ShmMemInfo* infos, size_t count) REQUIRES(mLock);
  // Starts mRequest as a request of kind with the next sequence number.
  peer::Request& begin(peer::Kind kind) REQUIRES(mLock);
  // Sends mRequest with fds and waits for its answer, all before deadline; *sent (if given) says
  // whether the request went out. retry: the request is the first of its call, so a connection
  // found dead may be replaced and the request resent.
  int exchange(const int* fds, size_t fdCount, bool retry, peer::Deadline deadline,
               peer::Answer* answer, bool* sent = nullptr) REQUIRES(mLock);
  // exchange() without its trace; *late counts the late answers dropped.
  int exchangeOnce(const int* fds, size_t fdCount, bool retry, peer::Deadline deadline,
                   peer::Answer* answer, bool* sent, size_t* late) REQUIRES(mLock);
  // An instant on the calling thread's track of the trace, if there is one.
  void mark(const char* name, const char* key, long long value) REQUIRES(mLock);
  int connectLocked(peer::Deadline deadline) REQUIRES(mLock);
  // Keeps request to send before anything else, as soon as the link allows (a Cancel of a
  // registration that timed out, a Deregister of the parts of a deregistration not sent); beyond
  // kMaxCancels cancels, gives up the connection instead.
  void owe(peer::Request&& request) REQUIRES(mLock);
  // Sends what is owed, without waiting for the answers (they are dropped when they come).
  int sendOwed(peer::Deadline deadline) REQUIRES(mLock);
  // Ends the connection, logging why once.
  void lose(int err, int closing) REQUIRES(mLock);
  void report(const std::string& text) REQUIRES(mLock);

  const std::string mPath;
  const int mTimeoutMs;
  Mutex mLock;
  UniqueFd mSock GUARDED_BY(mLock);
  peer::Request mRequest GUARDED_BY(mLock);
  std::vector<peer::Request> mOwed GUARDED_BY(mLock);  // requests to send before anything else
  bool mReported GUARDED_BY(mLock) = false;            // a failure was logged since the last answer
  const std::unique_ptr<uint8_t[]> mOut GUARDED_BY(mLock);
  const std::unique_ptr<uint8_t[]> mIn GUARDED_BY(mLock);
};

SocketClient::SocketClient(std::string path, int timeoutMs)
    : mLink(new Link(std::move(path), timeoutMs)) {}

SocketClient::~SocketClient() = default;

SocketClient* SocketClient::shared() {
  static SocketClient* client = []() -> SocketClient* {
    const char* path = getenv("VROCAM_IPC_SOCKET");
    if (path == nullptr || *path == '\0') return nullptr;
    const uint32_t timeout =
        host::envSwitch("VROCAM_IPC_TIMEOUT_MS", kDefaultTimeoutMs, 1, INT_MAX);
    return new SocketClient(path, static_cast<int>(timeout));  // outlives every static user
  }();
  return client;
}

peer::Request& SocketClient::Link::begin(Kind kind) {
  mRequest.kind = kind;
  mRequest.seq = nextSeq();
  mRequest.flags = 0;
  mRequest.records.clear();
  mRequest.handles.clear();
  return mRequest;
}

void SocketClient::Link::report(const std::string& text) {
  if (mReported) return;
  mReported = true;
  host::writeLogLine('W', "VroIPCClient", text.c_str());
}

int SocketClient::Link::connectLocked(Deadline deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - peer::Clock::now());
  UniqueFd sock;
  int err = peer::connectTo(mPath, static_cast<int>(std::max<long long>(left.count(), 1)), &sock);
  ucred cred{};
  socklen_t length = sizeof(cred);
  if (err == 0 && getsockopt(sock.get(), SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0) {
    err = -errno;
  }
  if (err == 0 && cred.uid != geteuid() && cred.uid != 0) {
    report("refused the peer at " + mPath + ": it runs as uid " + std::to_string(cred.uid) +
           ", neither ours (" + std::to_string(geteuid()) + ") nor root");
    return -EACCES;
  }
  if (err != 0) {
    report("cannot reach the peer at " + mPath + ": " + host::errnoText(err));
    return err;
  }
  mSock = std::move(sock);
  mOwed.clear();  // a new connection holds nothing to undo
  mark("connected", "peer pid", cred.pid);
  return 0;
}

void SocketClient::Link::lose(int err, int closing) {
  mSock.reset();
  mOwed.clear();  // the peer freed what the connection held
  report(closing != 0
             ? "the peer at " + mPath + " ended the connection: " + host::errnoText(closing)
             : "lost the peer at " + mPath + ": " + host::errnoText(err));
}

void SocketClient::Link::owe(peer::Request&& request) {
  const auto cancels = std::count_if(mOwed.begin(), mOwed.end(), [](const peer::Request& owed) {
    return owed.kind == Kind::Cancel;
  });
  if (request.kind == Kind::Cancel && static_cast<size_t>(cancels) >= kMaxCancels) {
    return lose(-ETIMEDOUT, 0);
  }
  // Numbered now: any request of a later call comes after it, and so does its answer, which that
  // call drops as an earlier one's.
  request.seq = nextSeq();
  mOwed.push_back(std::move(request));
}

int SocketClient::Link::sendOwed(Deadline deadline) {
  while (!mOwed.empty()) {
    const peer::Request& owed = mOwed.front();
    uint8_t message[peer::kHeaderSize + 4 + peer::kMaxHandles * 4];
    const size_t size = peer::encodeRequest(message, sizeof(message), owed);
    const int64_t start = vrocam::trace::nowNs();
    const int err = peer::sendPacket(mSock.get(), message, size, nullptr, 0, deadline);
    if (err != 0) return err;
    if (vrocam::trace::TraceFile* file = clientTrace()) {
      // Sent, not waited for: its slice ends here, and its arrow at the peer's handling of it.
      const pid_t tid = vrocam::trace::threadId();
      file->add(
          {vrocam::trace::Event("X", std::string(peer::kindName(owed.kind)) + " (owed)", start, tid)
               .dur(vrocam::trace::nowNs() - start)
               .arg("seq", owed.seq)
               .arg("memories", static_cast<long long>(owed.handles.size())),
           vrocam::trace::Event("s", "request", start, tid)
               .id(vrocam::trace::flowId(vrocam::trace::processId(), owed.seq))});
    }
    mOwed.erase(mOwed.begin());  // its answer is dropped when it comes
  }
  return 0;
}

void SocketClient::Link::mark(const char* name, const char* key, long long value) {
  if (vrocam::trace::TraceFile* file = clientTrace()) {
    file->add(vrocam::trace::Event("i", name, vrocam::trace::nowNs(), vrocam::trace::threadId())
                  .arg(key, value));
  }
}

int SocketClient::Link::exchange(const int* fds, size_t fdCount, bool retry, Deadline deadline,
                                 peer::Answer* answer, bool* sentOut) {
  vrocam::trace::TraceFile* const file = clientTrace();
  size_t late = 0;
  if (file == nullptr) return exchangeOnce(fds, fdCount, retry, deadline, answer, sentOut, &late);
  // One slice per request on the calling thread, with the start of a flow that the peer's
  // handling of the request ends: client pid and sequence number name it on both sides.
  namespace trace = vrocam::trace;
  const int64_t start = trace::nowNs();
  const int err = exchangeOnce(fds, fdCount, retry, deadline, answer, sentOut, &late);
  const int result = err != 0 ? err : answer->status;
  const pid_t tid = trace::threadId();
  uint64_t bytes = 0;
  for (const peer::Record& record : mRequest.records) bytes += static_cast<uint64_t>(record.size);
  const bool part = (mRequest.flags & (peer::kMore | peer::kContinue)) != 0;
  file->add({trace::Event("X", std::string(peer::kindName(mRequest.kind)) + (part ? " part" : ""),
                          start, tid)
                 .dur(trace::nowNs() - start)
                 .arg("seq", mRequest.seq)
                 .arg("memories",
                      static_cast<long long>(mRequest.records.size() + mRequest.handles.size()))
                 .arg("fds", static_cast<long long>(fdCount))
                 .arg("bytes", static_cast<long long>(bytes))
                 .arg("answer", result)
                 .arg("errno", host::errnoName(result)),
             trace::Event("s", "request", start, tid)
                 .id(trace::flowId(trace::processId(), mRequest.seq))});
  if (late != 0) mark("late answers dropped", "answers", static_cast<long long>(late));
  if (err == -ETIMEDOUT) mark("timeout", "seq", mRequest.seq);
  return err;
}

int SocketClient::Link::exchangeOnce(const int* fds, size_t fdCount, bool retry, Deadline deadline,
                                     peer::Answer* answer, bool* sentOut, size_t* late) {
  const size_t size = peer::encodeRequest(mOut.get(), peer::kMaxMessage, mRequest);
  if (size == 0) return -EMSGSIZE;
  for (;;) {
    const bool fresh = !mSock;
    int err = fresh ? connectLocked(deadline) : 0;
    if (err != 0) return err;
    err = sendOwed(deadline);
    if (err == 0) err = peer::sendPacket(mSock.get(), mOut.get(), size, fds, fdCount, deadline);
    if (err == -EBADF) return err;  // a descriptor of the caller's: nothing was sent
    const bool sent = err == 0;
    if (sentOut != nullptr) *sentOut = sent;
    int closing = 0;
    if (sent || linkDown(err)) {
      // After a failed send, what the peer said before it ended the connection is still there.
      const int answered = peer::awaitAnswer(
          mSock.get(), mIn.get(), peer::kMaxMessage, static_cast<uint16_t>(mRequest.kind),
          mRequest.seq, sent ? deadline : Deadline::min(), answer, &closing, late);
      if (sent) err = answered;
    }
    if (err == 0) {
      mReported = false;
      return 0;
    }
    if (err == -ETIMEDOUT) {
      report("no answer from the peer at " + mPath + " within " + std::to_string(mTimeoutMs) +
             " ms; the connection is kept");
      return err;
    }
    // A connection that ended before the peer read this request (the peer restarted, or gave
    // an idle slot away) is replaced once, and the request sent again.
    const bool unread = (!sent && linkDown(err)) || closing == -ETIMEDOUT;
    if (retry && !fresh && unread) {
      mSock.reset();
      retry = false;
      mark("reconnect", "seq", mRequest.seq);
      continue;
    }
    lose(err, closing);
    return closing != 0 ? closing : err;
  }
}

int SocketClient::Link::registerLocked(const ShmMemInfo* infos, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    if (infos[i].fd < 0) return -EBADF;
    if (strlen(infos[i].name.c_str()) >= peer::kNameSize) return -ENAMETOOLONG;
  }
  const Deadline deadline = peer::after(mTimeoutMs);
  uint32_t batch = 0;
  size_t start = 0;
  do {
    const size_t part = std::min(peer::kMaxRecords, count - start);
    peer::Request& request = begin(Kind::Register);
    if (start == 0) batch = request.seq;
    request.flags = (start > 0 ? peer::kContinue : 0) | (start + part < count ? peer::kMore : 0);
    int fds[peer::kMaxRecords];
    for (size_t i = 0; i < part; ++i) {
      const ShmMemInfo& info = infos[start + i];
      request.records.push_back(peer::Record{info.handle, info.type, info.size, info.name});
      fds[i] = info.fd;
    }
    peer::Answer answer;
    const int err = exchange(fds, part, start == 0, deadline, &answer);
    if (err == -ETIMEDOUT && mSock) {
      // The peer may still commit what it was sent: it undoes it when it reads this.
      peer::Request cancel;
      cancel.kind = Kind::Cancel;
      cancel.batch = batch;
      mark("registration undone", "batch", batch);
      owe(std::move(cancel));
      if (mSock) sendOwed(Deadline::min());
    }
    if (err != 0) return err;
    if (answer.status != 0) {
      const std::string text = "the peer at " + mPath + " refused to register " +
                               std::to_string(count) +
                               " memories: " + host::errnoText(answer.status);
      host::writeLogLine('W', "VroIPCClient", text.c_str());
      return answer.status;
    }
    start += part;
  } while (start < count);
  return 0;
}

int SocketClient::registerShm(ShmMemInfo& info) {
  MutexLock guard(mLink->mLock);
  return mLink->registerLocked(&info, 1);
}

int SocketClient::registerShms(std::vector<ShmMemInfo>& infos) {
  MutexLock guard(mLink->mLock);
  return mLink->registerLocked(infos.data(), infos.size());
}

int SocketClient::deregisterShms(std::vector<ShmMemInfo> infos) {
  Link& link = *mLink;
  MutexLock guard(link.mLock);
  const Deadline deadline = peer::after(link.mTimeoutMs);
  int result = 0;
  size_t start = 0;
  do {
    const size_t part = std::min(peer::kMaxHandles, infos.size() - start);
    peer::Request& request = link.begin(Kind::Deregister);
    for (size_t i = 0; i < part; ++i) request.handles.push_back(infos[start + i].handle);
    peer::Answer answer;
    bool sent = false;
    const int err = link.exchange(nullptr, 0, start == 0, deadline, &answer, &sent);
    if (err == -ETIMEDOUT && link.mSock) {
      // The caller frees these memories now, so the peer must let go of every one of them too:
      // the parts not sent go as soon as the link allows.
      for (size_t next = sent ? start + part : start; next < infos.size();) {
        peer::Request rest;
        rest.kind = Kind::Deregister;
        for (; next < infos.size() && rest.handles.size() < peer::kMaxHandles; ++next) {
          rest.handles.push_back(infos[next].handle);
        }
        link.mark("deregistration owed", "memories", static_cast<long long>(rest.handles.size()));
        link.owe(std::move(rest));
      }
    }
    if (err != 0) return err;
    if (result == 0) result = answer.status;
    start += part;
  } while (start < infos.size());
  return result;
}

int SocketClient::sendCommand(int command, void* data, size_t length) {
  const size_t sizes[] = {0, sizeof(PeerChecksum), sizeof(PeerFill), sizeof(PeerHoldings)};
  if (command < PEER_COMMAND_CHECKSUM || command > PEER_COMMAND_HOLDINGS) return -EOPNOTSUPP;
  if (data == nullptr || length != sizes[command]) return -EINVAL;
  Link& link = *mLink;
  MutexLock guard(link.mLock);
  peer::Answer answer;
  int err = 0;
  if (command == PEER_COMMAND_CHECKSUM) {
    auto* checksum = static_cast<PeerChecksum*>(data);
    link.begin(Kind::Checksum).handle = checksum->handle;
    err = link.exchange(nullptr, 0, true, peer::after(link.mTimeoutMs), &answer);
    if (err != 0 || answer.status != 0) return err != 0 ? err : answer.status;
    checksum->crc32 = answer.crc32;
    checksum->bytes = answer.bytes;
  } else if (command == PEER_COMMAND_FILL) {
    const auto* fill = static_cast<const PeerFill*>(data);
    peer::Request& request = link.begin(Kind::Fill);
    request.handle = fill->handle;
    request.value = fill->value;
    err = link.exchange(nullptr, 0, true, peer::after(link.mTimeoutMs), &answer);
  } else {
    link.begin(Kind::Holdings);
    err = link.exchange(nullptr, 0, true, peer::after(link.mTimeoutMs), &answer);
    if (err != 0 || answer.status != 0) return err != 0 ? err : answer.status;
    auto* holdings = static_cast<PeerHoldings*>(data);
    holdings->memories = answer.memories;
    holdings->bytes = answer.bytes;
    holdings->staged = answer.staged;
    holdings->stagedBytes = answer.stagedBytes;
  }
  return err != 0 ? err : answer.status;
}

int SocketClient::waitForPeer(int timeoutMs) {
  Link& link = *mLink;
  const Deadline deadline = peer::after(timeoutMs);
  for (;;) {
    int err = 0;
    {
      MutexLock guard(link.mLock);
      link.begin(Kind::Ping);
      peer::Answer answer;
      err = link.exchange(nullptr, 0, true, peer::after(link.mTimeoutMs), &answer);
      if (err == 0) err = answer.status;
    }
    if (err == 0 || peer::Clock::now() >= deadline) return err;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace wrapper
}  // namespace ipc
}  // namespace NSCam
