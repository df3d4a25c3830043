#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) and runs each for SECONDS (default 600).
# New interesting inputs go to build/fuzz/corpus/<target>; a crash stops the run and leaves
# its input in build/fuzz/crashes/<target>: copy it to fuzz/corpus/<target>/crash-<what>
# so that every build replays it from then on.
#   bash scripts/fuzz.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-600}"
shift || true
targets=("$@")
if [ "${#targets[@]}" -eq 0 ]; then
  targets=(service_answers cache_reader preferences_reader url_and_links log_format devserver_request
    c_api_calls)
fi
# QUORVEL_FUZZ_BUILD names a clang tree configured with QUORVEL_BUILD_FUZZERS to build the
# targets in (the asan-ubsan preset's is one, which the test command reuses); by default the
# fuzz preset's, optimised, for long runs. Corpora, crashes and logs go to build/fuzz either way.
tree="${QUORVEL_FUZZ_BUILD:-build/fuzz}"
if [ -z "${QUORVEL_FUZZ_BUILD:-}" ]; then
  cmake --preset fuzz >/dev/null
fi
cmake --build "$tree" --parallel "$(nproc 2>/dev/null || echo 2)" \
  --target $(printf 'quorvel_fuzz_%s ' "${targets[@]}")
# One target per core at a time: each fuzzer runs on one thread, so this halves the wall time
# on two cores and gives every target its full time.
parallel="${QUORVEL_FUZZ_JOBS:-$(nproc 2>/dev/null || echo 2)}"
run_target() {
  local target="$1" seconds="$2" log="build/fuzz/$1${3:+.$3}.log"
  local corpus="build/fuzz/corpus/$target"
  local crashes="build/fuzz/crashes/$target"
  mkdir -p "$corpus" "$crashes"
  # Targets that keep one world across inputs (a tracker, the emulator's store) grow state
  # on purpose: per-input leak scans would take all the time. Their leaks are still caught
  # when ctest replays the corpus under AddressSanitizer, at exit.
  local leaks=1
  case "$target" in service_answers | devserver_request) leaks=0 ;; esac
  echo "=== fuzz $target for ${seconds}s${3:+ (part $3)}"
  if ! "$tree"/fuzz/quorvel_fuzz_"$target" -max_total_time="$seconds" -print_final_stats=1 \
      -detect_leaks="$leaks" -rss_limit_mb=2048 -artifact_prefix="$crashes/" \
      "$corpus" "fuzz/corpus/$target" \
      2> "$log"; then
    echo "fuzz $target: FAILED, see $log and $crashes"
    return 1
  fi
  # -a: a target's log may hold bytes of the inputs it was fed.
  grep -a -E "stat::number_of_executed_units|stat::peak_rss_mb" "$log" |
    sed "s/^/$target: /" || true
}
# The targets left over for a last round fewer than the cores each run as several processes on
# their corpus for a share of the time, so that no core idles: every target still gets its
# seconds of fuzzing, and the step ends sooner.
runs=()
left=$((${#targets[@]} % parallel))
for i in "${!targets[@]}"; do
  target="${targets[$i]}"
  parts=1
  if [ "$left" -gt 0 ] && [ "$i" -ge $((${#targets[@]} - left)) ]; then
    parts=$((parallel / left))
  fi
  if [ "$parts" -le 1 ] || [ $((seconds / parts)) -lt 1 ]; then
    runs+=("$target $seconds")
  else
    for part in $(seq 1 "$parts"); do runs+=("$target $((seconds / parts)) $part"); done
  fi
done
status=0
running=0
for run in "${runs[@]}"; do
  if [ "$running" -ge "$parallel" ]; then
    wait -n || status=1
    running=$((running - 1))
  fi
  # shellcheck disable=SC2086 # a run is its target, its seconds and its part
  run_target $run &
  running=$((running + 1))
done
while [ "$running" -gt 0 ]; do
  wait -n || status=1
  running=$((running - 1))
done
exit "$status"
