#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages the build needs (when run as root), then configures a build tree.
# Sourced by test.sh and demo.sh: vrocam_setup BUILD_DIR [cmake options...]
set -euo pipefail

VROCAM_PACKAGES=(cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev zlib1g-dev)

# Installs the given packages (default: VROCAM_PACKAGES) that are missing.
vrocam_install_packages() {
  local missing=()
  local wanted=("$@")
  [ ${#wanted[@]} -eq 0 ] && wanted=("${VROCAM_PACKAGES[@]}")
  for pkg in "${wanted[@]}"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" ||
      missing+=("$pkg")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing Debian packages: ${missing[*]} (run as root, or install them)" >&2
    return 1
  fi
  echo "installing: ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# Unpacks Debian's arm64 zlib (headers and static library) into DIR for the cross build, apart
# from the host's headers; adds the arm64 architecture to apt once, as root.
vrocam_arm64_zlib() {
  local dir=$1
  [ -f "$dir/usr/lib/aarch64-linux-gnu/libz.a" ] && return 0
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    if [ "$(id -u)" -ne 0 ]; then
      echo "the arm64 build needs Debian's arm64 zlib: run as root once" >&2
      return 1
    fi
    dpkg --add-architecture arm64
    DEBIAN_FRONTEND=noninteractive apt-get update -qq
  fi
  local debs
  debs=$(mktemp -d)
  (cd "$debs" && apt-get download -qq zlib1g-dev:arm64)
  mkdir -p "$dir"
  dpkg -x "$debs"/zlib1g-dev_*_arm64.deb "$dir"
  rm -rf "$debs"
}

vrocam_setup() {
  local build_dir=$1
  shift
  vrocam_install_packages
  cmake -S "$VROCAM_ROOT" -B "$build_dir" -G Ninja "$@" >/dev/null
}

VROCAM_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
