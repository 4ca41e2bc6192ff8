#!/usr/bin/env bash
# Runs every unit test of a build under valgrind memcheck, each test in its own process as ctest does.
# A test fails on any memcheck error or definite leak (exit code 99) as well as on its own failure.
# Usage: tests/valgrind.sh <build dir> [jobs]
set -uo pipefail
build=$(cd "${1:-build/default}" && pwd)
jobs=${2:-2}
out=$build/valgrind
mkdir -p "$out"
rm -f "$out"/*.log
list=$out/tests.txt
: > "$list"
for bin in "$build"/tests/test_*; do
  [ -x "$bin" ] || continue
  "$bin" --gtest_list_tests 2>/dev/null | awk -v b="$bin" '
    /^[^ ]/ { suite = $1 } /^  / { print b " " suite $1 }' >> "$list"
done
run_one() {
  bin=$1 name=$2 out=$3
  log=$out/$(basename "$bin").${name//\//_}.log
  # From the test program's directory, as ctest runs it: log tests write files there.
  cd "$(dirname "$bin")" || return
  valgrind --tool=memcheck --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite \
    --show-leak-kinds=definite --child-silent-after-fork=yes --track-origins=no \
    "$bin" --gtest_filter="$name" > "$log" 2>&1
  rc=$?
  if [ $rc -ne 0 ]; then echo "FAIL ($rc) $name: $log"; fi
}
export -f run_one
total=$(wc -l < "$list")
echo "valgrind memcheck over $total tests ($jobs at a time), logs in $out"
xargs -P "$jobs" -L 1 bash -c 'run_one "$0" "$1" '"$out" < "$list" > "$out/failures.txt"
cat "$out/failures.txt"
failed=$(grep -c '^FAIL' "$out/failures.txt")
errors=$(grep -h "ERROR SUMMARY" "$out"/*.log | awk '{s += $4} END {print s + 0}')
definite=$(grep -h "definitely lost:" "$out"/*.log | awk '{gsub(",", "", $4); s += $4} END {print s + 0}')
echo "valgrind: $total tests, $failed failed, $errors memcheck errors, $definite bytes definitely lost"
[ "$failed" -eq 0 ]
