// SPDX-License-Identifier: Apache-2.0
// PeerServer: its trace.
#include "Connection.h"
#include "ErrnoText.h"
#include "PeerLog.h"
#include "PeerServer.h"

namespace vrocam {
namespace peer {

int PeerServer::traceTo(const std::string& dir, const std::string& processName,
                        const trace::TraceLimits& limits) {
  mTrace = trace::TraceFile::open(dir, "peer", processName, limits, nullptr);
  if (!mTrace) {
    peerLog('W', "cannot make a trace in %s: %s; serving without it", dir.c_str(),
            host::errnoText(-errno).c_str());
    return -1;
  }
  peerLog('I', "tracing into %s", mTrace->path().c_str());
  mReaper.traceTo(mTrace.get());
  return 0;
}

void PeerServer::traceEvent(const trace::Event& event) {
  if (!mTrace) return;
  mTrace->add(event);
  if (mTrace->failed() && !mTraceFailed) {
    mTraceFailed = true;
    peerLog('W', "cannot write the trace %s any more: %s; serving on without it",
            mTrace->path().c_str(), host::errnoText(-ENOSPC).c_str());
  }
}

void PeerServer::traceRequest(const Connection& connection, const Request& request, int64_t start,
                              int status) {
  if (!mTrace) return;
  const pid_t tid = trace::threadId();
  const int64_t now = trace::nowNs();
  std::vector<trace::Event> events;
  events.emplace_back("X", kindName(request.kind), start, tid);
  events.back()
      .dur(now - start)
      .arg("client", connection.pid)
      .arg("seq", request.seq)
      .arg("memories", static_cast<long long>(request.records.size() + request.handles.size()))
      .arg("answer", status)
      .arg("errno", host::errnoName(status));
  if (connection.joined && !connection.control) {
    // Bound to the slice: the arrow from the client's call to its handling here.
    events.emplace_back("f", "request", start, tid);
    events.back().id(trace::flowId(connection.pid, request.seq));
  }
  if (status < 0) {
    events.emplace_back("i", "request refused", now, tid);
    events.back()
        .arg("client", connection.pid)
        .arg("detail", std::string(kindName(request.kind)) + " (seq " +
                           std::to_string(request.seq) + "): " + host::errnoName(status));
  }
  if (request.kind == Kind::Register || request.kind == Kind::Deregister ||
      request.kind == Kind::Cancel) {
    holdingsOf(connection, now, &events);
  }
  mTrace->add(events);
}

void PeerServer::traceMark(const char* what, pid_t client, const std::string& detail) {
  if (!mTrace) return;
  trace::Event mark("i", what, trace::nowNs(), trace::threadId());
  mark.arg("client", client);
  if (!detail.empty()) mark.arg("detail", detail);
  traceEvent(mark);
}

void PeerServer::holdingsOf(const Connection& connection, int64_t now,
                            std::vector<trace::Event>* events) const {
  const ClientTable& table = connection.table;
  const pid_t tid = trace::threadId();
  events->emplace_back("C", "held for client " + std::to_string(connection.pid), now, tid);
  events->back()
      .arg("memories", static_cast<long long>(table.held()))
      .arg("bytes", static_cast<long long>(table.bytes() + table.stagedBytes()));
  uint64_t bytes = 0;
  for (const auto& each : mConnections) bytes += each->table.bytes() + each->table.stagedBytes();
  events->emplace_back("C", "held in all", now, tid);
  events->back()
      .arg("memories", static_cast<long long>(held()))
      .arg("bytes", static_cast<long long>(bytes))
      .arg("being freed", static_cast<long long>(mReaper.memories()));
}

void PeerServer::traceHoldings(const Connection& connection) {
  if (!mTrace) return;
  std::vector<trace::Event> events;
  holdingsOf(connection, trace::nowNs(), &events);
  mTrace->add(events);
}

}  // namespace peer
}  // namespace vrocam
