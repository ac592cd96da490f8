#!/usr/bin/env bash
# The CI run. Installs missing packages first when run as root, then:
#   1. builds the project with AddressSanitizer, UndefinedBehaviorSanitizer
#      and warnings as errors, and runs every test;
#   2. builds the engine and transport tests with ThreadSanitizer and runs
#      them (only those programs: the others have no threads of their own
#      worth the time);
#   3. runs every fuzz target for a bounded time (scripts/fuzz.sh).
# Every stage runs even when an earlier one had failing tests; a build that
# fails stops the run. Prints the time of each stage and, as its last line,
# "N passed, M failed" over the tests of both test runs and the fuzz targets.
#
#   PKGDLV_TEST_BUILD  ASan build folder (default build-test)
#   PKGDLV_TSAN_BUILD  TSan build folder (default build-tsan)
#   PKGDLV_SKIP_FUZZ=1 leaves the fuzz stage out (local runs)
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT

timings=()
passed=0
failed=0
stage_start=0
begin() { stage_start=$SECONDS; printf '\n==== %s\n' "$1"; }
end() { timings+=("$(printf '%-28s %4ds' "$1" $((SECONDS - stage_start)))"); }
print_timings() {
  printf '\n==== stage times\n'
  printf '  %s\n' "${timings[@]}"
  printf '  %-28s %4ds\n' "total" "$SECONDS"
}
# ctest LOG: adds the counts of ctest's closing summary line to the totals
# (a run that ended without one counts as one failure).
count_ctest() {
  local summary
  summary=$(grep -Eo '[0-9]+ tests failed out of [0-9]+' "$1" | tail -n 1 || true)
  if [ -z "$summary" ]; then
    failed=$((failed + 1))
    return
  fi
  local bad total
  read -r bad _ _ _ _ total <<<"$summary"
  passed=$((passed + total - bad))
  failed=$((failed + bad))
}

begin "packages"
if [ "$(id -u)" -eq 0 ]; then
  bash scripts/install-deps.sh
else
  bash scripts/install-deps.sh || { echo "test: run as root once to install the packages" >&2; exit 1; }
fi
end "packages"

# ---- 1. Every test under ASan and UBSan ----
build=${PKGDLV_TEST_BUILD:-build-test}
begin "ASan/UBSan build ($build)"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DPKGDLV_SANITIZE=ON -DPKGDLV_WERROR=ON \
  "${launcher[@]}" >/dev/null
cmake --build "$build" -j "$jobs"
end "ASan/UBSan build"

begin "ASan/UBSan tests"
rc=0
(
  export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
  export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
  cd "$build" && ctest --output-on-failure -j "$jobs" --timeout 600
) 2>&1 | tee "$logs/asan.log" || rc=$?
count_ctest "$logs/asan.log"
end "ASan/UBSan tests"

# ---- 2. Engine and transport tests under TSan ----
tsan=${PKGDLV_TSAN_BUILD:-build-tsan}
begin "TSan build ($tsan)"
cmake -S . -B "$tsan" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DPKGDLV_TSAN=ON -DPKGDLV_WERROR=ON \
  "${launcher[@]}" >/dev/null
cmake --build "$tsan" --target test_engine test_transport -j "$jobs"
end "TSan build"

begin "TSan tests (engine, transport)"
(
  export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan-suppressions.txt"
  # The other test programs are not built here; ctest lists them as not built.
  cd "$tsan" && ctest --output-on-failure -j "$jobs" --timeout 900 -E '_NOT_BUILT$'
) 2>&1 | tee "$logs/tsan.log" || rc=$?
count_ctest "$logs/tsan.log"
end "TSan tests"

# ---- 3. Fuzz targets ----
if [ "${PKGDLV_SKIP_FUZZ:-0}" != 1 ]; then
  begin "fuzz (build, seeds, runs)"
  bash scripts/fuzz.sh 2>&1 | tee "$logs/fuzz.log" || rc=$?
  ok=$(grep -c '^fuzz: .* ok ' "$logs/fuzz.log" || true)
  bad=$(grep -c '^fuzz: .* FAILED ' "$logs/fuzz.log" || true)
  [ "$ok" -gt 0 ] || [ "$bad" -gt 0 ] || bad=1  # the build or the seeds failed
  passed=$((passed + ok))
  failed=$((failed + bad))
  end "fuzz"
fi

print_timings
[ "$failed" -eq 0 ] || rc=1
echo "$passed passed, $failed failed"
exit "$rc"
