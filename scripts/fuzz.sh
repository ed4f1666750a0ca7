#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the libFuzzer target of what the peer link reads from the other process with clang and
# runs it for a while.
#   scripts/fuzz.sh [SECONDS]    default 45 (CI); run longer locally, e.g. 1800; build tree,
#                                corpus and log in build-fuzz/
# Exits non-zero when libFuzzer finds a crash, a broken invariant, a leak or a hang.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

case "${1:-}" in
  -h|--help) sed -n '3,7p' "$0"; exit 0 ;;
esac
seconds=${1:-45}
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -lt 1 ] || [ "$seconds" -gt 86400 ]; then
  echo "SECONDS must be a whole number from 1 to 86400, not '$seconds'" >&2
  exit 2
fi

VROCAM_PACKAGES=(clang-14 libfuzzer-14-dev libclang-rt-14-dev cmake ninja-build)
build_dir="$VROCAM_ROOT/build-fuzz"
CC=clang-14 CXX=clang++-14 vrocam_setup "$build_dir" -DVROCAM_BUILD_FUZZ=ON \
  -DVROCAM_BUILD_TESTS=OFF -DVROCAM_BUILD_BENCH=OFF -DVROCAM_BUILD_TOOLS=OFF
cmake --build "$build_dir" --target peer_decode_fuzz

fuzzer="$build_dir/fuzz/peer_decode_fuzz"
corpus="$build_dir/fuzz-corpus"
artifacts="$build_dir/fuzz-artifacts"
log="$build_dir/fuzz.log"
mkdir -p "$corpus"
rm -rf "$artifacts"
mkdir -p "$artifacts"
"$fuzzer" --write-seeds="$corpus"

echo "fuzzing what the peer link reads for ${seconds}s (log: $log)"
status=0
"$fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=20000 \
  -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" >"$log" 2>&1 || status=$?

if [ "$status" -ne 0 ]; then
  tail -n 60 "$log" >&2
  for input in "$artifacts"/*; do
    [ -f "$input" ] || continue
    echo "failing input $input (descriptor count, their kinds, then the message), hex:" >&2
    od -An -v -tx1 "$input" | tr -d ' \n' | fold -w 128 >&2
    echo >&2
  done
  echo "fuzz: FAILED (libFuzzer exit $status)" >&2
  exit "$status"
fi
grep -E '^stat::(number_of_executed_units|peak_rss_mb)|^Done ' "$log" || true
echo "fuzz: no crash, leak or broken invariant in ${seconds}s; corpus: $(ls "$corpus" | wc -l) inputs"
