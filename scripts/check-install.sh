#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks the library as its users meet it: builds it in build-install/ (tests and benchmarks off),
# installs it into a fresh prefix, builds tests/install/ against that prefix through find_package
# and through pkg-config, and runs both programs and the installed peer with an empty environment
# (no LD_LIBRARY_PATH). Builds the worked example (examples/frame_pool) against the prefix, plain
# and with ASan+UBSan, and through add_subdirectory, and runs its tests under ctest -j2; builds a
# program of the test kit through pkg-config. Also checks that no stand-in lies in the prefix's lib/
# and that a project that add_subdirectory()s the source tree builds only the library and the
# stand-ins, without zlib. Prints one line per check, exits 1 at the first failure. Installs its
# Debian packages as root.
#   scripts/check-install.sh
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
vrocam_install_packages cmake ninja-build g++ zlib1g-dev pkg-config libgtest-dev libgmock-dev

build=$VROCAM_ROOT/build-install
consumer=$VROCAM_ROOT/tests/install
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

# check WHAT COMMAND...: prints "install: WHAT: ok", or the command's output and a failure.
check() {
  local what=$1 out
  shift
  if out=$("$@" 2>&1); then
    echo "install: $what: ok"
  else
    printf '%s\n' "$out" >&2
    echo "install: $what: FAILED" >&2
    exit 1
  fi
}

build_and_install() {
  cmake -S "$VROCAM_ROOT" -B "$build" -G Ninja -DVROCAM_BUILD_TESTS=OFF -DVROCAM_BUILD_BENCH=OFF \
    -DVROCAM_BUILD_TOOLS=ON && cmake --build "$build" && cmake --install "$build" --prefix "$prefix"
}

only_the_product_in_lib() {
  local others
  others=$(find "$prefix/lib" -maxdepth 1 -name '*.so*' \
    ! -name 'libvrocam_ipc_wrapper_common_client.so*' ! -name 'libvrocam_testkit.so*')
  [ -z "$others" ] || { echo "in the prefix's lib/: $others"; return 1; }
}

find_package_consumer() {
  cmake -S "$consumer" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" &&
    cmake --build "$work/cmake" && env -i "$work/cmake/consumer"
}

pkg_config_consumer() {
  local flags
  flags=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs \
    vrocam_ipc_wrapper_common_client) || return 1
  # shellcheck disable=SC2086  # the flags are meant to be split into words
  c++ -std=c++17 -Wall -Wextra -Werror "$consumer/consumer.cpp" $flags -o "$work/pc-consumer" &&
    env -i "$work/pc-consumer"
}

pkg_config_kit_consumer() {
  local flags
  flags=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs vrocam_testkit) ||
    return 1
  # shellcheck disable=SC2086  # the flags are meant to be split into words
  c++ -std=c++17 -Wall -Wextra -Werror "$consumer/kit_consumer.cpp" $flags -o "$work/kit-consumer" &&
    env -i "$work/kit-consumer"
}

# example NAME CMAKE_ARGS...: the frame pool example built in $work/NAME, its tests under ctest.
example() {
  local dir=$work/$1
  shift
  cmake -S "$VROCAM_ROOT/examples/frame_pool" -B "$dir" -G Ninja "$@" &&
    cmake --build "$dir" && ctest --test-dir "$dir" -j2 --output-on-failure --timeout 60
}

# What the default build of an outer project would do (ninja -n), zlib hidden from CMake.
subdirectory_builds_library_only() {
  local steps
  cmake -S "$consumer" -B "$work/sub" -G Ninja -DVROCAM_SOURCE_DIR="$VROCAM_ROOT" \
    -DCMAKE_DISABLE_FIND_PACKAGE_ZLIB=ON && steps=$(cmake --build "$work/sub" -- -n) || return 1
  if grep -E 'vrocam/(tools|tests|bench|fuzz)/|vrocam_peer\.dir' <<<"$steps"; then return 1; fi
  grep -q 'Linking CXX shared library vrocam/libvrocam_ipc_wrapper_common_client' <<<"$steps"
}

check "build, install into a fresh prefix" build_and_install
check "no stand-in in the prefix's lib/" only_the_product_in_lib
check "installed vrocam_ipc_peer --help runs" env -i "$prefix/bin/vrocam_ipc_peer" --help
check "installed vrocam_trace_merge --help runs" env -i "$prefix/bin/vrocam_trace_merge" --help
check "find_package 1.0 consumer builds and runs" find_package_consumer
check "pkg-config consumer builds and runs" pkg_config_consumer
check "pkg-config test kit consumer builds and runs" pkg_config_kit_consumer
check "the example's tests pass against the prefix" example prefix -DCMAKE_PREFIX_PATH="$prefix"
check "the example's tests pass under ASan+UBSan" example sanitized -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="-fsanitize=address,undefined -fno-omit-frame-pointer" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined"
check "the example's tests pass through add_subdirectory" example subdirectory \
  -DVROCAM_SOURCE_DIR="$VROCAM_ROOT"
check "add_subdirectory builds only the library" subdirectory_builds_library_only
