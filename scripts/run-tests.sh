#!/usr/bin/env bash
# Runs the test suite of one build preset (release, debug, asan); further arguments go to ctest (-R, ...).
#
# The tests run inside a private D-Bus session with a throwaway GNOME Keyring, unlocked without a prompt,
# and with HOME and the XDG folders in a temporary folder: the saved-login tests meet a real Secret Service
# and never touch the user's own keyring or files. Without dbus-run-session or gnome-keyring-daemon the
# Secret Service tests are skipped.
set -euo pipefail
preset=${1:-release}
[ $# -gt 0 ] && shift
cd "$(dirname "$0")/.."

if [ "${ZRV_PRIVATE_SESSION:-}" != 1 ] && command -v dbus-run-session >/dev/null &&
  command -v gnome-keyring-daemon >/dev/null; then
  scratch=$(mktemp -d)
  trap 'rm -rf "$scratch"' EXIT
  mkdir -p "$scratch/home" "$scratch/data" "$scratch/config" "$scratch/cache" "$scratch/runtime"
  chmod 700 "$scratch/runtime"
  status=0
  ZRV_PRIVATE_SESSION=1 HOME="$scratch/home" XDG_DATA_HOME="$scratch/data" XDG_CONFIG_HOME="$scratch/config" \
    XDG_CACHE_HOME="$scratch/cache" XDG_RUNTIME_DIR="$scratch/runtime" \
    dbus-run-session -- "$0" "$preset" "$@" || status=$?
  exit "$status"
fi

if [ "${ZRV_PRIVATE_SESSION:-}" = 1 ]; then
  # --unlock creates the login keyring with this password when there is none, so nothing ever prompts.
  if printf 'throwaway' | timeout 20 gnome-keyring-daemon --unlock --components=secrets >/dev/null; then
    export ZRV_TEST_PRIVATE_KEYRING=1
    # The daemon takes its bus name a moment after --unlock returns; a test that came first would start a
    # second daemon through D-Bus activation.
    for _ in $(seq 50); do
      dbus-send --session --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner \
        string:org.freedesktop.secrets 2>/dev/null | grep 'boolean true' >/dev/null && break
      sleep 0.1
    done
  else
    echo "run-tests: the throwaway keyring did not start; Secret Service tests will be skipped" >&2
  fi
fi

ctest --preset "$preset" "$@"
