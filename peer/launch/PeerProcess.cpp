// SPDX-License-Identifier: Apache-2.0
// PeerProcess: fork, exec, wait for the first ping, stop.
#include "PeerProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "Packet.h"
#include "PeerWire.h"

namespace vrocam {
namespace peer {
namespace {

// Whether the peer at socket answers a ping.
bool answers(const std::string& socket) {
  host::UniqueFd sock;
  if (connectTo(socket, 1000, &sock) != 0) return false;
  uint8_t buffer[64];
  Request ping;
  ping.seq = 1;
  Answer answer;
  int closing = 0;
  const size_t size = encodeRequest(buffer, sizeof(buffer), ping);
  return roundTrip(sock.get(), buffer, sizeof(buffer), size, 1000, &answer, &closing) == 0 &&
         answer.status == 0;
}

}  // namespace

PeerProcess::~PeerProcess() { stop(SIGKILL); }

int PeerProcess::start(const PeerLaunch& launch) {
  if (mPid > 0) return -EBUSY;
  if (launch.command.empty()) return -EINVAL;
  std::vector<std::string> args = launch.command;
  args.insert(args.end(), {"--socket", launch.socket});
  args.insert(args.end(), launch.flags.begin(), launch.flags.end());
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  host::UniqueFd log;
  if (!launch.logPath.empty()) {
    log.reset(open(launch.logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (!log) return -errno;
  }
  int pipeFds[2];  // carries exec's errno; closed by a successful exec
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return -errno;
  host::UniqueFd execRead(pipeFds[0]);
  host::UniqueFd execWrite(pipeFds[1]);
  const pid_t parent = getpid();

  mPid = fork();
  if (mPid < 0) return -errno;
  if (mPid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);     // a peer stops cleanly, its socket file removed
    if (getppid() != parent) _exit(127);  // the parent died before the line above
    // With a log the peer keeps no pipe of ours open: a caller that dies without stopping it
    // leaves no reader of its output waiting for the peer too.
    if (log) dup2(log.get(), STDOUT_FILENO), dup2(log.get(), STDERR_FILENO);
    if (launch.maxFiles != 0) {
      const rlimit files{launch.maxFiles, launch.maxFiles};
      setrlimit(RLIMIT_NOFILE, &files);
    }
    // The peer gets stdio and nothing else of ours (the errno pipe closes at exec).
    close_range(STDERR_FILENO + 1, static_cast<unsigned>(execWrite.get()) - 1, 0);
    close_range(static_cast<unsigned>(execWrite.get()) + 1, ~0u, 0);
    execvp(argv[0], argv.data());
    const int err = errno;
    if (write(execWrite.get(), &err, sizeof(err)) != sizeof(err)) _exit(126);
    _exit(127);
  }
  execWrite.reset();
  int execErr = 0;
  ssize_t got;
  while ((got = read(execRead.get(), &execErr, sizeof(execErr))) < 0 && errno == EINTR) {
  }
  if (got == sizeof(execErr)) {
    stop(SIGKILL);
    return -execErr;
  }
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(launch.timeoutMs);
  while (!answers(launch.socket)) {
    int status = 0;
    if (waitpid(mPid, &status, WNOHANG) == mPid) {
      mPid = -1;
      return -ECHILD;
    }
    if (std::chrono::steady_clock::now() >= deadline) return -ETIMEDOUT;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return 0;
}

int PeerProcess::stop(int signal) {
  if (mPid <= 0) return -1;
  kill(mPid, signal);
  int status = 0;
  while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
  }
  mPid = -1;
  return status;
}

}  // namespace peer
}  // namespace vrocam
