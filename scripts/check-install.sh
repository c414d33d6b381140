#!/usr/bin/env bash
# Installs ZRVKit into a temporary prefix and builds every example of examples/ against that install, the way a
# project that adopts the library would: through find_package(ZRVKit), through pkg-config, and from a GLib
# main loop. Each example runs once against a closed loopback port, so nothing needs a server.
#
#   scripts/check-install.sh [static] [shared]      (default: both)
#
# The shared kind also checks that the library exports only what its installed headers declare, and every
# kind checks that pkg-config leaves a consumer's own language standard alone.
#
# Prints one line per example and exits non-zero when anything fails. The library is built in
# build/install-check (build/install-check-shared), so a second run only rebuilds what changed.
set -uo pipefail
cd "$(dirname "$0")/.."
repository=$(pwd)
jobs=${JOBS:-2}
kinds=("$@")
[[ ${#kinds[@]} -eq 0 ]] && kinds=(static shared)

work=$(mktemp -d "${TMPDIR:-/tmp}/zrvkit-install-check.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0

# Runs a command with its output in a log; on failure shows the end of the log.
quietly() {
  local log=$1
  shift
  if ! "$@" >"$log" 2>&1; then
    echo "  failed: $*" >&2
    tail -n 40 "$log" | sed 's/^/    /' >&2
    return 1
  fi
}

report() {  # kind, example, status, detail
  printf 'check-install (%s): %-20s %s%s\n' "$1" "$2" "$3" "${4:+  ($4)}"
  [[ $3 == ok ]] || failures=$((failures + 1))
}

# A loopback port nobody listens on: below 1024 no other user's process can have taken it.
closedPort() {
  local port
  for port in 9 1 7 19; do
    if ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
      echo "$port"
      return 0
    fi
  done
  return 1
}

# Runs an example program and checks that it exits 0 and prints each of the expected texts.
runExample() {
  local kind=$1 name=$2 log=$3
  shift 3
  local expected=()
  while [[ $1 != -- ]]; do expected+=("$1"); shift; done
  shift
  if ! timeout 120 "$@" >"$log" 2>&1; then
    sed 's/^/    /' "$log" >&2
    report "$kind" "$name" FAILED "the program failed"
    return
  fi
  local text
  for text in "${expected[@]}"; do
    if ! grep -qF -- "$text" "$log"; then
      sed 's/^/    /' "$log" >&2
      report "$kind" "$name" FAILED "no \"$text\" in its output"
      return
    fi
  done
  report "$kind" "$name" ok "$(grep -m 1 '^server:' "$log")"
}

# The names the installed headers declare at the top level: exported classes and structs, and the groups
# of free functions (namespaces) with what they hold.
publicNames() {
  local include=$1
  { grep -hoE '^(class|struct) ZRVKIT_EXPORT [A-Za-z_][A-Za-z_0-9]*' "$include"/ZRVKit/*.h | awk '{print $3}'
    grep -hoE '^namespace [A-Za-z_][A-Za-z_0-9]* \{' "$include"/ZRVKit/*.h | awk '{print $2}'
    grep -hoE '^ZRVKIT_EXPORT [^(]* ([A-Za-z_][A-Za-z_0-9]*)\(' "$include"/ZRVKit/*.h | sed -E 's/.* ([A-Za-z_0-9]+)\($/\1/'
  } | sort -u
}

# Every dynamic symbol the shared library defines must belong to a name of its public headers.
checkExports() {
  local kind=$1 prefix=$2 library
  library=$(find "$prefix" -name 'libZRVKit.so.*.*' -type f -print -quit)
  local names symbols strangers count
  names=$(publicNames "$prefix/include")
  symbols=$(nm -D --defined-only -C "$library" | cut -d' ' -f3-)
  count=$(printf '%s\n' "$symbols" | grep -c .)
  strangers=$(printf '%s\n' "$symbols" |
    sed -E 's/^(typeinfo name for |typeinfo for |vtable for |VTT for |non-virtual thunk to |virtual thunk to |guard variable for )//' |
    sed -E 's/^([A-Za-z_0-9]+).*/\1/' | sort -u | grep -vxF -f <(printf '%s\n' "$names") || true)
  if [[ -n $strangers ]]; then
    report "$kind" exports FAILED "$count symbols, some not declared in include/ZRVKit: $(echo $strangers | head -c 300)"
  else
    report "$kind" exports ok "$count symbols, each of a class or group that include/ZRVKit declares"
  fi
}

# pkg-config must not pin a language standard: a C++23 consumer stays C++23.
checkLanguageStandard() {
  local kind=$1 pcdir=$2 source="$work/$kind-cxx23.cpp"
  printf '#include <ZRVKit/ZRVKit.h>\nstatic_assert(__cplusplus > 202002L, "pkg-config changed the standard");\n' >"$source"
  # shellcheck disable=SC2046
  if quietly "$work/$kind-cxx23.log" ${CXX:-c++} -std=c++23 $(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags zrvkit) \
      -fsyntax-only "$source"; then
    report "$kind" c++23-consumer ok
  else
    report "$kind" c++23-consumer FAILED "the headers or pkg-config's flags do not hold under -std=c++23"
  fi
}

checkKind() {
  local kind=$1 shared build
  case $kind in
    static) shared=OFF; build=build/install-check ;;
    shared) shared=ON; build=build/install-check-shared ;;
    *) echo "unknown kind: $kind (static or shared)" >&2; return 2 ;;
  esac

  local started=$SECONDS
  echo "check-install ($kind): building the library in $build"
  quietly "$work/$kind-configure.log" cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=$shared \
      -DZRV_BUILD_TESTS=OFF -DZRV_BUILD_TOOLS=OFF -DZRV_BUILD_BENCH=OFF -DZRV_BUILD_FUZZ=OFF -DZRV_SANITIZE=OFF &&
    quietly "$work/$kind-build.log" cmake --build "$build" -j "$jobs" || {
    report "$kind" library FAILED "build"
    return 1
  }

  local prefix="$work/$kind-prefix"
  quietly "$work/$kind-install.log" cmake --install "$build" --prefix "$prefix" || {
    report "$kind" install FAILED "cmake --install"
    return 1
  }
  local pcdir
  pcdir=$(dirname "$(find "$prefix" -name zrvkit.pc -print -quit)")
  report "$kind" install ok "library built and installed in $((SECONDS - started)) s"
  [[ $shared == ON ]] && checkExports "$kind" "$prefix"
  checkLanguageStandard "$kind" "$pcdir"

  # Copies, so that the examples cannot lean on anything of the source tree.
  local examples="$work/$kind-examples"
  cp -r "$repository/examples" "$examples"
  printf '{"video": {"antialiasing": 2, "width": 1280}, "audio": {"music": true, "sfx": false}}\n' >"$examples/settings.json"
  local server port
  port=$(closedPort) || { report "$kind" examples FAILED "no closed loopback port found"; return 1; }
  server="http://127.0.0.1:$port"
  local warnings="-Wall -Wextra -Werror"
  local assumed="online (assumed:"

  # find_package(ZRVKit)
  local name
  for name in cmake-consumer glib-main-loop; do
    if quietly "$work/$kind-$name-configure.log" cmake -S "$examples/$name" -B "$examples/$name/build" \
        -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS="$warnings" &&
      quietly "$work/$kind-$name-build.log" cmake --build "$examples/$name/build" -j "$jobs"; then
      # ldd's output is read whole before it is searched: `ldd | grep -q` under pipefail fails at random when
      # grep leaves early and ldd's next write meets a closed pipe.
      local loaded=""
      [[ $shared == ON ]] && loaded=$(ldd "$examples/$name/build/app" 2>&1)
      if [[ $shared == ON && $loaded != *"$prefix/"* ]]; then
        report "$kind" "$name" FAILED "does not load the installed shared library"
      elif [[ $name == cmake-consumer ]]; then
        runExample "$kind" "$name" "$work/$kind-$name.log" "$assumed" "antialiasing: 2" "music: on" "sound effects: off" -- \
          "$examples/$name/build/app" "$server" "$examples/settings.json"
      else
        runExample "$kind" "$name" "$work/$kind-$name.log" "$assumed" "  $examples/settings.json" "GLib loop's thread" -- \
          "$examples/$name/build/app" "$server" "$examples/settings.json"
      fi
    else
      report "$kind" "$name" FAILED "build"
    fi
  done

  # pkg-config; the shared library is found at run time through LD_LIBRARY_PATH, as pkg-config sets no run path.
  name=pkg-config-consumer
  if quietly "$work/$kind-$name-build.log" env PKG_CONFIG_PATH="$pcdir" CXXFLAGS="-O2 $warnings" \
      make -C "$examples/$name"; then
    local digest
    digest=$(sha1sum "$examples/settings.json" | cut -d' ' -f1)
    runExample "$kind" "$name" "$work/$kind-$name.log" "$assumed" "$digest" -- \
      env LD_LIBRARY_PATH="$(dirname "$pcdir")" "$examples/$name/check" "$server" "$examples/settings.json"
  else
    report "$kind" "$name" FAILED "build"
  fi
  echo "check-install ($kind): done in $((SECONDS - started)) s"
}

for kind in "${kinds[@]}"; do
  checkKind "$kind" || failures=$((failures + 1))
done
if ((failures > 0)); then
  echo "check-install: $failures failure(s)" >&2
  exit 1
fi
echo "check-install: every example builds and runs against the installed library"
