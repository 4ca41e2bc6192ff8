#!/bin/sh
# Runs the frame side of `make demo` and checks that every file path it prints is there after it ends.
# Usage: demo_paths.sh BUILD_DIR SOURCE_DIR
set -eu
log=$(mktemp)
trap 'rm -f "$log"' EXIT
sh "$2/tools/demo_stream.sh" "$1" >"$log" 2>&1 || { cat "$log"; exit 1; }
n=0
for p in $(grep -o "/[^ '\"]*" "$log" | sed 's/[.,:;)]*$//' | grep '/.*/.*\.' | sort -u); do
  n=$((n + 1))
  [ -e "$p" ] || { cat "$log"; echo "printed but missing: $p"; exit 1; }
done
[ "$n" -ge 3 ] || { cat "$log"; echo "only $n paths printed"; exit 1; }
echo "demo paths ok ($n)"
