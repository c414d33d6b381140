#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, AddressSanitizer + UndefinedBehaviorSanitizer) and runs each for a
# few seconds on a copy of its seed corpus, so the repository is never written. FUZZ_SECONDS changes the time.
# Inputs that crash are kept in build/fuzz/artifacts/.
set -euo pipefail
seconds=${FUZZ_SECONDS:-10}
cd "$(dirname "$0")/.."

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j2 --target patch_fuzzer bzip2_to_file_fuzzer bzip2_block_fuzzer unzip_fuzzer \
  launcher_manifest_fuzzer

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
artifacts=build/fuzz/artifacts
mkdir -p "$artifacts"

fuzz() {
  local target=$1 corpus=$2
  shift 2
  cp -r "fuzz/corpus/$corpus" "$work/$corpus"
  echo "== $target ($seconds s)"
  "build/fuzz/fuzz/$target" "$work/$corpus" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=60 \
    -artifact_prefix="$artifacts/$target-" -print_final_stats=1 "$@"
}

fuzz patch_fuzzer patch -dict=fuzz/patch.dict
fuzz bzip2_to_file_fuzzer bzip2
fuzz bzip2_block_fuzzer bzip2
fuzz unzip_fuzzer zip -max_len=8192
fuzz launcher_manifest_fuzzer manifest -max_len=4096
echo "fuzzing: no failures"
