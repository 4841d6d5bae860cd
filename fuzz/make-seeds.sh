#!/usr/bin/env bash
# Regenerates the committed seed inputs in fuzz/corpus/ with the ffmpeg
# command: tiny images of each family and tiny clips of each container, plus
# hand-written token lists and level-config files. Seeds are kept small so
# that the fuzzer mutates structure, not pixels.
set -euo pipefail
cd "$(dirname "$0")"
out=corpus
ff() { ffmpeg -hide_banner -loglevel error -y "$@"; }
src=(-f lavfi -i "testsrc2=size=24x16:rate=5")

mkdir -p "$out"/{argument_parser,level_config,icc_profile,jpeg,png,tiff,gif,bmp,webp,heif,raw,media}

printf -- '--output_dir\0out\0--src\0a.jpg' >"$out/argument_parser/tool"
printf -- '--src=a.jpg\0--output_dir=out\0b.jpg' >"$out/argument_parser/inline"
printf -- '--mode\0slow\0-p\0a\0b\0run\0-f\0file' >"$out/argument_parser/subcommand"
printf -- '--size\0003\0-h\0--help\0---x\0--\0-' >"$out/argument_parser/odd"

printf '# levels\nlevel = 2\nthumbnail_debug = 4\n' >"$out/level_config/plain"
printf 'name = "a # b"\nother=\x27x\x27\n\n  # indented\n' >"$out/level_config/quoted"
printf 'broken line\n' >"$out/level_config/bad"

# Matrix-and-curve RGB profiles, one of each version and curve form.
python3 ../bench/make-icc.py srgb "$out/icc_profile/srgb-v2-table.icc"
python3 ../bench/make-icc.py display-p3 "$out/icc_profile/display-p3-v4-parametric.icc"

ff "${src[@]}" -frames:v 1 "$out/jpeg/baseline.jpg"
ff "${src[@]}" -frames:v 1 -pix_fmt gray "$out/jpeg/gray.jpg"
ff "${src[@]}" -frames:v 1 -pix_fmt yuvj444p "$out/jpeg/444.jpg"
ff "${src[@]}" -frames:v 1 "$out/png/rgb.png"
ff "${src[@]}" -frames:v 1 -pix_fmt rgba "$out/png/rgba.png"
ff "${src[@]}" -frames:v 1 -pix_fmt pal8 "$out/png/palette.png"
ff "${src[@]}" -frames:v 1 -pix_fmt rgb48be "$out/png/rgb16.png"
ff "${src[@]}" -frames:v 1 "$out/tiff/rgb.tif"
ff "${src[@]}" -frames:v 1 -compression_algo deflate -pix_fmt gray "$out/tiff/gray-deflate.tif"
ff "${src[@]}" -frames:v 1 -compression_algo lzw -pix_fmt rgba "$out/tiff/rgba-lzw.tif"
ff "${src[@]}" -frames:v 3 "$out/gif/animated.gif"
ff "${src[@]}" -frames:v 1 "$out/bmp/rgb24.bmp"
ff "${src[@]}" -frames:v 1 -pix_fmt pal8 "$out/bmp/palette.bmp"
ff "${src[@]}" -frames:v 1 -c:v libwebp "$out/webp/lossy.webp"
ff "${src[@]}" -frames:v 1 -c:v libwebp -lossless 1 "$out/webp/lossless.webp"
ff "${src[@]}" -frames:v 3 -c:v libwebp_anim -loop 0 "$out/webp/animated.webp"
# Camera RAW files are TIFF-shaped more often than not.
cp "$out/tiff/rgb.tif" "$out/raw/tiff-shaped.tif"
ff "${src[@]}" -frames:v 3 -c:v libx264 -pix_fmt yuv420p "$out/media/h264.mp4"
ff "${src[@]}" -frames:v 3 -c:v mjpeg "$out/media/mjpeg.avi"
ff "${src[@]}" -frames:v 3 -c:v mjpeg "$out/media/mjpeg.mkv"
ff "${src[@]}" -frames:v 2 -c:v libx265 -pix_fmt yuv420p -x265-params log-level=none "$out/media/hevc.mp4"
