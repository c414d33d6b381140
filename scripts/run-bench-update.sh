#!/usr/bin/env bash
# A fresh install, a patch update and a check-only update of a generated game (FILES files, SIZE bytes each,
# about 300 MiB by default) against a loopback mirror, side by side with a shell pipeline doing the same work
# one file after another (curl, bzip2 -d, bspatch, sha1sum), and with sha1sum alone for the check.
set -euo pipefail
cd "$(dirname "$0")/.."
FILES=${FILES:-200}
SIZE=${SIZE:-1572864}
PORT=${PORT:-18473}

./scripts/bootstrap.sh
cmake --preset bench >/dev/null
cmake --build --preset bench -j "$(nproc)" --target zrv zrv_bench_make_builds >/dev/null
zrv=$PWD/build/bench/tools/zrv/zrv
make_builds=$PWD/build/bench/bench/update/zrv_bench_make_builds

work=$(mktemp -d /tmp/zrv-bench-update-XXXXXX)
server_pid=
cleanup() { [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT

now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

echo "generating $FILES files of $SIZE bytes (two builds)"
"$make_builds" "$work/builds" "$FILES" "$SIZE"
echo "publishing"
"$zrv" publish "$work/builds/v2" "$work/out" --from "$work/builds/v1" --base-url "http://127.0.0.1:$PORT" --quiet
"$zrv" serve --port "$PORT" --content "$work/out" >/dev/null &
server_pid=$!
sleep 0.5
base="http://127.0.0.1:$PORT"
names=$(cd "$work/builds/v2" && ls)

# --- fresh install ------------------------------------------------------------------------------------
mkdir -p "$work/zrv-fresh/Frameworks/Cg.framework"
t0=$(now); "$zrv" --server "$base" update --install "$work/zrv-fresh" >/dev/null; t1=$(now)
zrv_fresh=$(elapsed "$t0" "$t1")
mkdir -p "$work/sh-fresh"
t0=$(now)
for name in $names; do
  curl -sf "$base/content/files/$name.bz2" | bzip2 -d > "$work/sh-fresh/$name"
  sha1sum "$work/sh-fresh/$name" >/dev/null
done
t1=$(now)
sh_fresh=$(elapsed "$t0" "$t1")

# --- patch update -------------------------------------------------------------------------------------
cp -r "$work/builds/v1" "$work/zrv-patch"; mkdir -p "$work/zrv-patch/Frameworks/Cg.framework"
t0=$(now); "$zrv" --server "$base" update --install "$work/zrv-patch" >/dev/null; t1=$(now)
zrv_patch=$(elapsed "$t0" "$t1")
cp -r "$work/builds/v1" "$work/sh-patch"
t0=$(now)
for name in $names; do
  file="$work/sh-patch/$name"
  old=$(sha1sum "$file" | cut -c1-12)
  curl -sf "$base/content/patches/$name.$old.bz2" | bzip2 -d > "$work/patch"
  bspatch "$file" "$file.new" "$work/patch"
  mv "$file.new" "$file"
  sha1sum "$file" >/dev/null
done
t1=$(now)
sh_patch=$(elapsed "$t0" "$t1")

# --- check only ---------------------------------------------------------------------------------------
t0=$(now); "$zrv" --server "$base" update --install "$work/zrv-fresh" >/dev/null; t1=$(now)
zrv_check=$(elapsed "$t0" "$t1")
t0=$(now); (cd "$work/zrv-fresh" && sha1sum $names >/dev/null); t1=$(now)
sh_check=$(elapsed "$t0" "$t1")

(cd "$work/builds/v2" && sha1sum $names) > "$work/expected"
(cd "$work/zrv-fresh" && sha1sum -c --quiet "$work/expected")
(cd "$work/zrv-patch" && sha1sum -c --quiet "$work/expected")

printf '\n%-11s %9s %10s %7s  %s\n' case "zrv (s)" "peer (s)" ratio peer
printf '%-11s %9s %10s %7s  %s\n' fresh "$zrv_fresh" "$sh_fresh" "$(ratio "$zrv_fresh" "$sh_fresh")" "curl | bzip2 -d; sha1sum"
printf '%-11s %9s %10s %7s  %s\n' patch "$zrv_patch" "$sh_patch" "$(ratio "$zrv_patch" "$sh_patch")" "sha1sum; curl | bzip2 -d; bspatch; sha1sum"
printf '%-11s %9s %10s %7s  %s\n' check-only "$zrv_check" "$sh_check" "$(ratio "$zrv_check" "$sh_check")" "sha1sum"
