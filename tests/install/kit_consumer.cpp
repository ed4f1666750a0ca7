// SPDX-License-Identifier: Apache-2.0
// Built against an installed package through pkg-config (vrocam_testkit): starts a private peer,
// adds a fault rule, reads its counts and stops it. 0 on success.
#include <cstdio>

#include "vrocam/testkit/Peer.h"

int main() {
  vrocam::testkit::Peer peer;
  std::vector<vrocam::testkit::FaultCount> counts;
  if (peer.start() != 0 || peer.addFault("ping:errno=EIO") != 0 || peer.faults(&counts) != 0 ||
      counts.size() != 1 || peer.stop() != 0) {
    std::fprintf(stderr, "kit consumer: the peer did not do as told:\n%s", peer.log().c_str());
    return 1;
  }
  return 0;
}
