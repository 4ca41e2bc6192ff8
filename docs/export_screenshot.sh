#!/bin/sh
# Takes the screenshot of an exported recording playing in a browser, shown in README.md
# (docs/img/export-vtt.png): a 4-second 640 x 360 recording made here with FFmpeg's x264, wrapped by
# korvex-mkframe with a device time, a VCA target, an OSD text and a Chinese plate, exported by
# korvex-export to MP4 with a WebVTT sidecar, then played in headless Chromium (Debian: chromium) by a
# page that shows the sidecar as the video's subtitle track and seeks to 1.5 s. The line under the video
# is the page's own report of the player: its time, the duration and the number of active cues. A
# one-off, not part of the build. Usage: docs/export_screenshot.sh [BUILD_DIR] [OUT]
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-$here/../build/default}" && pwd)
out=${2:-$here/img/export-vtt.png}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cd "$tmp"
ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=640x360:rate=25 -t 4 -c:v libx264 -preset veryfast -g 25 -bf 0 \
  -pix_fmt yuv420p -f h264 cam.h264
"$build/tools/korvex-mkframe" -q --start-time 2024-05-01T08:00:00Z --fps 25 --vca 1000,2000,4000,6000 \
  --plate "京A·12345" --osd "Gate 3" -o cam.frames cam.h264
"$build/tools/korvex-export" -q -o cam.mp4 --vtt cam.vtt cam.frames
cat > page.html <<'HTML'
<!doctype html>
<html><head><meta charset="utf-8"><title>korvex-export in a browser</title>
<style>body{margin:0;background:#222;color:#eee;font:15px sans-serif}video{display:block;margin:12px}
p{margin:6px 12px}video::cue{font-size:22px}</style></head>
<body>
<video id="v" width="640" height="360" muted preload="auto" src="cam.mp4">
  <track kind="subtitles" srclang="en" label="korvex" src="cam.vtt" default>
</video>
<p id="s">loading</p>
<script>
const v = document.getElementById('v'), s = document.getElementById('s');
v.textTracks[0].mode = 'showing';
v.addEventListener('loadedmetadata', () => { v.currentTime = 1.5; });
v.addEventListener('seeked', () => {
  const cues = v.textTracks[0].activeCues;
  s.textContent = 'cam.mp4 at ' + v.currentTime.toFixed(2) + ' s of ' + v.duration.toFixed(2) + ' s, ' +
    v.videoWidth + 'x' + v.videoHeight + ', active cues: ' + (cues ? cues.length : 0);
});
v.addEventListener('error', () => { s.textContent = 'video error ' + (v.error && v.error.code); });
</script></body></html>
HTML
chromium --headless --no-sandbox --disable-gpu --no-first-run --disable-background-networking \
  --disable-component-update --disable-sync --allow-file-access-from-files --user-data-dir="$tmp/profile" \
  --hide-scrollbars --virtual-time-budget=8000 --screenshot="$tmp/shot.png" --window-size=664,420 \
  "file://$tmp/page.html" 2>/dev/null
cp "$tmp/shot.png" "$out"
ls -l "$out"
