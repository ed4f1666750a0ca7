// SPDX-License-Identifier: Apache-2.0
// FaultRules: rules read, matched, counted.
#include "FaultRules.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "ErrnoText.h"
#include "Escape.h"

namespace vrocam {
namespace peer {
namespace {

constexpr const char* kKinds[] = {"register", "deregister", "ping", "checksum", "fill",
                                  "holdings", "status",     "any",  "accept"};
constexpr const char* kActions[] = {"",      "errno", "delay", "hold", "drop",
                                    "close", "exit",  "kill",  "mmap"};

// A whole number from min to max, or false.
bool number(const std::string& text, uint64_t min, uint64_t max, uint64_t* out) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = strtoull(text.c_str(), &end, 10);
  if (text.empty() || text[0] == '-' || errno != 0 || *end != '\0' || value < min || value > max) {
    return false;
  }
  *out = value;
  return true;
}

// An errno by name (ENOSPC) or number (28), or 0.
int errnoOf(const std::string& text) {
  uint64_t value = 0;
  if (number(text, 1, 4095, &value)) return static_cast<int>(value);
  return host::errnoNamed(text);
}

// A time: a number of milliseconds, or one with "ms" or "s", from 1 ms to an hour; or -1.
long long millisecondsOf(std::string text) {
  uint64_t scale = 1;
  if (text.size() > 2 && text.compare(text.size() - 2, 2, "ms") == 0) {
    text.resize(text.size() - 2);
  } else if (text.size() > 1 && text.back() == 's') {
    text.pop_back();
    scale = 1000;
  }
  uint64_t value = 0;
  if (!number(text, 1, 3600000 / scale, &value)) return -1;
  return static_cast<long long>(value * scale);
}

}  // namespace

const char* faultKindOf(Kind kind) {
  return kind >= Kind::Ping && kind <= Kind::Status ? kindName(kind) : nullptr;
}

std::string FaultRules::add(const std::string& text) {
  if (mRules.size() >= kMaxRules)
    return "there are " + std::to_string(kMaxRules) + " rules already";
  Rule rule;
  std::vector<std::string> fields;
  std::istringstream parts(text);
  for (std::string field; std::getline(parts, field, ':');) fields.push_back(field);
  if (fields.empty() ||
      std::find(std::begin(kKinds), std::end(kKinds), fields[0]) == std::end(kKinds)) {
    return "it matches no kind of request ('" + (fields.empty() ? "" : fields[0]) +
           "'; register, deregister, ping, checksum, fill, holdings, status, any or accept)";
  }
  rule.kind = fields[0];
  for (size_t i = 1; i < fields.size(); ++i) {
    const std::string& field = fields[i];
    const size_t equals = field.find('=');
    const std::string key = field.substr(0, equals);
    const bool valued = equals != std::string::npos;
    const std::string value = valued ? field.substr(equals + 1) : "";
    const auto* action = std::find(std::begin(kActions) + 1, std::end(kActions), key);
    bool good = true;
    if (action != std::end(kActions)) {
      if (rule.fault.action != FaultAction::None) {
        return "it has two actions ('" +
               std::string(kActions[static_cast<int>(rule.fault.action)]) + "' and '" + key + "')";
      }
      rule.fault.action = static_cast<FaultAction>(action - std::begin(kActions));
      uint64_t code = 1;
      switch (rule.fault.action) {
        case FaultAction::Errno:
          rule.fault.value = errnoOf(value);
          good = rule.fault.value != 0;
          break;
        case FaultAction::Mmap:
          rule.fault.value = valued ? errnoOf(value) : ENOMEM;
          good = rule.fault.value != 0;
          break;
        case FaultAction::Delay:
          rule.fault.delay = std::chrono::milliseconds(millisecondsOf(value));
          good = rule.fault.delay.count() > 0;
          break;
        case FaultAction::Exit:
          good = !valued || number(value, 0, 255, &code);
          rule.fault.value = static_cast<int>(code);
          break;
        default:  // hold, drop, close, kill take no value
          good = !valued;
          break;
      }
    } else if (key == "pid" && valued) {
      uint64_t pid = 0;
      good = number(value, 1, INT32_MAX, &pid);
      rule.pid = static_cast<pid_t>(pid);
    } else if (key == "p" && valued) {
      uint64_t percent = 0;
      good = number(value, 1, 100, &percent);
      rule.percent = static_cast<uint32_t>(percent);
    } else if ((key == "nth" || key == "every" || key == "times") && valued) {
      good = number(value, 1, UINT64_MAX,
                    key == "nth"     ? &rule.nth
                    : key == "every" ? &rule.every
                                     : &rule.times);
    } else if (key == "after" && valued) {
      good = number(value, 0, UINT64_MAX, &rule.after);
    } else {
      return "'" + field +
             "' is no part of a rule (pid=, an action, nth=, after=, every=, times=, "
             "p=)";
    }
    if (!good) return "'" + field + "' has no value it takes";
  }
  const FaultAction action = rule.fault.action;
  if (action == FaultAction::None) {
    return "it has no action (errno=, delay=, hold, drop, close, exit, kill or mmap)";
  }
  if (action == FaultAction::Mmap && rule.kind != "register") return "mmap goes with register only";
  if (rule.kind == "accept" && action != FaultAction::Errno && action != FaultAction::Close &&
      action != FaultAction::Exit && action != FaultAction::Kill) {
    return "a new connection can only be refused (errno=), closed, or end the peer";
  }
  rule.fault.rule = ++mAdded;
  rule.fault.text = text;
  rule.draws.seed(mSeed ^ (0x9E3779B97F4A7C15ull * rule.fault.rule));
  mRules.push_back(std::move(rule));
  return "";
}

Fault FaultRules::match(const char* kind, pid_t pid) {
  const bool accepting = strcmp(kind, "accept") == 0;
  for (Rule& rule : mRules) {
    if (rule.kind != kind && (rule.kind != "any" || accepting)) continue;
    if (rule.pid != 0 && rule.pid != pid) continue;
    const uint64_t match = ++rule.matched;
    bool fires = (rule.nth == 0 || match == rule.nth) && match > rule.after &&
                 (rule.every == 0 || match % rule.every == 0) &&
                 (rule.times == 0 || rule.fired < rule.times);
    if (fires && rule.percent < 100) fires = rule.draws() % 100 < rule.percent;
    if (!fires) continue;
    ++rule.fired;
    return rule.fault;
  }
  return Fault();
}

std::string FaultRules::list() const {
  std::string out = "faults: seed " + std::to_string(mSeed) + "\n";
  for (const Rule& rule : mRules) {
    out += "fault " + std::to_string(rule.fault.rule) + " " + host::escaped(rule.fault.text) +
           ": matched " + std::to_string(rule.matched) + ", fired " + std::to_string(rule.fired) +
           "\n";
  }
  return out;
}

}  // namespace peer
}  // namespace vrocam
