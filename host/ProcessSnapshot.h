// SPDX-License-Identifier: Apache-2.0
// What a process holds, read from /proc: its open descriptors and its mappings. The demo counts
// its leaks with it, the tests compare two, the peer plans its budget on one.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace vrocam {
namespace host {

struct ProcessSnapshot {
  std::map<int, std::string> descriptors;  // descriptor -> what it refers to
  std::vector<std::string> mappings;       // the lines of /proc/PID/maps

  // The mappings of memfds (shared memory), whose lines name "/memfd:NAME".
  std::vector<std::string> memfdMappings() const;
  // pid 0: this process, without the descriptor used to read it. A process that is gone gives
  // an empty snapshot.
  static ProcessSnapshot of(pid_t pid = 0);
};

}  // namespace host
}  // namespace vrocam
