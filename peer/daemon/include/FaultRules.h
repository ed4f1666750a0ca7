// SPDX-License-Identifier: Apache-2.0
// FaultRules: the faults a peer started for tests injects on purpose. A rule names what it
// matches, what it does and when, as `KIND[:pid=N]:ACTION[:WHEN...]`:
//   KIND    register, deregister, ping, checksum, fill, holdings, status, any (every request), or
//           accept (a new connection)
//   ACTION  errno=NAME|N (refuse with it, not carrying the request out), delay=TIME (answer that
//           much later), hold (keep the answer until released), drop (never answer), close
//           (close the connection without answering), exit[=CODE] (end the peer, cleaning up),
//           kill (SIGKILL itself, cleaning up nothing), mmap[=ERRNO] (register only: the mapping
//           of the message's last memory fails, ENOMEM by default)
//   WHEN    nth=N (only the Nth match), after=N (every match after the first N), every=N (every
//           Nth match), times=K (at most K times), p=PERCENT (with that probability, drawn from
//           the seed); all that are given must hold; none: every match
// Each message of a batch is one match. Rules are counted when matched and when fired, and the
// draws of each rule come from the seed and the rule's number, so the same seed and the same
// requests give the same faults. Used from the serving thread only.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "PeerWire.h"

namespace vrocam {
namespace peer {

// The name of a request's kind as rules match it, or null for the requests that no rule matches
// (the undoing of a registration, requests about faults).
const char* faultKindOf(Kind kind);

enum class FaultAction { None, Errno, Delay, Hold, Drop, Close, Exit, Kill, Mmap };

// What a fault that fired does.
struct Fault {
  FaultAction action = FaultAction::None;
  int value = 0;  // Errno, Mmap: the errno (positive); Exit: the exit code
  std::chrono::milliseconds delay{0};
  size_t rule = 0;   // the rule's number, from 1
  std::string text;  // the rule as given
};

class FaultRules {
 public:
  // seed: where every probability is drawn from.
  explicit FaultRules(uint64_t seed) : mSeed(seed) {}

  static constexpr size_t kMaxRules = 64;
  // Adds a rule: "", or what is wrong with it (nothing is added then).
  std::string add(const std::string& rule);
  void clear() { mRules.clear(); }
  uint64_t seed() const { return mSeed; }

  // The fault to inject into a request of kind (a name of KIND, "accept" for a new connection) of
  // the client pid: the first rule that matches and fires, or a Fault of action None.
  Fault match(const char* kind, pid_t pid);
  // "faults: seed S", then one line per rule: "fault N RULE: matched M, fired F".
  std::string list() const;

 private:
  struct Rule {
    std::string kind;
    pid_t pid = 0;  // 0: any client
    Fault fault;
    uint64_t nth = 0, after = 0, every = 0, times = 0;
    uint32_t percent = 100;
    uint64_t matched = 0, fired = 0;
    std::mt19937_64 draws;
  };

  uint64_t mSeed;
  size_t mAdded = 0;  // rules added so far, cleared ones included: the next rule's number - 1
  std::vector<Rule> mRules;
};

}  // namespace peer
}  // namespace vrocam
