// SPDX-License-Identifier: Apache-2.0
// vrocam::testkit::Peer: the peer process, its log in anonymous memory, its faults and its view.
#include "vrocam/testkit/Peer.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Packet.h"
#include "PeerProcess.h"
#include "PeerWire.h"
#include "StatusText.h"
#include "TraceFile.h"
#include "TraceMerge.h"
#include "UniqueFd.h"

namespace vrocam {
namespace testkit {
namespace {

// A fresh name in the abstract namespace, "@PREFIX-PID-RANDOM".
std::string freshName(const char* prefix) {
  uint64_t random = 0;
  if (getrandom(&random, sizeof(random), 0) != sizeof(random))
    random = static_cast<uint64_t>(clock());
  char name[80];
  snprintf(name, sizeof(name), "@%s-%d-%016llx", prefix, static_cast<int>(getpid()),
           static_cast<unsigned long long>(random));
  return name;
}

// Whether path is a program that may be run.
bool runnable(const std::string& path) { return access(path.c_str(), X_OK) == 0; }

// The command that runs the peer (see PeerOptions::command).
std::vector<std::string> peerCommand(const PeerOptions& options) {
  if (!options.command.empty()) return options.command;
  const char* given = getenv("VROCAM_IPC_PEER");
  if (given != nullptr && *given != '\0') return {given};
  // Installed: the peer lies in the bin/ beside the kit's lib/.
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&processSocket), &info) != 0 && info.dli_fname != nullptr) {
    std::string library = info.dli_fname;
    char resolved[PATH_MAX];
    if (realpath(library.c_str(), resolved) != nullptr) library = resolved;
    const std::string peer =
        library.substr(0, library.rfind('/') + 1) + VROCAM_TESTKIT_LIB_TO_BIN "/vrocam_ipc_peer";
    if (runnable(peer)) return {peer};
  }
#ifdef VROCAM_TESTKIT_BUILD_PEER  // in the build tree it was made in
  if (runnable(VROCAM_TESTKIT_BUILD_PEER)) return {VROCAM_TESTKIT_BUILD_PEER};
#endif
  return {"vrocam_ipc_peer"};
}

}  // namespace

struct Peer::State {
  PeerOptions options;
  std::string socket;
  peer::PeerProcess process;
  host::UniqueFd log;  // anonymous memory: nothing on disk
  // Our end of the peer's control connection: no rule faults it, nor refuses it.
  host::UniqueFd control;
  uint32_t seq = 0;
  bool frozen = false;
  std::string traceDir;  // where the peer traces, or empty

  // A request about faults: the peer's status, with its text in *text.
  int ask(peer::FaultOp op, const std::string& rule, std::string* text) {
    if (!control) return -ENOTCONN;
    peer::Request request;
    request.kind = peer::Kind::Faults;
    request.seq = ++seq;
    request.op = op;
    request.text = rule;
    std::vector<uint8_t> buffer(peer::kMaxMessage);
    const size_t size = peer::encodeRequest(buffer.data(), buffer.size(), request);
    if (size == 0) return -EMSGSIZE;
    peer::Answer answer;
    int closing = 0;
    const int err =
        peer::roundTrip(control.get(), buffer.data(), buffer.size(), size, 2000, &answer, &closing);
    if (closing != 0) return closing;
    if (err != 0) return err;
    if (text != nullptr) *text = answer.text;
    return answer.status;
  }
};

Peer::Peer(PeerOptions options) : mState(new State) {
  mState->options = std::move(options);
  mState->socket =
      mState->options.socket.empty() ? freshName("vrocam-peer") : mState->options.socket;
}

PeerOptions& Peer::options() { return mState->options; }

Peer::~Peer() { stop(SIGTERM); }

int Peer::start() {
  State& state = *mState;
  if (running()) return -EBUSY;
  if (!state.log) state.log.reset(memfd_create("vrocam-peer-log", MFD_CLOEXEC));
  if (!state.log) return -errno;
  const PeerOptions& options = state.options;
  if (!options.socket.empty()) state.socket = options.socket;
  peer::PeerLaunch launch;
  launch.command = peerCommand(options);
  launch.socket = state.socket;
  launch.flags = options.flags;
  for (const std::string& rule : options.faults)
    launch.flags.insert(launch.flags.end(), {"--fault", rule});
  if (options.allowFaults) launch.flags.push_back("--allow-faults");
  const char* processTrace = getenv("VROCAM_IPC_TRACE");
  const std::string traceDir = !options.traceDir.empty() ? options.traceDir
                               : processTrace != nullptr ? processTrace
                                                         : "";
  if (!traceDir.empty()) launch.flags.insert(launch.flags.end(), {"--trace", traceDir});
  state.traceDir = traceDir;
  if (options.faultSeed >= 0) {
    launch.flags.insert(launch.flags.end(), {"--fault-seed", std::to_string(options.faultSeed)});
  }
  launch.timeoutMs = static_cast<int>(options.startTimeout.count());
  launch.maxFiles = options.maxFiles;
  launch.logFd = state.log.get();
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return -errno;
  state.control.reset(pair[0]);
  const host::UniqueFd theirs(pair[1]);
  launch.controlFd = theirs.get();
  state.frozen = false;
  state.seq = 0;
  return state.process.start(launch);
}

int Peer::stop(int signal) {
  State& state = *mState;
  if (signal != SIGKILL) thaw();  // a frozen peer takes no other signal until it runs again
  state.frozen = false;
  const int status = state.process.stop(signal);
  if (status < 0) return status;  // none was running
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool Peer::running() const { return mState->process.pid() > 0; }

pid_t Peer::pid() const { return mState->process.pid(); }

const std::string& Peer::socket() const { return mState->socket; }

void Peer::freeze() {
  if (!running() || mState->frozen) return;
  int status = 0;
  kill(pid(), SIGSTOP);
  waitpid(pid(), &status, WUNTRACED);
  mState->frozen = true;
}

void Peer::thaw() {
  if (!mState->frozen) return;
  kill(pid(), SIGCONT);
  mState->frozen = false;
}

std::string Peer::log() const {
  std::string text;
  struct stat st {};
  const int fd = mState->log.get();
  if (fd < 0 || fstat(fd, &st) != 0) return text;
  text.resize(static_cast<size_t>(st.st_size));
  const ssize_t got = pread(fd, &text[0], text.size(), 0);
  text.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return text;
}

bool Peer::logShows(const std::string& text, std::chrono::milliseconds within) const {
  const auto deadline = std::chrono::steady_clock::now() + within;
  while (log().find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

int Peer::addFault(const std::string& rule, std::string* why) {
  std::string text;
  const int err = mState->ask(peer::FaultOp::Add, rule, &text);
  if (why != nullptr) *why = text;
  return err;
}

int Peer::clearFaults() { return mState->ask(peer::FaultOp::Clear, "", nullptr); }

int Peer::releaseHeld() {
  std::string text;  // "released N answers"
  const int err = mState->ask(peer::FaultOp::Release, "", &text);
  int released = 0;
  if (err != 0) return err;
  return sscanf(text.c_str(), "released %d", &released) == 1 ? released : -EPROTO;
}

int Peer::faults(std::vector<FaultCount>* out, uint64_t* seed) const {
  std::string text;
  const int err = mState->ask(peer::FaultOp::List, "", &text);
  if (err != 0) return err;
  out->clear();
  const peer::PeerStatus parsed = peer::parseStatus(text);  // the lines of the status's faults
  if (seed != nullptr && parsed.faults) *seed = parsed.faultSeed;
  for (const peer::FaultStatus& fault : parsed.faultList) {
    out->push_back(
        FaultCount{static_cast<size_t>(fault.rule), fault.text, fault.matched, fault.fired});
  }
  return 0;
}

int Peer::status(std::string* text) const {
  text->clear();
  if (!mState->control) return -ENOTCONN;
  return peer::fetchStatus(mState->control.get(), &mState->seq, text);
}

std::vector<PeerMemory> Peer::holdings(pid_t pid) const {
  std::vector<PeerMemory> memories;
  std::string text;
  if (status(&text) != 0) return memories;
  for (const peer::ClientStatus& client : peer::parseStatus(text).clientList) {
    if (client.pid != pid) continue;
    for (const peer::MemoryStatus& m : client.list) {
      memories.push_back(PeerMemory{m.handle, m.type, m.size, m.readOnly, m.name});
    }
  }
  std::sort(memories.begin(), memories.end(),
            [](const PeerMemory& a, const PeerMemory& b) { return a.handle < b.handle; });
  return memories;
}

int Peer::mergeTrace(const std::string& out, int64_t sinceNs) const {
  if (mState->traceDir.empty()) return -ENOENT;
  const trace::MergeResult merged = trace::mergeTraces(
      mState->traceDir, out, static_cast<double>(sinceNs) / 1000, static_cast<double>(clockNs()));
  return merged.error;
}

int64_t Peer::clockNs() { return trace::nowNs(); }

const std::string& processSocket() {
  static const std::string socket = [] {
    // Traces of a failed test are wanted: this process and its peers trace into a directory of
    // their own there.
    const char* tests = getenv("VROCAM_TEST_TRACE");
    const char* given = getenv("VROCAM_IPC_TRACE");
    if (tests != nullptr && *tests != '\0' && (given == nullptr || *given == '\0')) {
      const std::string dir = std::string(tests) + "/run-" + std::to_string(getpid());
      if (mkdir(dir.c_str(), 0700) == 0 || errno == EEXIST)
        setenv("VROCAM_IPC_TRACE", dir.c_str(), 1);
    }
    const char* named = getenv("VROCAM_IPC_SOCKET");
    if (named != nullptr && *named != '\0') return std::string(named);
    const std::string name = freshName("vrocam-test");
    setenv("VROCAM_IPC_SOCKET", name.c_str(), 1);
    return name;
  }();
  return socket;
}

}  // namespace testkit
}  // namespace vrocam
