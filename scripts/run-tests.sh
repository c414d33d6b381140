#!/usr/bin/env bash
# Runs the test suite of one build preset (release, debug, asan).
set -euo pipefail
preset=${1:-release}
cd "$(dirname "$0")/.."
ctest --preset "$preset"
