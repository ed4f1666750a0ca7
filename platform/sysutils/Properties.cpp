// SPDX-License-Identifier: Apache-2.0
// Host properties: an in-process setting, else the environment variable named like the key.
#include "Properties.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>

#include "HostProperties.h"

namespace NSCam {
namespace Utils {
namespace Properties {
namespace {

std::mutex& tableLock() {
  static std::mutex lock;
  return lock;
}

std::map<std::string, std::string>& table() {
  static std::map<std::string, std::string> values;
  return values;
}

// The value of key, or false when it has none.
bool lookup(const char* key, std::string* value) {
  {
    std::lock_guard<std::mutex> guard(tableLock());
    auto it = table().find(key);
    if (it != table().end()) {
      *value = it->second;
      return true;
    }
  }
  const char* env = getenv(key);
  if (env == nullptr) return false;
  *value = env;
  return true;
}

}  // namespace

void host_property_set(const char* key, const char* value) {
  std::lock_guard<std::mutex> guard(tableLock());
  if (value == nullptr) {
    table().erase(key);
  } else {
    table()[key] = value;
  }
}

int32_t property_get_int32(const char* key, int32_t default_value) {
  std::string text;
  if (key == nullptr || !lookup(key, &text) || text.empty()) return default_value;
  const int savedErrno = errno;
  errno = 0;
  char* end = nullptr;
  const long long parsed = strtoll(text.c_str(), &end, 0);
  const bool valid = errno == 0 && end != text.c_str() && *end == '\0' && parsed >= INT32_MIN &&
                     parsed <= INT32_MAX;
  errno = savedErrno;
  return valid ? static_cast<int32_t>(parsed) : default_value;
}

}  // namespace Properties
}  // namespace Utils
}  // namespace NSCam
