// SPDX-License-Identifier: Apache-2.0
// PeerServer: the faults it injects on purpose, and the requests that set, list and clear them.
#include <signal.h>
#include <unistd.h>

#include "Connection.h"
#include "ErrnoText.h"
#include "Escape.h"
#include "PeerLog.h"
#include "PeerServer.h"

namespace vrocam {
namespace peer {
namespace {

// What a fault does, as its log line says it.
std::string effectOf(const Fault& fault) {
  switch (fault.action) {
    case FaultAction::Errno:
      return "refused with " + host::errnoText(-fault.value);
    case FaultAction::Delay:
      return "answered " + std::to_string(fault.delay.count()) + " ms later";
    case FaultAction::Hold:
      return "its answer held until released";
    case FaultAction::Drop:
      return "never answered";
    case FaultAction::Close:
      return "its connection closed";
    case FaultAction::Exit:
      return "the peer exits with " + std::to_string(fault.value);
    case FaultAction::Kill:
      return "the peer kills itself";
    case FaultAction::Mmap:
      return "its mapping fails with " + host::errnoText(-fault.value);
    default:
      return "";
  }
}

}  // namespace

void PeerServer::takeFaults(FaultRules rules) {
  peerLog('I', "taking faults: seed %llu (give --fault-seed %llu to draw the same again)",
          static_cast<unsigned long long>(rules.seed()),
          static_cast<unsigned long long>(rules.seed()));
  mFaults = std::make_unique<FaultRules>(std::move(rules));
}

Fault PeerServer::inject(const char* kind, pid_t pid, const std::string& what) {
  const Fault fault = mFaults->match(kind, pid);
  if (fault.action == FaultAction::None) return fault;
  const std::string effect = effectOf(fault);
  peerLog('W', "fault %zu %s fired on client pid %d: %s %s", fault.rule,
          host::escaped(fault.text).c_str(), pid, what.c_str(), effect.c_str());
  traceEvent(trace::Event("i", "fault " + std::to_string(fault.rule) + " fired", trace::nowNs(),
                          trace::threadId())
                 .arg("rule", fault.text)
                 .arg("client", pid)
                 .arg("request", what)
                 .arg("action", effect));
  if (fault.action == FaultAction::Exit) mExitCode = fault.value;
  if (fault.action == FaultAction::Kill) {
    flushPeerLog();
    raise(SIGKILL);
  }
  return fault;
}

int PeerServer::controlFaults(const Connection& connection, const Request& request,
                              Answer& answer) {
  if (!mFaults) {
    answer.text = "this peer takes no faults: start it with --fault or --allow-faults";
    return -EPERM;
  }
  if (connection.uid != geteuid()) {
    answer.text = "only a client of the peer's own uid may set faults";
    return -EPERM;
  }
  const std::string rule = host::escaped(request.text);
  switch (request.op) {
    case FaultOp::Add:
      answer.text = mFaults->add(request.text);
      if (!answer.text.empty()) {
        answer.text = "bad fault rule '" + rule + "': " + answer.text;
        return -EINVAL;
      }
      peerLog('I', "client pid %d added fault rule %s", connection.pid, rule.c_str());
      return 0;
    case FaultOp::Clear:
      mFaults->clear();
      peerLog('I', "client pid %d cleared the fault rules", connection.pid);
      return 0;
    case FaultOp::List:
      answer.text = mFaults->list();
      return 0;
    case FaultOp::Release: {
      size_t released = 0;
      for (const auto& held : mConnections) {
        if (!held->kept.empty() && held->keptUntil == Clock::time_point::max()) {
          held->keptUntil = Clock::now();
          ++released;
        }
      }
      answer.text = "released " + counted(released, "answer", "answers");
      return 0;
    }
    default:
      return -EINVAL;
  }
}

}  // namespace peer
}  // namespace vrocam
