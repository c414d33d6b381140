#!/usr/bin/env bash
# Binary patches and bzip2 decoding against Debian's bspatch and bzip2 -d on a generated 48 MiB game-like file:
# times, ratios and peak memory. Needs bsdiff, bspatch and bzip2 (scripts/bootstrap.sh installs them).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset bench >/dev/null
cmake --build --preset bench -j2 --target zrv patch_bench
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
build/bench/bench/patch/patch_bench --zrv build/bench/tools/zrv/zrv --work "$work" "$@"
