#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds and runs the demo, doing all set-up on a fresh Debian machine. Options go to the demo
# (scripts/demo.sh --help); --peer runs it against the peer daemon on a private socket, and with
# --trace DIR (made when missing) both write traces there, merged into DIR/demo-trace.json.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

build_dir="$VROCAM_ROOT/build"
vrocam_setup "$build_dir"
args=()
trace_next=false
for arg in "$@"; do
  if [ "$arg" = "--peer" ]; then
    args+=(--peer "$build_dir/tools/vrocam_ipc_peer")
  else
    args+=("$arg")
  fi
  # The directory of --trace DIR is made here when it is missing.
  if $trace_next; then mkdir -p -- "$arg"; fi
  trace_next=false
  [ "$arg" = "--trace" ] && trace_next=true
  case "$arg" in --trace=*) mkdir -p -- "${arg#--trace=}" ;; esac
done
cmake --build "$build_dir" --target vrocam_shm_demo vrocam_ipc_peer >/dev/null
exec "$build_dir/tools/vrocam_shm_demo" "${args[@]}"
