#!/usr/bin/env bash
# Builds the benchmark preset and compares `zrv unzip` with Info-ZIP's unzip on a 100 MiB archive of
# 1,000 files, plain and encrypted (ZipCrypto against Info-ZIP, AES-256 against 7-Zip). Prints the times and
# the ratios (zrv / the other; below 1 means zrv is faster).
# The archive is made once under ${ZRV_BENCH_DIR:-/tmp}/zrv-bench-unzip and kept for later runs.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset bench >/dev/null
cmake --build --preset bench -j2 --target bench_unzip
result=$(mktemp)
trap 'rm -f "$result"' EXIT
build/bench/bench/unzip/bench_unzip --benchmark_format=json --benchmark_out="$result" --benchmark_out_format=json \
  --benchmark_repetitions="${REPETITIONS:-3}" --benchmark_report_aggregates_only=true >/dev/null
python3 - "$result" <<'PY'
import json, sys
runs = json.load(open(sys.argv[1]))["benchmarks"]
median = {r["run_name"]: r["real_time"] for r in runs if r.get("aggregate_name") == "median"}
zrv, infozip = median["BM_ZrvUnzip/iterations:5/real_time"], median["BM_InfoZipUnzip/iterations:5/real_time"]
size = next(r["archive_MiB"] for r in runs if r.get("aggregate_name") == "median")
print(f"archive: {size:.1f} MiB, 1000 files")
print(f"zrv unzip:      {zrv:8.1f} ms")
print(f"Info-ZIP unzip: {infozip:8.1f} ms")
print(f"ratio zrv/Info-ZIP: {zrv / infozip:.2f}")
for label, ours, theirs, peer in (("ZipCrypto", "BM_ZrvUnzipZipCrypto", "BM_InfoZipUnzipZipCrypto", "Info-ZIP unzip"),
                                  ("AES-256", "BM_ZrvUnzipAES256", "BM_7ZipExtractAES256", "7z x")):
    ours, theirs = median[ours + "/iterations:5/real_time"], median[theirs + "/iterations:5/real_time"]
    print(f"{label}: zrv unzip {ours:8.1f} ms, {peer} {theirs:8.1f} ms, ratio {ours / theirs:.2f}")
PY
