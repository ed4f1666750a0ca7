#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds a release tree (build-bench/, -O2 -D_FORTIFY_SOURCE=2), runs every manager benchmark
# beside its bare baseline with interleaved repetitions, writes the JSON and prints the ratios of
# the medians against the targets. Exit status 1 when a target is missed. Run on a quiet machine.
#   scripts/bench.sh [--repetitions N] [--filter REGEX]
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

repetitions=10
filter=""
while [ $# -gt 0 ]; do
  case "$1" in
    --repetitions) repetitions=$2; shift 2 ;;
    --filter) filter=$2; shift 2 ;;
    -h|--help) sed -n '3,7p' "$0"; exit 0 ;;
    *) echo "unknown option: $1" >&2; exit 2 ;;
  esac
done

vrocam_install_packages "${VROCAM_PACKAGES[@]}" python3
build_dir="$VROCAM_ROOT/build-bench"
vrocam_setup "$build_dir" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_FLAGS_RELEASE="-O2 -D_FORTIFY_SOURCE=2 -DNDEBUG" -DVROCAM_BUILD_TESTS=OFF
cmake --build "$build_dir" --target vrocam_bench
json="$build_dir/bench-results.json"
"$build_dir/bench/vrocam_bench" --benchmark_repetitions="$repetitions" \
  --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true \
  ${filter:+--benchmark_filter="$filter"} \
  --benchmark_out="$json" --benchmark_out_format=json >/dev/null
echo "results: $json"
[ -n "$filter" ] && exit 0
python3 "$VROCAM_ROOT/scripts/bench_table.py" "$json"
