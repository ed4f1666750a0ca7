// SPDX-License-Identifier: Apache-2.0
// PeerProcess: fork, exec, wait for the first ping, stop.
#include "PeerProcess.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "Packet.h"
#include "PeerWire.h"

namespace vropeer {
namespace {

// Whether the peer at socket answers a ping.
bool answers(const std::string& socket) {
  vrowire::UniqueFd sock;
  if (vrowire::connectTo(socket, 1000, &sock) != 0) return false;
  uint8_t buffer[64];
  vrowire::Writer out(buffer, sizeof(buffer));
  out.header(static_cast<uint16_t>(vrowire::Kind::Ping), 1);
  vrowire::Answer answer;
  return vrowire::roundTrip(sock.get(), buffer, sizeof(buffer), out.finish(), &answer) == 0 &&
         answer.status == 0;
}

}  // namespace

PeerProcess::~PeerProcess() { stop(SIGKILL); }

int PeerProcess::start(const std::vector<std::string>& command, const std::string& socket,
                       const std::vector<std::string>& extra, const std::string& logPath,
                       int timeoutMs) {
  if (mPid > 0) return -EBUSY;
  if (command.empty()) return -EINVAL;
  std::vector<std::string> args = command;
  args.insert(args.end(), {"--socket", socket});
  args.insert(args.end(), extra.begin(), extra.end());
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  vrowire::UniqueFd log;
  if (!logPath.empty()) {
    log.reset(open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (!log) return -errno;
  }

  mPid = fork();
  if (mPid < 0) return -errno;
  if (mPid == 0) {
    // With a log the peer keeps no pipe of ours open: a caller that dies without stopping it
    // leaves no reader of its output waiting for the peer too.
    if (log) dup2(log.get(), STDOUT_FILENO), dup2(log.get(), STDERR_FILENO);
    close_range(STDERR_FILENO + 1, ~0u, 0);  // the peer gets stdio and nothing else of ours
    execvp(argv[0], argv.data());
    _exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!answers(socket)) {
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

}  // namespace vropeer
