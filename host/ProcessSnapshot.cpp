// SPDX-License-Identifier: Apache-2.0
// Descriptors from /proc/PID/fd, mappings from /proc/PID/maps.
#include "ProcessSnapshot.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace vrocam {
namespace host {

std::vector<std::string> ProcessSnapshot::memfdMappings() const {
  std::vector<std::string> out;
  for (const std::string& line : mappings) {
    if (line.find("/memfd:") != std::string::npos) out.push_back(line);
  }
  return out;
}

ProcessSnapshot ProcessSnapshot::of(pid_t pid) {
  const std::string proc = "/proc/" + (pid == 0 ? std::string("self") : std::to_string(pid));
  ProcessSnapshot snapshot;
  if (DIR* dir = opendir((proc + "/fd").c_str())) {
    while (dirent* entry = readdir(dir)) {
      const int fd = atoi(entry->d_name);
      if (entry->d_name[0] == '.' || (pid == 0 && fd == dirfd(dir))) continue;
      char target[512] = {};
      const std::string link = proc + "/fd/" + entry->d_name;
      const ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
      snapshot.descriptors[fd] = n > 0 ? target : "?";
    }
    closedir(dir);
  }
  std::ifstream maps(proc + "/maps");
  for (std::string line; std::getline(maps, line);) snapshot.mappings.push_back(line);
  return snapshot;
}

}  // namespace host
}  // namespace vrocam
