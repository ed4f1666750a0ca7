#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fails when the product library's dynamic symbol table holds anything but its API, as listed in
# abi/exports.txt (demangled, with the C++ runtime's inline namespace left out so that one list
# serves libstdc++ and libc++, x86_64 and arm64).
#   scripts/check-exports.sh BUILD_DIR            check
#   scripts/check-exports.sh --update BUILD_DIR   rewrite abi/exports.txt from BUILD_DIR
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
update=0
[ "${1:-}" = "--update" ] && { update=1; shift; }
lib="${1:?usage: scripts/check-exports.sh [--update] BUILD_DIR}/libvrocam_ipc_wrapper_common_client.so"
expected="$root/abi/exports.txt"

# Defined dynamic symbols, but the bounds some linkers add (__bss_start, _edata, _end); readelf
# reads the ELF of any target.
actual=$(readelf -W --dyn-syms "$lib" |
  awk '$7 != "UND" && $5 != "LOCAL" && $1 ~ /^[0-9]+:$/ && $8 !~ /^(__bss_start|_edata|_end)$/ { print $8 }' |
  sed 's/@.*//' | c++filt | sed -e 's/std::__cxx11::/std::/g' -e 's/std::__1::/std::/g' | LC_ALL=C sort)
if [ "$update" = 1 ]; then
  printf '%s\n' "$actual" > "$expected"
  echo "wrote $expected ($(wc -l < "$expected") symbols)"
  exit 0
fi
if ! diff -u "$expected" <(printf '%s\n' "$actual"); then
  echo "exports: $lib differs from abi/exports.txt (+: exported but not in the API)" >&2
  exit 1
fi
echo "exports: $(wc -l < "$expected") symbols, exactly the API"
