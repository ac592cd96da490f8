#!/usr/bin/env bash
# Builds the project with AddressSanitizer, UndefinedBehaviorSanitizer and
# warnings as errors, and runs every test. Installs missing packages first
# when run as root.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "$(id -u)" -eq 0 ]; then
  bash scripts/install-deps.sh
else
  bash scripts/install-deps.sh || { echo "test: run as root once to install the packages" >&2; exit 1; }
fi

build=${PKGDLV_TEST_BUILD:-build-test}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DPKGDLV_SANITIZE=ON -DPKGDLV_WERROR=ON >/dev/null
cmake --build "$build" -j "$(nproc)"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
cd "$build"
ctest --output-on-failure -j "$(nproc)" --timeout 600
