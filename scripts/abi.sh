#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compares the ABI of the product library in BUILD_DIR (a g++/libstdc++ x86_64 build with debug
# information, as scripts/test.sh makes in build/) with the baseline abi/*.abi.xml: a changed
# layout of ShmMemInfo or of any type the API reaches, a removed or changed exported function,
# fails. After a deliberate change, write the new baseline with --update and commit it.
#   scripts/abi.sh [BUILD_DIR]            compare (default build/)
#   scripts/abi.sh --update [BUILD_DIR]   rewrite the baseline
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
update=0
[ "${1:-}" = "--update" ] && { update=1; shift; }
lib="${1:-$root/build}/libvrocam_ipc_wrapper_common_client.so"
baseline="$root/abi/libvrocam_ipc_wrapper_common_client.abi.xml"
if ! command -v abidiff > /dev/null; then
  [ "$(id -u)" -eq 0 ] || { echo "abidiff missing: install abigail-tools" >&2; exit 1; }
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends abigail-tools
fi
if [ "$update" = 1 ]; then
  abidw --no-corpus-path --out-file "$baseline" "$lib"
  echo "wrote $baseline"
  exit 0
fi
if abidiff "$baseline" "$lib"; then
  echo "abi: $lib matches the baseline"
else
  echo "abi: $lib differs from abi/$(basename "$baseline"); if the change is deliberate, run" \
    "scripts/abi.sh --update and commit the baseline" >&2
  exit 1
fi
