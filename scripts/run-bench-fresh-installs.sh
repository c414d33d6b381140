#!/usr/bin/env bash
# Ten fresh installs of the same generated game (FILES files of SIZE bytes, 200 of 240 KiB by default, some
# 48 MiB) from a loopback mirror, each in a process of its own, and what each cost: the most work-queue
# threads at once and the process's peak resident memory. Prints min and max of both, their ratio, and the
# load average before and after; the update should need at most cores + 4 threads, and its peak memory
# should not depend on how the threads happened to be scheduled (max/min at most 1.25).
set -euo pipefail
cd "$(dirname "$0")/.."
FILES=${FILES:-200}
SIZE=${SIZE:-245760}
RUNS=${RUNS:-10}
PORT=${PORT:-18474}

./scripts/bootstrap.sh >/dev/null
cmake --preset bench >/dev/null
cmake --build --preset bench -j "$(nproc)" --target zrv zrv_bench_make_builds zrv_bench_fresh_install >/dev/null
zrv=$PWD/build/bench/tools/zrv/zrv
make_builds=$PWD/build/bench/bench/update/zrv_bench_make_builds
fresh_install=$PWD/build/bench/bench/update/zrv_bench_fresh_install

work=$(mktemp -d /tmp/zrv-bench-fresh-XXXXXX)
server_pid=
cleanup() { [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT

"$make_builds" "$work/builds" "$FILES" "$SIZE" >/dev/null
"$zrv" publish "$work/builds/v2" "$work/out" --base-url "http://127.0.0.1:$PORT" --quiet >/dev/null
"$zrv" serve --port "$PORT" --content "$work/out" >/dev/null &
server_pid=$!
# An unreadable manifest would count as an install with nothing to do: wait until the server answers.
for _ in $(seq 100); do
  curl -sf "http://127.0.0.1:$PORT/content/patchmanifest.txt" >/dev/null && break
  sleep 0.1
done
(cd "$work/builds/v2" && sha1sum -- *) > "$work/expected"

load_before=$(cut -d' ' -f1-3 /proc/loadavg)
printf '%-4s %8s %12s %10s\n' run threads "maxrss(KiB)" "time(s)"
: > "$work/results"
for run in $(seq "$RUNS"); do
  install="$work/install-$run"
  start=$(date +%s.%N)
  "$fresh_install" "http://127.0.0.1:$PORT" "$install" > "$work/run.txt"
  end=$(date +%s.%N)
  (cd "$install" && sha1sum -c --quiet "$work/expected")
  threads=$(awk '$1 == "threads-max" { print $2 }' "$work/run.txt")
  rss=$(awk '$1 == "maxrss-kib" { print $2 }' "$work/run.txt")
  printf '%-4s %8s %12s %10.2f\n' "$run" "$threads" "$rss" "$(awk -v a="$start" -v b="$end" 'BEGIN { print b - a }')"
  echo "$threads $rss" >> "$work/results"
  rm -rf "$install"
done
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

awk -v cores="$(nproc)" -v before="$load_before" -v after="$load_after" '
  NR == 1 { tmin = tmax = $1; rmin = rmax = $2 }
  { if ($1 < tmin) tmin = $1; if ($1 > tmax) tmax = $1; if ($2 < rmin) rmin = $2; if ($2 > rmax) rmax = $2 }
  END {
    printf "\nwork-queue threads: min %d max %d (goal: at most cores + 4 = %d)\n", tmin, tmax, cores + 4
    printf "peak memory: min %.1f MiB max %.1f MiB, max/min %.2f (goal: at most 1.25)\n", rmin / 1024, rmax / 1024, rmax / rmin
    printf "load average before: %s, after: %s (%d cores)\n", before, after, cores
  }' "$work/results"
