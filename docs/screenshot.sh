#!/bin/sh
# Takes the screenshot of the reference's link page shown in README.md (docs/img/link-page.png): headless
# Chromium (Debian: chromium) renders build/docs/html/group__link.html after `make docs`, and ffmpeg
# (Debian: ffmpeg) crops it to the top 1100 pixels, scales it to 960 wide and packs it into 48 colours
# (about 80 KB). A one-off, not part of the build. Usage: docs/screenshot.sh [HTML_DIR] [OUT]
set -eu
here=$(cd "$(dirname "$0")" && pwd)
html=$(cd "${1:-$here/../build/docs/html}" && pwd)
out=${2:-$here/img/link-page.png}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
  --disable-background-networking --disable-component-update --disable-sync \
  --user-data-dir="$tmp/profile" --hide-scrollbars --virtual-time-budget=5000 --screenshot="$tmp/full.png" --window-size=1200,1400 \
  "file://$html/group__link.html" 2>/dev/null
ffmpeg -loglevel error -y -i "$tmp/full.png" -vf "crop=1200:1100:0:0,scale=960:-1:flags=lanczos,split[a][b];[a]palettegen=max_colors=48:stats_mode=full[p];[b][p]paletteuse=dither=none" "$out"
ls -l "$out"
