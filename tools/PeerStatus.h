// SPDX-License-Identifier: Apache-2.0
// vrocam_ipc_peer --status: what a running peer holds, fetched page by page, printed as its text
// or as JSON.
#pragma once

#include <string>

namespace vrocam {
namespace tools {

// Prints the status of the peer at socket on stdout (JSON when json), every byte that a terminal
// or a JSON parser could take amiss escaped: 0, or 1 after saying why there is none, in a line on
// stderr or, with json, as {"error": {...}} on stdout.
int printPeerStatus(const std::string& socket, bool json);

}  // namespace tools
}  // namespace vrocam
