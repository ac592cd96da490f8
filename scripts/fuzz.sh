#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer,
# UndefinedBehaviorSanitizer), makes their seed corpora with the pkgdlv tool
# and runs each target for a bounded time, as many at once as there are
# cores. A crash, a leak, a timeout or an out-of-memory in any target fails
# the script; the input that caused it is kept in the build folder's
# fuzz/findings/<target>/.
#
#   FUZZ_SECONDS  seconds per target (default 60)
#   FUZZ_JOBS     targets run at once (default: the number of cores)
#   PKGDLV_FUZZ_BUILD  build folder (default build-fuzz)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${FUZZ_SECONDS:-60}
jobs=${FUZZ_JOBS:-$(nproc)}
build=${PKGDLV_FUZZ_BUILD:-build-fuzz}
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  "${launcher[@]}" -DPKGDLV_FUZZ=ON >/dev/null
cmake --build "$build" --target fuzzers pkgdlv_cli -j "$(nproc)"

out="$PWD/$build/fuzz"
rm -rf "$out/corpus" "$out/corpus-new" "$out/findings" "$out/logs"
mkdir -p "$out/findings" "$out/logs"
bash fuzz/make_seeds.sh "$build/pkgdlv" "$out/corpus"

targets=(compressed_frame package_document snapshot_document security_data
         server_answer multicast_ranges configuration_document package_log)

# One target: new inputs go to a scratch corpus so the seeds stay as made.
# Its exit status is left in logs/<target>.rc.
run_target() {
  local t=$1 rc=0
  mkdir -p "$out/findings/$t" "$out/corpus-new/$t"
  (cd "$out/findings/$t" &&
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$out/fuzz_$t" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 \
      -artifact_prefix="$out/findings/$t/" "$out/corpus-new/$t" "$out/corpus/$t") \
    >"$out/logs/$t.log" 2>&1 || rc=$?
  echo "$rc" >"$out/logs/$t.rc"
}

running=0
for t in "${targets[@]}"; do
  if [ "$running" -ge "$jobs" ]; then wait -n; running=$((running - 1)); fi
  run_target "$t" &
  running=$((running + 1))
done
wait

failed=()
for t in "${targets[@]}"; do
  if [ "$(cat "$out/logs/$t.rc")" = 0 ]; then
    printf 'fuzz: %-24s ok      %8s runs\n' "$t" \
      "$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$out/logs/$t.log" | grep -o '[0-9]*$')"
  else
    failed+=("$t")
    printf 'fuzz: %-24s FAILED  log: %s\n' "$t" "$out/logs/$t.log"
    grep -E '^(==[0-9]+==ERROR|SUMMARY|Test unit written|artifact_prefix)' "$out/logs/$t.log" | head -n 5 | sed 's/^/  /'
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: ${#failed[@]} of ${#targets[@]} targets failed: ${failed[*]}"
  exit 1
fi
echo "fuzz: all ${#targets[@]} targets ran ${seconds}s without a failure"
