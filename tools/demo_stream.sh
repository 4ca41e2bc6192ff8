#!/bin/sh
# The frame side of the demo: makes a sample stream from the committed test data with korvex-mkframe
# (absolute time, a VCA target, a plate and an OSD text in every frame), encrypts it in the enhanced
# mode, inspects it with korvex-dump --key, writes its clear elementary stream and ends with a picture:
# the first frame drawn with its overlays by korvex-view. Everything it makes stays under BUILD_DIR/demo/,
# so each path it prints is there afterwards. Usage: demo_stream.sh [BUILD_DIR]
set -eu
build=${1:-build/default}
here=$(cd "$(dirname "$0")" && pwd)
mkframe="$build/tools/korvex-mkframe"
dump="$build/tools/korvex-dump"
view="$build/tools/korvex-view"
input="$here/../tests/data/testsrc_high.h264"
mkdir -p "$build/demo"
out=$(cd "$build/demo" && pwd)

echo "== korvex-mkframe: three frames of $(basename "$input"), one a second, encrypted with key 'demo-key',"
echo "   into $out/sample.frames"
"$mkframe" --max-frames 3 --start-time 2024-05-01T08:00:00Z --fps 1 \
    --vca 1000,2000,4000,6000,7 --plate AB123CD --osd "Gate 3" \
    --encrypt enhanced --key demo-key -o "$out/sample.frames" "$input" 2>&1

echo "== korvex-dump --key demo-key"
"$dump" --key demo-key "$out/sample.frames"

echo "== korvex-dump with a wrong key"
if "$dump" --quiet --key wrong-key "$out/sample.frames" 2>&1 | head -n 1; then :; fi

echo "== korvex-dump --es: the clear elementary stream"
"$dump" --key demo-key --es "$out/sample.h264" "$out/sample.frames"

echo "== korvex-view: the first frame with its overlays"
png=$("$view" --key demo-key --frame 0 --png "$out" "$out/sample.frames")
echo "picture: $png"
