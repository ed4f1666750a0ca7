// SPDX-License-Identifier: Apache-2.0
// PeerServer: one client's requests, its long commands a slice at a time, and its answers.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "Connection.h"
#include "ErrnoText.h"
#include "MemoryAccess.h"
#include "PeerLog.h"
#include "PeerServer.h"

namespace vrocam {
namespace peer {

namespace {

// Client memory a long command reads or writes per round.
constexpr uint64_t kSliceBytes = 1 << 20;

}  // namespace

const char* PeerServer::serve(Connection& connection) {
  Received& received = mReceived;
  const ssize_t size =
      recvPacket(connection.sock.get(), mIn.get(), kMaxMessage, &received, Deadline::min());
  if (size == -ETIMEDOUT) return nullptr;  // nothing there after all
  if (size < 0) return "disconnected";
  // An empty message is answered; the end of the connection reads as one too, without
  // descriptors, and for ever.
  if (size == 0 && received.fds.empty() && connectionEnded(connection.sock.get())) {
    return "disconnected";
  }
  const int64_t start = mTrace ? trace::nowNs() : 0;

  Request& request = mRequest;
  int status = decodeRequest(mIn.get(), static_cast<size_t>(size), received.fds.size(), &request);
  if (received.truncated) status = -EMSGSIZE;
  if (received.fdsTruncated) status = -EMFILE;
  // A query (holdings, status, faults) leaves an open batch, and the time it has left, as they
  // were; the status and faults may be asked by connections that are no clients.
  const bool visitor =
      status == 0 && (request.kind == Kind::Status || request.kind == Kind::Faults);
  const bool query = visitor || (status == 0 && request.kind == Kind::Holdings);
  if (!query) connection.since = Clock::now();
  if (!connection.joined && !visitor && !join(connection)) {
    received.fds.clear();
    drop(connection, "refused", -EUSERS);
    return nullptr;
  }
  connection.fault = Fault();
  const char* const kind = faultKindOf(request.kind);
  if (status == 0 && mFaults && kind != nullptr && !connection.control) {
    connection.fault = inject(kind, connection.pid,
                              std::string(kind) + " (seq " + std::to_string(request.seq) + ")");
  }
  switch (connection.fault.action) {
    case FaultAction::Errno:
      status = -connection.fault.value;  // not carried out
      break;
    case FaultAction::Close:
      return "dropped: a fault rule closed it";
    case FaultAction::Exit:
      return nullptr;  // the round ends the peer
    default:
      break;
  }
  if (!query && (status != 0 || request.kind != Kind::Register)) connection.table.abandonBatch();
  Answer answer;
  if (status == 0) status = handle(connection, request, received.fds, answer);
  received.fds.clear();  // whatever the table did not keep is closed now
  reap(connection);
  if (status < 0) {
    const int32_t handle = !request.records.empty()   ? request.records[0].handle
                           : !request.handles.empty() ? request.handles[0]
                                                      : request.handle;
    peerLog(LogKind::Refused, 'W', "client pid %d uid %u: %s (seq %u, handle %d) refused: %s",
            connection.pid, connection.uid, kindName(request.kind), request.seq, handle,
            host::errnoText(status).c_str());
  }
  if (status == 1) {
    traceRequest(connection, request, start, 0);
    return advance(connection);
  }
  answer.kind = kAnswer | static_cast<uint16_t>(request.kind);
  answer.seq = request.seq;
  answer.status = status;
  const char* const why = this->answer(connection, answer);
  // Written once the answer is on its way: the client waits for no trace.
  traceRequest(connection, request, start, status);
  return why;
}

int PeerServer::handle(Connection& connection, const Request& request, std::vector<UniqueFd>& fds,
                       Answer& answer) {
  ClientTable& table = connection.table;
  int status = 0;
  switch (request.kind) {
    case Kind::Ping:
      break;
    case Kind::Register:
      if ((request.flags & kContinue) == 0) table.abandonBatch();
      reap(connection);
      status = table.registerPart(
          request, fds, room(),
          connection.fault.action == FaultAction::Mmap ? connection.fault.value : 0);
      break;
    case Kind::Deregister:
      status = table.deregister(request.handles);
      break;
    case Kind::Checksum:
    case Kind::Fill: {
      const Memory* memory = table.find(request.handle);
      if (memory == nullptr) return -ENOENT;
      if (request.kind == Kind::Fill && !memory->writable) return -EACCES;
      connection.command = LongCommand{request.kind, request.seq, memory, 0, 0, request.value};
      return 1;
    }
    case Kind::Holdings:
      answer.memories = static_cast<uint32_t>(table.memories().size());
      answer.bytes = table.bytes();
      answer.staged = static_cast<uint32_t>(table.staged());
      answer.stagedBytes = table.stagedBytes();
      break;
    case Kind::Status:
      statusPage(connection, request.cursor, answer);
      break;
    case Kind::Faults:
      status = controlFaults(connection, request, answer);
      break;
    case Kind::Cancel: {
      const uint64_t bytes = table.bytes();
      const size_t undone = table.cancel(request.batch);
      if (undone != 0) {
        peerLog(LogKind::Undone, 'I',
                "client pid %d uid %u gave up on a registration: released %s (%llu bytes)",
                connection.pid, connection.uid, counted(undone, "memory", "memories").c_str(),
                static_cast<unsigned long long>(bytes - table.bytes()));
      }
      status = undone != 0 ? 0 : -ENOENT;
      break;
    }
    default:
      status = -EOPNOTSUPP;
      break;
  }
  return status;
}

const char* PeerServer::advance(Connection& connection) {
  LongCommand& command = connection.command;
  const Memory& memory = *command.memory;
  const uint64_t slice = std::min(kSliceBytes, memory.size - command.done);
  const int64_t start = mTrace ? trace::nowNs() : 0;
  const int err = command.kind == Kind::Checksum
                      ? checksumRange(memory.fd.get(), command.done, slice, &command.crc, &mScratch)
                      : guardedFill(memory.mapping.data() + command.done, slice, command.value);
  if (mTrace) {
    traceEvent(
        trace::Event("X", std::string(kindName(command.kind)) + " slice", start, trace::threadId())
            .dur(trace::nowNs() - start)
            .arg("client", connection.pid)
            .arg("handle", memory.handle)
            .arg("offset", static_cast<long long>(command.done))
            .arg("bytes", static_cast<long long>(slice)));
  }
  command.done += slice;
  if (err == 0 && command.done < memory.size) return nullptr;  // more in the next round
  Answer answer;
  answer.kind = answerKind(command.kind);
  answer.seq = command.seq;
  answer.status = err;
  answer.crc32 = command.crc;
  answer.bytes = memory.size;
  connection.command = LongCommand();
  return this->answer(connection, answer);
}

const char* PeerServer::answer(Connection& connection, const Answer& answer) {
  const size_t length = encodeAnswer(mOut.get(), kMaxMessage, answer);
  const Fault fault = std::exchange(connection.fault, Fault());
  if (fault.action == FaultAction::Drop) return nullptr;
  if (fault.action == FaultAction::Delay || fault.action == FaultAction::Hold) {
    connection.kept.assign(mOut.get(), mOut.get() + length);
    connection.keptUntil =
        fault.action == FaultAction::Hold ? Clock::time_point::max() : Clock::now() + fault.delay;
    return nullptr;
  }
  const int err =
      sendPacket(connection.sock.get(), mOut.get(), length, nullptr, 0, Deadline::min());
  if (err == -ETIMEDOUT) {
    // Its socket is full: the answer waits here, and the client's next request in its socket.
    connection.unsent.assign(mOut.get(), mOut.get() + length);
    connection.since = Clock::now();
    return nullptr;
  }
  return err == 0 ? nullptr : "disconnected";
}

const char* PeerServer::flush(Connection& connection) {
  const int err = sendPacket(connection.sock.get(), connection.unsent.data(),
                             connection.unsent.size(), nullptr, 0, Deadline::min());
  if (err == -ETIMEDOUT) return nullptr;
  if (err != 0) return "disconnected";
  connection.unsent.clear();
  connection.since = Clock::now();
  return nullptr;
}

}  // namespace peer
}  // namespace vrocam
