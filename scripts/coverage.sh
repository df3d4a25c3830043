#!/usr/bin/env bash
# Which product lines each test covers, and which it alone covers: a test that covers no line
# of its own is where to look first when merging or dropping tests (it may still assert
# something no other test does; read it before deciding). Builds the coverage preset, runs
# every unit and integration test in a process of its own (the tools it starts included),
# and writes build/coverage/per-test/report.tsv: own lines, covered lines, test.
#   bash scripts/coverage.sh [CTEST_REGEX]
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"
out="build/coverage/per-test"
jobs="$(nproc 2>/dev/null || echo 2)"
cmake --preset coverage >/dev/null
cmake --build --preset coverage --parallel "$jobs"
rm -rf "$out"
mkdir -p "$out"
binaries=(build/coverage/tests/quorvel_unit_tests build/coverage/tests/quorvel_integration_tests
  build/coverage/tools/devserver/quorvel-devserver build/coverage/tools/demo/quorvel-demo)
objects=("${binaries[0]}")
for b in "${binaries[@]:1}"; do [ -x "$b" ] && objects+=(-object "$b"); done

ctest --test-dir build/coverage -N -L "unit|integration" -R "${1:-.}" |
  sed -n 's/^ *Test *#[0-9]*: //p' >"$out/tests.txt"
while read -r test; do
  dir="$out/$(tr '/ <>,' '_____' <<<"$test")"
  mkdir -p "$dir"
  echo "$test" >"$dir/name"
  LLVM_PROFILE_FILE="$root/$dir/%p-%m.profraw" \
    ctest --test-dir build/coverage -R "^${test}\$" --timeout 300 >/dev/null 2>&1 ||
    echo "failed: $test" >&2
  compgen -G "$dir/*.profraw" >/dev/null || continue
  llvm-profdata merge -sparse "$dir"/*.profraw -o "$dir/merged.profdata"
  rm -f "$dir"/*.profraw
  # Covered lines of src, include and tools, as file:line.
  llvm-cov export -format=lcov -instr-profile="$dir/merged.profdata" "${objects[@]}" 2>/dev/null |
    awk -F'[:,]' -v root="$root/" '
      /^SF:/ { file = substr($0, 4); keep = index(file, root) == 1 &&
               substr(file, length(root) + 1) ~ /^(src|include|tools)\// }
      keep && /^DA:/ && $3 > 0 { print substr(file, length(root) + 1) ":" $2 }' |
    sort -u >"$dir/lines"
done <"$out/tests.txt"

# Own lines: covered by this test and no other.
for lines in "$out"/*/lines; do
  sed "s|^|$(cat "$(dirname "$lines")/name")\t|" "$lines"
done | awk -F'\t' '
  { test[NR] = $1; line[NR] = $2; count[$2]++; covered[$1]++ }
  END {
    for (i = 1; i <= NR; i++) if (count[line[i]] == 1) own[test[i]]++
    for (t in covered) printf "%d\t%d\t%s\n", own[t] + 0, covered[t], t
  }' >"$out/report.tsv"
# Tests whose work runs in processes that end with _exit (the crash tests) leave no lines.
for lines in "$out"/*/lines; do
  [ -s "$lines" ] || printf '0\t0\t%s\n' "$(cat "$(dirname "$lines")/name")" >>"$out/report.tsv"
done
sort -n -o "$out/report.tsv" "$out/report.tsv"
echo "own lines, covered lines, test: $out/report.tsv"
awk -F'\t' '$1 == 0 { n++ } END { print n + 0 " tests cover no line of their own" }' \
  "$out/report.tsv"
