#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds a release tree (build-bench/, -O2 -D_FORTIFY_SOURCE=2), runs every manager benchmark
# beside its bare baseline with interleaved repetitions, writes build-bench/bench-results.json and
# prints the ratios of the medians against the targets; with --filter, only the targets whose cases
# ran. Exit status 1 when a target is missed, 2 on a bad option or when no case matches the filter.
# Shows one line per case as it finishes. On a 2-core machine a default run (36 cases x 10
# repetitions) took 6.6 minutes and --repetitions 2 took 1.3 minutes. Run on a quiet machine.
#   scripts/bench.sh [--repetitions N] [--filter REGEX]   (also --repetitions=N, --filter=REGEX)
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

repetitions=10
filter=""
while [ $# -gt 0 ]; do
  case "$1" in
    -h|--help) sed -n '3,9p' "$0" | cut -c3-; exit 0 ;;
    --repetitions=*|--filter=*) name=${1%%=*}; value=${1#*=}; shift ;;
    --repetitions|--filter)
      [ $# -ge 2 ] || { echo "bench.sh: option $1 needs a value" >&2; exit 2; }
      name=$1; value=$2; shift 2 ;;
    *) echo "bench.sh: unknown option: $1 (see --help)" >&2; exit 2 ;;
  esac
  case "$name" in
    --repetitions) repetitions=$value ;;
    --filter) filter=$value ;;
  esac
done
if ! [[ "$repetitions" =~ ^[1-9][0-9]*$ ]]; then
  echo "bench.sh: --repetitions needs a positive whole number, not '$repetitions'" >&2
  exit 2
fi

vrocam_install_packages "${VROCAM_PACKAGES[@]}" python3
build_dir="$VROCAM_ROOT/build-bench"
vrocam_setup "$build_dir" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_FLAGS_RELEASE="-O2 -D_FORTIFY_SOURCE=2 -DNDEBUG" -DVROCAM_BUILD_TESTS=OFF
cmake --build "$build_dir" --target vrocam_bench
bench=("$build_dir/bench/vrocam_bench" ${filter:+--benchmark_filter="$filter"})
json="$build_dir/bench-results.json"

cases=$("${bench[@]}" --benchmark_list_tests 2>/dev/null | grep -c . || true)
if [ "$cases" -eq 0 ]; then
  echo "bench.sh: no benchmark case matches --filter '$filter' (see: ${bench[0]} --benchmark_list_tests)" >&2
  exit 2
fi
estimate=$((cases * repetitions * 11 / 10))  # measured: about 1.1 s per case and repetition
[ "$estimate" -lt 120 ] && estimate="$estimate s" || estimate="$(( (estimate + 30) / 60 )) minutes"
echo "running $cases cases x $repetitions repetitions: expect about $estimate on 2 cores"
echo "note: a '***WARNING*** Library was built as DEBUG' below is about Debian's build of the Google Benchmark library, not this project's code (built -O2)"
rm -f "$json"
start=$SECONDS
done_cases=0
printf '%9s %-45s %14s %14s\n' "" "case (median of $repetitions)" "time" "cpu"
"${bench[@]}" --benchmark_repetitions="$repetitions" \
  --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true \
  --benchmark_format=console --benchmark_color=false \
  --benchmark_out="$json" --benchmark_out_format=json |
  while IFS= read -r line; do
    read -r case_name time time_unit cpu cpu_unit _ <<<"$line"
    if [[ "$case_name" == *_median ]]; then
      done_cases=$((done_cases + 1))
      printf '[%3d/%3d] %-45s %10s %-3s %10s %s\n' "$done_cases" "$cases" \
        "${case_name%_median}" "$time" "$time_unit" "$cpu" "$cpu_unit"
    elif [[ "$line" == *"ERROR OCCURRED"* ]]; then
      echo "          $line"
    fi
  done
elapsed=$((SECONDS - start))
echo "took $((elapsed / 60)) min $((elapsed % 60)) s; results: $json"
echo
python3 "$VROCAM_ROOT/scripts/bench_table.py" "$json"
