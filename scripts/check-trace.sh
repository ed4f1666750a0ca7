#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks the trace of the IPC link with readers that are not ours: runs the demo against its peer
# with --trace, then, under Node, checks the merged trace against the schema of its events and
# loads it with the Chrome DevTools trace engine, in which every call of the demo must be linked
# by a flow to the peer's handling of it. Node's packages (scripts/trace/package.json) are
# installed into build-trace/; Debian's nodejs and npm are installed as root when Node is missing.
#   scripts/check-trace.sh
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
command -v node >/dev/null && command -v npm >/dev/null || vrocam_install_packages nodejs npm

work=$VROCAM_ROOT/build-trace
mkdir -p "$work"
cp "$VROCAM_ROOT"/scripts/trace/{package.json,check-trace.mjs,trace-schema.json} "$work"/
(cd "$work" && npm install --no-audit --no-fund --loglevel=error >/dev/null)
trace=$(mktemp -d)
trap 'rm -rf "$trace"' EXIT
"$VROCAM_ROOT/scripts/demo.sh" --peer --trace "$trace" >/dev/null
node "$work/check-trace.mjs" "$trace/demo-trace.json" "client connected" "held in all"
