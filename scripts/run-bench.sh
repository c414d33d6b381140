#!/usr/bin/env bash
# The benchmark: builds the bench preset (Release) and runs bench/suite's zrv_bench, which measures every goal
# row side by side with its peer in one run and prints one table with the load average before and after.
#   ZRV_BENCH_QUICK=1   two pairs a row instead of five
#   ZRV_BENCH_LARGE=1   also the 2 GiB game file row
#   ZRV_BENCH_DIR=DIR   where the temporary data goes (default /tmp; about 2 GiB at the peak)
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset bench >/dev/null
cmake --build --preset bench -j "$(nproc)" --target zrv_bench >/dev/null
exec build/bench/bench/suite/zrv_bench "$@"
