// SPDX-License-Identifier: Apache-2.0
// PeerProcess: fork, exec, wait for the peer's word that it is ready, stop.
#include "PeerProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

namespace vrocam {
namespace peer {
namespace {

// The descriptors the peer gets beside stdio: its end of the ready pipe, of the lifeline and of the
// control connection; above them, until exec, the pipe that carries exec's errno.
constexpr int kReadyFd = 3;
constexpr int kLifelineFd = 4;
constexpr int kControlFd = 5;
constexpr int kErrnoFd = 6;

// A pipe, both ends close-on-exec: 0, or a negative errno.
int makePipe(host::UniqueFd* read, host::UniqueFd* write) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -errno;
  read->reset(fds[0]);
  write->reset(fds[1]);
  return 0;
}

}  // namespace

PeerProcess::~PeerProcess() { stop(SIGKILL); }

int PeerProcess::start(const PeerLaunch& launch) {
  if (mPid > 0) return -EBUSY;
  if (launch.command.empty()) return -EINVAL;
  std::vector<std::string> args = launch.command;
  args.insert(args.end(), {"--socket", launch.socket, "--ready-fd", std::to_string(kReadyFd),
                           "--lifeline", std::to_string(kLifelineFd)});
  if (launch.controlFd >= 0) args.insert(args.end(), {"--control-fd", std::to_string(kControlFd)});
  args.insert(args.end(), launch.flags.begin(), launch.flags.end());
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  host::UniqueFd log;
  if (!launch.logPath.empty()) {
    log.reset(open(launch.logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (!log) return -errno;
  }
  const int logFd = log ? log.get() : launch.logFd;
  // The exec errno pipe is closed by a successful exec; the ready pipe by the peer once serving.
  host::UniqueFd execRead, execWrite, readyRead, readyWrite, lifeRead, lifeWrite;
  int err = makePipe(&execRead, &execWrite);
  if (err == 0) err = makePipe(&readyRead, &readyWrite);
  if (err == 0) err = makePipe(&lifeRead, &lifeWrite);
  if (err != 0) return err;
  const pid_t parent = getpid();

  mPid = fork();
  if (mPid < 0) return -errno;
  if (mPid == 0) {
    // A frozen peer whose parent ended is continued, to see its lifeline hang up.
    prctl(PR_SET_PDEATHSIG, SIGCONT);
    if (getppid() != parent) _exit(127);  // the parent died before the line above
    if (logFd >= 0) dup2(logFd, STDOUT_FILENO), dup2(logFd, STDERR_FILENO);
    if (launch.maxFiles != 0) {
      const rlimit files{launch.maxFiles, launch.maxFiles};
      setrlimit(RLIMIT_NOFILE, &files);
    }
    // The peer gets stdio, its ends at 3, 4 and 5, and nothing else of ours: each is first moved
    // above them all, so that none is overwritten before it is moved to its place.
    const int sources[] = {readyWrite.get(), lifeRead.get(), launch.controlFd, execWrite.get()};
    const int targets[] = {kReadyFd, kLifelineFd, kControlFd, kErrnoFd};
    int moved[4];
    for (int i = 0; i < 4; ++i) {
      moved[i] = sources[i] < 0 ? -1 : fcntl(sources[i], F_DUPFD, kErrnoFd + 1);
      if (sources[i] >= 0 && moved[i] < 0) _exit(126);
    }
    for (int i = 0; i < 4; ++i) {
      if (moved[i] >= 0 && dup2(moved[i], targets[i]) != targets[i]) _exit(126);
    }
    fcntl(kErrnoFd, F_SETFD, FD_CLOEXEC);
    close_range(kErrnoFd + 1, ~0u, 0);
    if (launch.controlFd < 0) close(kControlFd);
    execvp(argv[0], argv.data());
    const int failed = errno;
    if (write(kErrnoFd, &failed, sizeof(failed)) != sizeof(failed)) _exit(126);
    _exit(127);
  }
  execWrite.reset();
  readyWrite.reset();
  lifeRead.reset();
  int execErr = 0;
  ssize_t got;
  while ((got = read(execRead.get(), &execErr, sizeof(execErr))) < 0 && errno == EINTR) {
  }
  if (got == sizeof(execErr)) {
    stop(SIGKILL);
    return -execErr;
  }
  mLifeline = std::move(lifeWrite);
  // Ready once it says so; its end of the pipe closing first means it ended.
  pollfd ready{readyRead.get(), POLLIN, 0};
  int waited;
  while ((waited = poll(&ready, 1, launch.timeoutMs)) < 0 && errno == EINTR) {
  }
  if (waited == 0) return -ETIMEDOUT;
  char word[6] = {};
  if (read(readyRead.get(), word, sizeof(word)) != sizeof(word)) {
    int status = 0;
    waitpid(mPid, &status, 0);
    mPid = -1;
    mLifeline.reset();
    return -ECHILD;
  }
  return 0;
}

int PeerProcess::stop(int signal) {
  if (mPid <= 0) return -1;
  kill(mPid, signal);
  // A peer that does not end within kStopWait is killed: stopping never hangs.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStopWaitMs);
  int status = 0;
  pid_t ended;
  auto pause = std::chrono::microseconds(50);
  while ((ended = waitpid(mPid, &status, WNOHANG)) == 0 || (ended < 0 && errno == EINTR)) {
    if (std::chrono::steady_clock::now() >= deadline) kill(mPid, SIGKILL);
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, std::chrono::microseconds(10000));
  }
  mPid = -1;
  mLifeline.reset();
  return status;
}

}  // namespace peer
}  // namespace vrocam
