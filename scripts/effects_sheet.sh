#!/usr/bin/env bash
# Draws docs/effects.png: a picture through each of the driver's seventeen
# special effects, made by `kvcam image` (the frame loop's own stages), set
# side by side with ffmpeg. The animated effects (4, the picture grid; 13,
# the zoom animation) run 25 frames first.
#   bash scripts/effects_sheet.sh [build/release]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
kvcam="$build/tools/kvcam"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# A colourful scene with fine detail and smooth ramps.
ffmpeg -loglevel error -f lavfi -i "mandelbrot=s=320x240:start_scale=1.2:end_scale=1.2" -frames:v 1 "$work/source.png"
cp "$work/source.png" "$work/tile00.png"
for n in $(seq 1 17); do
  frames=1
  if [ "$n" = 4 ] || [ "$n" = 13 ]; then frames=25; fi
  "$kvcam" image "$work/source.png" "$(printf '%s/tile%02d.png' "$work" "$n")" --effect "$n" --frames "$frames"
done
ffmpeg -loglevel error -y -framerate 1 -i "$work/tile%02d.png" -vf "tile=6x3:padding=4:color=white,scale=iw/2:-1" \
  -frames:v 1 docs/effects.png
echo "docs/effects.png"
