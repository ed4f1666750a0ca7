#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds and runs the whole test suite with ctest, doing all set-up on a fresh Debian machine.
#   scripts/test.sh                          plain build in build/
#   scripts/test.sh --sanitize address,undefined   (or thread) in build-<sanitizer>/
#   scripts/test.sh --preset NAME            a configuration of CMakePresets.json, in build-NAME/
#                                            (aarch64-qemu, clang-libcxx, release, ...)
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

sanitize=""
preset=""
while [ $# -gt 0 ]; do
  case "$1" in
    --sanitize) sanitize=$2; shift 2 ;;
    --sanitize=*) sanitize=${1#*=}; shift ;;
    --preset) preset=$2; shift 2 ;;
    --preset=*) preset=${1#*=}; shift ;;
    -h|--help) sed -n '3,7p' "$0"; exit 0 ;;
    *) echo "unknown option: $1" >&2; exit 2 ;;
  esac
done

if [ -n "$preset" ]; then
  case "$preset" in
    aarch64-qemu) extra=(g++-aarch64-linux-gnu qemu-user googletest) ;;
    clang-libcxx) extra=(clang-14 libc++-14-dev libc++abi-14-dev googletest) ;;
    *) extra=() ;;
  esac
  vrocam_install_packages "${VROCAM_PACKAGES[@]}" "${extra[@]}"
  [ "$preset" = aarch64-qemu ] && vrocam_arm64_zlib "$VROCAM_ROOT/build-aarch64-qemu/zlib-arm64"
  cd "$VROCAM_ROOT"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  exec ctest --preset "$preset"
fi

build_dir="$VROCAM_ROOT/build"
[ -n "$sanitize" ] && build_dir="$VROCAM_ROOT/build-${sanitize//,/-}"

vrocam_setup "$build_dir" -DVROCAM_SANITIZE="$sanitize" -DVROCAM_BUILD_TESTS=ON
cmake --build "$build_dir"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
ctest --test-dir "$build_dir" --output-on-failure -j "$(nproc)"
