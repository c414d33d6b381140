#!/usr/bin/env bash
# Installs the Debian packages ZRVKit needs to build, test and run its tools.
# Only what is missing is installed; works as root or through sudo, never asks.
set -euo pipefail

packages=(
  # build
  build-essential cmake pkg-config clang libclang-rt-14-dev
  # library dependencies
  libbz2-dev libminizip-dev zlib1g-dev libcurl4-openssl-dev libssl-dev
  nlohmann-json3-dev libsecret-1-dev libglib2.0-dev
  # tools, tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev libcpp-httplib-dev libdivsufsort-dev
  # independent peers used by tests and benchmarks
  bsdiff bzip2 lbzip2 zip unzip p7zip-full curl gnome-keyring dbus dbus-x11 libsecret-tools python3 nginx-light time
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "bootstrap: installing ${missing[*]}" >&2
if [ "$(id -u)" -eq 0 ]; then
  sudo=()
elif command -v sudo >/dev/null 2>&1; then
  sudo=(sudo -n)
else
  echo "bootstrap: need root or sudo to install: ${missing[*]}" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
