#!/bin/sh
# Makes the short Annex B streams that the probe tests read: 8 frames of the 64x64 test pattern, coded with
# x264 and x265 in two settings each. Needs ffmpeg (Debian's carries libx264 and libx265); the tests only
# read the committed files.
set -eu
cd "$(dirname "$0")"
src="-f lavfi -i testsrc=size=64x64:rate=25 -frames:v 8 -an -pix_fmt yuv420p"
ff="ffmpeg -hide_banner -loglevel error -y"

# H.264: High profile with B-frames, and Constrained Baseline with one IDR and P slices only.
$ff $src -c:v libx264 -preset medium -x264-params log-level=error -f h264 testsrc_high.h264
$ff $src -c:v libx264 -profile:v baseline -preset ultrafast -x264-params log-level=error -f h264 \
    testsrc_baseline.h264
# H.265: Main, and Main with two slices per picture and no B-frames.
$ff $src -c:v libx265 -x265-params log-level=error -f hevc testsrc_main.h265
$ff $src -c:v libx265 -x265-params log-level=error:bframes=0:slices=2 -f hevc testsrc_slices.h265
ls -l ./*.h264 ./*.h265
