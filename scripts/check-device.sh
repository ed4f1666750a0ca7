#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks what the device build relies on: each build tree given exports exactly the API, the
# plain build (the first tree) matches the ABI baseline, and Android.bp is well formed and
# formatted. Installs abigail-tools and blueprint-tools when run as root.
#   scripts/check-device.sh BUILD_DIR [BUILD_DIR...]
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
[ $# -gt 0 ] || { echo "usage: scripts/check-device.sh BUILD_DIR [BUILD_DIR...]" >&2; exit 2; }
vrocam_install_packages abigail-tools blueprint-tools binutils

for dir in "$@"; do "$VROCAM_ROOT/scripts/check-exports.sh" "$dir"; done
"$VROCAM_ROOT/scripts/abi.sh" "$1"
unformatted=$(bpfmt -l "$VROCAM_ROOT/Android.bp")
if [ -n "$unformatted" ]; then
  bpfmt -d "$VROCAM_ROOT/Android.bp" >&2
  echo "Android.bp: not formatted as bpfmt formats it" >&2
  exit 1
fi
echo "Android.bp: well formed and formatted"
