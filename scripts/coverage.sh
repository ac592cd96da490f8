#!/usr/bin/env bash
# Line coverage of the library by the tests: a gcov build without sanitizers
# (build-coverage), every test, then gcovr over the library's own sources:
# the subsystem folders and include/. Tests, test support and the command-line
# tool (cli/) are left out of the figure; lines of the library that the tool
# runs in the end-to-end tests do count.
#
# Prints gcovr's per-file table, then the share of test code, and as its last
# line "line coverage: NN.N%".
#
#   PKGDLV_COVERAGE_BUILD  build folder (default build-coverage)
set -euo pipefail
cd "$(dirname "$0")/.."

build=${PKGDLV_COVERAGE_BUILD:-build-coverage}
jobs=$(nproc)
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
library='(agent|component|engine|multicast|records|snapshot|transport|util|include)/'

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug "${launcher[@]}" \
  -DCMAKE_CXX_FLAGS=--coverage -DCMAKE_EXE_LINKER_FLAGS=--coverage >/dev/null
cmake --build "$build" -j "$jobs"

# Counts from an earlier run would add to this one's.
find "$build" -name '*.gcda' -delete
rc=0
(cd "$build" && ctest -j "$jobs" --timeout 600 --output-on-failure) || rc=$?
[ "$rc" -eq 0 ] || echo "coverage: some tests failed; the figure below counts the lines they reached" >&2

report=$(mktemp)
trap 'rm -f "$report"' EXIT
summary=$(gcovr --root . --object-directory "$build" --filter "$library" -j "$jobs" \
  --txt "$report" --print-summary --gcov-ignore-parse-errors "$build")
cat "$report"

count_lines() {
  local dir dirs=()
  for dir in "$@"; do [ -d "$dir" ] && dirs+=("$dir"); done
  find "${dirs[@]}" \( -name '*.cc' -o -name '*.h' \) -exec cat {} + | wc -l
}
code_lines=$(count_lines agent component engine multicast records snapshot transport util include cli)
test_lines=$(count_lines tests)
echo "test share: $test_lines test lines for $code_lines lines of code ($((100 * test_lines / code_lines))%)"
echo "$summary" | grep '^lines:'
echo "line coverage: $(echo "$summary" | sed -n 's/^lines: *\([0-9.]*%\).*/\1/p')"
