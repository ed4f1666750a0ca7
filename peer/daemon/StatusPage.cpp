// SPDX-License-Identifier: Apache-2.0
// PeerServer: the status text, one bounded page per request, built from where the last ended.
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>

#include "Connection.h"
#include "Escape.h"
#include "PeerServer.h"
#include "StringPrintf.h"

namespace vrocam {
namespace peer {

namespace {

// Appends line to the page when it fits; false when the page is full.
bool add(std::string& page, const std::string& line) {
  if (page.size() + line.size() > kStatusPage) return false;
  page += line;
  return true;
}

using host::StringPrintf;

}  // namespace

void PeerServer::statusPage(const Connection& asking, const StatusCursor& from,
                            Answer& answer) const {
  std::string& page = answer.text;
  StatusCursor at = from;
  answer.more = true;
  if (at.client == 0 && at.after == StatusCursor::kClientLine) {
    add(page, StringPrintf("peer pid %d: %zu of at most %u clients; %zu of at most %zu memories in "
                           "all (%zu being freed); %llu of at most %llu bytes of address space\n",
                           static_cast<int>(getpid()), clients(), mLimits.maxClients, held(),
                           mBudget.memories, mReaper.memories(),
                           static_cast<unsigned long long>(mBudget.addressSpace - room().length),
                           static_cast<unsigned long long>(mBudget.addressSpace)));
    add(page, StringPrintf("per client: at most %u memories and %llu bytes; idle timeout %lld ms; "
                           "batch timeout %lld ms\n",
                           mShare.maxMemories, static_cast<unsigned long long>(mShare.maxBytes),
                           static_cast<long long>(mLimits.idleTimeout.count()),
                           static_cast<long long>(mLimits.batchTimeout.count())));
    if (mFaults) add(page, mFaults->list());
  }
  // The clients from the cursor on, in the order they came; the asking one, and any that only
  // asked for the status, hold nothing of interest.
  auto next = std::lower_bound(
      mConnections.begin(), mConnections.end(), at.client,
      [](const std::unique_ptr<Connection>& c, uint32_t serial) { return c->serial < serial; });
  if (next != mConnections.end() && (*next)->serial != at.client)
    at.after = StatusCursor::kClientLine;
  for (; next != mConnections.end(); ++next) {
    const Connection& client = **next;
    at.client = client.serial;
    if (&client == &asking || !client.joined) continue;
    const ClientTable& table = client.table;
    if (at.after == StatusCursor::kClientLine) {
      std::string line =
          StringPrintf("client pid %d uid %u: %zu memories, %llu bytes", client.pid, client.uid,
                       table.memories().size(), static_cast<unsigned long long>(table.bytes()));
      if (table.staged() != 0) {
        line += StringPrintf("; staged %zu memories, %llu bytes", table.staged(),
                             static_cast<unsigned long long>(table.stagedBytes()));
      }
      if (!add(page, line + "\n")) return void(answer.next = at);
      at.after = StatusCursor::kClientLine + 1;
    }
    const auto& memories = table.memories();
    auto memory = at.after < INT32_MIN    ? memories.begin()
                  : at.after >= INT32_MAX ? memories.end()
                                          : memories.upper_bound(static_cast<int32_t>(at.after));
    for (; memory != memories.end(); ++memory) {
      const Memory& m = memory->second;
      const std::string line =
          StringPrintf("  handle %d type %u size %llu%s name ", m.handle, m.type,
                       static_cast<unsigned long long>(m.size), m.writable ? "" : " read-only") +
          host::escaped(m.name) + "\n";
      if (!add(page, line)) return void(answer.next = at);
      at.after = m.handle;
    }
    at.after = StatusCursor::kClientLine;
  }
  at.client = UINT32_MAX;  // the total line
  size_t clients = 0;
  size_t memories = 0;
  unsigned long long bytes = 0;
  for (const auto& connection : mConnections) {
    if (connection.get() == &asking || !connection->joined) continue;
    ++clients;
    memories += connection->table.memories().size();
    bytes += connection->table.bytes();
  }
  if (!add(page, StringPrintf("total: %zu clients, %zu memories, %llu bytes\n", clients, memories,
                              bytes))) {
    return void(answer.next = at);
  }
  answer.more = false;
}

}  // namespace peer
}  // namespace vrocam
