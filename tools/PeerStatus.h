// SPDX-License-Identifier: Apache-2.0
// vrocam_ipc_peer --status: what a running peer holds, fetched page by page, printed as its text
// or as JSON.
#pragma once

#include <string>

namespace vrocam {
namespace tools {

// The longest status text taken from a peer.
constexpr size_t kMaxStatusText = 64 << 20;

// Prints the status of the peer at socket on stdout (JSON when json): 0, or 1 after a line on
// stderr saying why there is none.
int printPeerStatus(const std::string& socket, bool json);

}  // namespace tools
}  // namespace vrocam
