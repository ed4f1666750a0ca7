#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds and runs the demo, doing all set-up on a fresh Debian machine. Options go to the demo
# (scripts/demo.sh --help).
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

build_dir="$VROCAM_ROOT/build"
vrocam_setup "$build_dir"
cmake --build "$build_dir" --target vrocam_shm_demo >/dev/null
exec "$build_dir/tools/vrocam_shm_demo" "$@"
