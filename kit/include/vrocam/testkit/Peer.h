// SPDX-License-Identifier: Apache-2.0
// vrocam::testkit::Peer: a private peer daemon (vrocam_ipc_peer) for a component's own tests, in a
// child process. It serves a fresh name in the abstract namespace by default, so nothing of it is
// ever on disk; it is ready when it says so; it stops with the test however the test ends (killed
// with SIGKILL, timed out by ctest, aborted), also when frozen, and leaves no process and no file.
// A test can freeze and thaw it, make it fail on purpose (fault rules: see the README's "Testing
// your component", or `vrocam_ipc_peer --help`), read how often each rule fired, and read what it
// holds for a process.
//
// The manager keeps its IPC client for the life of the process, and the client the socket that
// VROCAM_IPC_SOCKET named when it was made: every peer that a process's component talks to must
// serve processSocket() (PeerFixture and PeerEnvironment see to it).
//
// Errors are negative errno values; what went wrong is in the peer's log (log()).
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#define VROCAM_TESTKIT_API __attribute__((visibility("default")))

namespace vrocam {
namespace testkit {

struct PeerOptions {
  // Where the peer serves: "" a fresh name in the abstract namespace; "@name" that name; anything
  // else a socket file (its directory is made when missing, and must otherwise be this user's).
  std::string socket;
  // Fault rules given at start, as --fault takes them ("register:errno=ENOSPC:nth=3").
  std::vector<std::string> faults;
  // Whether the test may add rules at run time (addFault); a peer given rules always may.
  bool allowFaults = true;
  // Where probabilistic rules (p=) draw from; negative: at random (the peer logs the seed).
  int64_t faultSeed = -1;
  // More options of vrocam_ipc_peer ({"--max-memories", "8"}).
  std::vector<std::string> flags;
  // The command that runs the peer; empty: $VROCAM_IPC_PEER, or the peer installed with the kit.
  std::vector<std::string> command;
  // The peer's descriptor limit; 0: this process's.
  uint64_t maxFiles = 0;
  // Where the peer writes its trace (Chrome trace-event JSON); empty: where this process writes
  // its own, VROCAM_IPC_TRACE, if set (processSocket() sets it under VROCAM_TEST_TRACE).
  std::string traceDir;
  std::chrono::milliseconds startTimeout{5000};
};

// A memory that the peer holds for a client process.
struct PeerMemory {
  int32_t handle = 0;
  uint32_t type = 0;
  uint64_t size = 0;
  bool readOnly = false;
  std::string name;
};

// A fault rule with how often it matched a request and how often it fired.
struct FaultCount {
  size_t rule = 0;  // its number, from 1
  std::string text;
  uint64_t matched = 0;
  uint64_t fired = 0;
};

class VROCAM_TESTKIT_API Peer {
 public:
  explicit Peer(PeerOptions options = {});
  // Stops a peer still running.
  ~Peer();
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  // Starts the peer and waits until it is ready: 0, or a negative errno (-EBUSY when running,
  // -ENOENT when the peer program is not there, -ECHILD when it ended before it was ready, with
  // why in log(), -ETIMEDOUT).
  int start();
  // Stops the peer with signal (thawed first, unless the signal is SIGKILL) and waits for it: its
  // exit code, 128 + the signal that ended it, or -1 when none was running.
  int stop(int signal = SIGTERM);
  bool running() const;
  pid_t pid() const;
  // The socket it serves, for VROCAM_IPC_SOCKET (a fresh name is chosen once, when the options
  // name none).
  const std::string& socket() const;
  // The options of the next start(), to change between a stop() and a start().
  PeerOptions& options();

  // Stops the peer in its tracks (SIGSTOP) and returns once it is stopped; what is sent to it waits
  // in its socket until thaw().
  void freeze();
  void thaw();

  // What the peer logged, over every start of this object.
  std::string log() const;
  // Whether the log shows text within the time given.
  bool logShows(const std::string& text,
                std::chrono::milliseconds within = std::chrono::seconds(5)) const;

  // Adds a fault rule at run time: 0, or -EINVAL (what is wrong in *why, if given), -EPERM.
  int addFault(const std::string& rule, std::string* why = nullptr);
  // Drops every rule: 0, or a negative errno.
  int clearFaults();
  // Sends the answers that hold rules keep back: how many it sent, or a negative errno.
  int releaseHeld();
  // The rules with their counts (and the seed, if asked): 0, or a negative errno.
  int faults(std::vector<FaultCount>* out, uint64_t* seed = nullptr) const;

  // What the peer holds for the client process pid (every connection of it): the memories in
  // order of handle, or nothing when the peer cannot be asked.
  std::vector<PeerMemory> holdings(pid_t pid) const;
  // The peer's whole status, as `vrocam_ipc_peer --status` prints it: 0, or a negative errno.
  int status(std::string* text) const;

  // When the peer traces: merges the traces of its directory (this process's too) from sinceNs on
  // (CLOCK_BOOTTIME, as clockNs()) into the file out. 0, or a negative errno (-ENOENT: no trace).
  int mergeTrace(const std::string& out, int64_t sinceNs) const;
  // Now on the clock of the traces.
  static int64_t clockNs();

 private:
  struct State;
  std::unique_ptr<State> mState;
};

// The socket of every peer that this process's components talk to: VROCAM_IPC_SOCKET when it is
// set; otherwise a fresh name in the abstract namespace, which is put into VROCAM_IPC_SOCKET. Call
// it (a fixture does) before the component's first IPCClientShmMgr::getInstance(). With
// VROCAM_TEST_TRACE=DIR (and no VROCAM_IPC_TRACE), the process and its peers trace into a
// directory of their own in DIR (made 0700), where the fixture writes a failed test's trace.
VROCAM_TESTKIT_API const std::string& processSocket();

}  // namespace testkit
}  // namespace vrocam
