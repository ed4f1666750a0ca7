// SPDX-License-Identifier: Apache-2.0
// PeerProcess: fork, exec, wait for the peer's word that it is ready, stop.
#include "PeerProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace vrocam {
namespace peer {
namespace {

// The descriptors the peer gets beside stdio: its end of the ready pipe and of the lifeline.
constexpr int kReadyFd = 3;
constexpr int kLifelineFd = 4;

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
    // The peer gets stdio, its two pipe ends at 3 and 4, and nothing else of ours; the errno pipe
    // goes above them and closes at exec.
    const int errnoFd = fcntl(execWrite.get(), F_DUPFD_CLOEXEC, kLifelineFd + 1);
    const int ready = fcntl(readyWrite.get(), F_DUPFD, kLifelineFd + 1);
    const int life = fcntl(lifeRead.get(), F_DUPFD, kLifelineFd + 1);
    if (errnoFd < 0 || ready < 0 || life < 0 || dup2(ready, kReadyFd) != kReadyFd ||
        dup2(life, kLifelineFd) != kLifelineFd || dup2(errnoFd, kLifelineFd + 1) < 0) {
      _exit(126);
    }
    fcntl(kLifelineFd + 1, F_SETFD, FD_CLOEXEC);
    close_range(kLifelineFd + 2, ~0u, 0);
    execvp(argv[0], argv.data());
    const int failed = errno;
    if (write(kLifelineFd + 1, &failed, sizeof(failed)) != sizeof(failed)) _exit(126);
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
  int status = 0;
  while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
  }
  mPid = -1;
  mLifeline.reset();
  return status;
}

}  // namespace peer
}  // namespace vrocam
