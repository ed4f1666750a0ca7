#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds and runs the demo, doing all set-up on a fresh Debian machine. Options go to the demo
# (scripts/demo.sh --help); --peer runs it against the peer daemon on a private socket.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

build_dir="$VROCAM_ROOT/build"
vrocam_setup "$build_dir"
args=()
for arg in "$@"; do
  if [ "$arg" = "--peer" ]; then
    args+=(--peer "$build_dir/tools/vrocam_ipc_peer")
  else
    args+=("$arg")
  fi
done
cmake --build "$build_dir" --target vrocam_shm_demo vrocam_ipc_peer >/dev/null
exec "$build_dir/tools/vrocam_shm_demo" "${args[@]}"
