// SPDX-License-Identifier: Apache-2.0
// What the peer keeps per client connection: its table of memories, the long command it runs,
// the answer it has not taken yet, and when it last did something.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "ClientTable.h"
#include "FaultRules.h"
#include "Packet.h"
#include "PeerServer.h"
#include "PeerWire.h"
#include "UniqueFd.h"

namespace vrocam {
namespace peer {

// A command over a whole memory, carried out a slice per round. The memory stays in the table
// (and so mapped) until the command is over: the peer reads no further request of the client
// meanwhile, and a client that goes drops its command before its table.
struct LongCommand {
  Kind kind = Kind::Checksum;  // or Fill
  uint32_t seq = 0;
  const Memory* memory = nullptr;  // null: no command
  uint64_t done = 0;               // bytes done
  uint32_t crc = 0;
  uint8_t value = 0;
};

struct PeerServer::Connection {
  Connection(host::UniqueFd socket, pid_t pid, uid_t uid, uint32_t serial, const Limits& limits)
      : sock(std::move(socket)), pid(pid), uid(uid), serial(serial), table(limits) {}

  bool busy() const { return command.memory != nullptr || !unsent.empty() || !kept.empty(); }

  host::UniqueFd sock;
  pid_t pid;
  uid_t uid;
  uint32_t serial;
  bool joined = false;   // a client, not a connection that only asked for the status
  bool gone = false;     // dropped: erased at the end of the round
  bool control = false;  // the starter's own (adoptControl): no fault, slot or idle limit for it
  ClientTable table;
  LongCommand command;
  std::vector<uint8_t> unsent;  // an answer the client's socket had no room for
  std::vector<uint8_t> kept;    // an answer a fault rule keeps back (delay, hold)
  Clock::time_point keptUntil;  // when it goes; max(): until released
  Fault fault;                  // what a fault rule does to the answer of the request under way
  Clock::time_point since;      // of the last request other than a query, answer taken
  uint64_t served = 0;          // the round of its last turn
  short revents = 0;            // what poll saw this round
};

}  // namespace peer
}  // namespace vrocam
