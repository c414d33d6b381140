#!/usr/bin/env bash
# Memory against hostile sizes: an update whose one patch is under 1 KB of bzip2 that decompresses to 1 GiB
# (a BSDIFN40 patch of 8 bytes followed by zeros). The run must patch the file and hold far less than the
# decompressed size: the patch is applied from its file, never read into memory. Prints the peak resident
# size of `zrv update` (GNU time) and fails above LIMIT_MB (64 by default). ZRV=path skips the build.
set -euo pipefail
cd "$(dirname "$0")/.."
LIMIT_MB=${LIMIT_MB:-64}
PORT=${PORT:-18474}

if [ -z "${ZRV:-}" ]; then
  cmake --preset bench >/dev/null
  cmake --build --preset bench -j "$(nproc)" --target zrv >/dev/null
  ZRV=$PWD/build/bench/tools/zrv/zrv
fi

work=$(mktemp -d /tmp/zrv-bench-hostile-XXXXXX)
server_pid=
cleanup() { [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT

mkdir -p "$work/content/patches" "$work/install/Frameworks/Cg.framework"
python3 - "$work" "$PORT" <<'PY'
import hashlib, json, struct, subprocess, sys
work, port = sys.argv[1], sys.argv[2]
offt = lambda v: struct.pack('<q', v)
old = b'old contents'
with open(f'{work}/content/patches/bomb.bz2', 'wb') as out:
    bz = subprocess.Popen(['bzip2', '-9', '-c'], stdin=subprocess.PIPE, stdout=out)
    bz.stdin.write(b'BSDIFN40' + offt(24) + offt(8) + offt(8) + offt(8) + offt(0) + offt(0) + b'\x01' * 8)
    zeros = b'\0' * (1 << 20)
    for _ in range(1024):
        bz.stdin.write(zeros)
    bz.stdin.close()
    bz.wait()
compressed = open(f'{work}/content/patches/bomb.bz2', 'rb').read()
open(f'{work}/install/game.bin', 'wb').write(old)
new = bytes((1 + b) & 255 for b in old[:8])
manifest = {"game.bin": {"only": ["darwin"], "hash": hashlib.sha1(new).hexdigest(), "compHash": "-", "dl": "files/game.bin.bz2",
            "patches": {hashlib.sha1(old).hexdigest(): {"filename": "patches/bomb.bz2", "patchHash": "-",
                                                       "compPatchHash": hashlib.sha1(compressed).hexdigest()}}}}
open(f'{work}/content/patchmanifest.txt', 'w').write(json.dumps(manifest))
open(f'{work}/mirrors.txt', 'w').write(json.dumps([f'http://127.0.0.1:{port}/content/']))
print(f'patch: {len(compressed)} bytes of bzip2, 1 GiB decompressed')
PY

"$ZRV" serve --port "$PORT" --content "$work" >/dev/null 2>&1 &
server_pid=$!
sleep 0.5
/usr/bin/time -f "%M" -o "$work/peak" "$ZRV" --server "http://127.0.0.1:$PORT" update --install "$work/install" \
  --stall-timeout 120 >/dev/null
peak_mb=$(( $(cat "$work/peak") / 1024 ))
[ "$(stat -c %s "$work/install/game.bin")" = 8 ] || { echo "the patch was not applied"; exit 1; }
echo "peak resident size of zrv update: ${peak_mb} MiB (limit ${LIMIT_MB} MiB)"
[ "$peak_mb" -le "$LIMIT_MB" ]
