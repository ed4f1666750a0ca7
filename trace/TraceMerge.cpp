// SPDX-License-Identifier: Apache-2.0
// TraceMerge: events read a line each, sorted, written as one trace.
#include "TraceMerge.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <sstream>

#include "UniqueFd.h"

namespace vrocam {
namespace trace {
namespace {

struct Line {
  double ts = 0;
  bool metadata = false;
  std::string text;
};

// The value of "key": in an event's line, as written; "" when there is none.
std::string field(const std::string& line, const char* key) {
  const std::string quoted = std::string("\"") + key + "\":";
  const size_t at = line.find(quoted);
  if (at == std::string::npos) return "";
  size_t start = at + quoted.size();
  size_t end = start;
  if (line[start] == '"')
    end = line.find('"', ++start);
  else
    end = line.find_first_of(",}", start);
  return end == std::string::npos ? "" : line.substr(start, end - start);
}

// The whole of the file at path, when it is a regular file of at most 1 GiB and no link.
bool readFile(const std::string& path, std::string* text) {
  host::UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st {};
  if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > (1ll << 30)) {
    return false;
  }
  text->resize(static_cast<size_t>(st.st_size));
  size_t done = 0;
  while (done < text->size()) {
    const ssize_t got = read(fd.get(), &(*text)[done], text->size() - done);
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  text->resize(done);
  return true;
}

}  // namespace

MergeResult mergeTraces(const std::string& dir, const std::string& out, double sinceUs,
                        double untilUs) {
  MergeResult result;
  std::vector<std::string> names;
  if (DIR* listing = opendir(dir.c_str())) {
    while (dirent* entry = readdir(listing)) {
      const std::string name = entry->d_name;
      if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0 &&
          dir + "/" + name != out) {
        names.push_back(name);
      }
    }
    closedir(listing);
  } else {
    result.error = -errno;
    return result;
  }
  std::sort(names.begin(), names.end());
  std::vector<Line> lines;
  std::map<std::string, std::pair<int, int>> flows;  // id: its starts and ends
  for (const std::string& name : names) {
    std::string text;
    if (!readFile(dir + "/" + name, &text)) continue;
    ++result.files;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
      while (!line.empty() && (line.back() == ' ' || line.back() == ',' || line.back() == ']')) {
        line.pop_back();
      }
      if (line.empty() || line == "[") continue;
      const std::string ph = field(line, "ph");
      if (line.front() != '{' || line.back() != '}' || ph.empty()) {
        ++result.skipped;
        continue;
      }
      Line event;
      event.ts = strtod(field(line, "ts").c_str(), nullptr);
      event.metadata = ph == "M";
      if (!event.metadata && untilUs > 0 && (event.ts < sinceUs || event.ts > untilUs)) continue;
      const std::string id = field(line, "id");
      if (ph == "s") ++flows[id].first;
      if (ph == "f") ++flows[id].second;
      event.text = std::move(line);
      lines.push_back(std::move(event));
    }
  }
  std::stable_sort(lines.begin(), lines.end(), [](const Line& a, const Line& b) {
    return a.metadata != b.metadata ? a.metadata : a.ts < b.ts;
  });
  for (const auto& [id, ends] : flows) {
    if (ends.first == 0) result.unmatched.push_back("peer handling " + id + " has no client call");
    if (ends.second == 0) result.unmatched.push_back("client call " + id + " has no end in a peer");
    if (ends.first > 1 || ends.second > 1) {
      result.unmatched.push_back("flow " + id + " is used by more than one call");
    }
  }
  std::string merged = "{\"traceEvents\":[\n";
  for (size_t i = 0; i < lines.size(); ++i) {
    merged += lines[i].text + (i + 1 < lines.size() ? ",\n" : "\n");
  }
  merged += "],\"displayTimeUnit\":\"ns\"}\n";
  result.events = lines.size();
  errno = 0;  // a short write sets none: the disk is full
  host::UniqueFd fd(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!fd || write(fd.get(), merged.data(), merged.size()) != static_cast<ssize_t>(merged.size())) {
    result.error = errno != 0 ? -errno : -ENOSPC;
  }
  return result;
}

}  // namespace trace
}  // namespace vrocam
