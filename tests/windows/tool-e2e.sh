#!/usr/bin/env bash
# tool-e2e.sh <thumbnail-tool.exe> <linux thumbnail-tool> <scratch dir> <ffmpeg> <hanging-shell .exe>
#
# Runs the Windows build of the tool under Wine and checks, byte for byte,
# what it prints. Fails on the first difference. The last argument is a
# build of the tool whose Shell handler never answers.
set -euo pipefail

exe=$(realpath "$1")
linux_tool=$(realpath "$2")
scratch=$3
ffmpeg=$4
hanging_exe=$(realpath "$5")
run_wine=$(cd "$(dirname "$0")/../.." && pwd)/scripts/windows/wine-run.sh

fail() { echo "FAIL: $*" >&2; exit 1; }
[ -x "$linux_tool" ] || fail "no Linux tool to compare with (TESSERA_LINUX_TOOL='$linux_tool')"
[ -x "$ffmpeg" ] || fail "the ffmpeg command is needed to make the test media"

rm -rf "$scratch" && mkdir -p "$scratch"
scratch=$(cd "$scratch" && pwd)
win() { echo "Z:${1//\//\\}"; }  # the Unix path as Wine's Z: drive sees it

# Runs a command, leaving stdout, stderr and the exit status in $1.{out,err,rc}.
capture() {
  local name=$1; shift
  set +e
  "$@" >"$name.out" 2>"$name.err"
  echo $? >"$name.rc"
  set -e
}

# --- command lines that are rejected: the same bytes and status as on Linux ---
cd "$scratch"
cases=(
  ""
  "--src a.jpg"
  "--size 3"
  "--src --output_dir out"
  "--output_dir=out"
  "-h"
  "--src a.jpg b.jpg positional --output_dir"
)
for i in "${!cases[@]}"; do
  read -r -a argv <<<"${cases[$i]}"
  capture "linux-$i" "$linux_tool" "${argv[@]}"
  capture "win-$i" "$run_wine" "$exe" "${argv[@]}"
  for part in out err rc; do
    cmp -s "linux-$i.$part" "win-$i.$part" ||
      fail "arguments '${cases[$i]}': std$part differs from Linux ($(diff "linux-$i.$part" "win-$i.$part" | head -5))"
  done
done
echo "argument errors: ${#cases[@]} cases identical to Linux"

# --- a photo: the same four thumbnails as the Linux build ---------------------
# Wine has no Shell thumbnail handlers, so our own decoders make them behind
# the Shell's failed attempt; the JPEG encoders differ (GDI+ and libjpeg), so
# pixels are compared within a small tolerance.
"$ffmpeg" -v error -f lavfi -i testsrc=size=640x480 -vf gblur=sigma=1.5 -frames:v 1 "$scratch/photo.jpg"
mkdir -p "$scratch/photo-out" "$scratch/photo-linux"
capture photo "$run_wine" "$exe" --output_dir "$(win "$scratch/photo-out")" --src "$(win "$scratch/photo.jpg")"
capture photo-linux "$linux_tool" --output_dir "$scratch/photo-linux" --src "$scratch/photo.jpg"
[ "$(cat photo.rc)" = 0 ] || fail "photo: exit status $(cat photo.rc)"
[ ! -s photo.err ] || fail "photo: the Windows build logged: $(head -c 2000 photo.err)"
python3 "$(dirname "$0")/same-thumbnails.py" "$ffmpeg" photo-linux.out photo.out ||
  fail "photo: the thumbnails differ from the Linux build's"
echo "photo: the Linux build's four thumbnails, nothing logged"

# --- a video: FFmpeg's thumbnails, as on Linux -------------------------------
"$ffmpeg" -v error -f lavfi -i testsrc=duration=2:size=640x360:rate=25 -c:v libx264 -pix_fmt yuv420p \
  "$scratch/clip.mp4"
mkdir -p "$scratch/ffmpeg-out" "$scratch/ffmpeg-linux"
capture ffmpeg "$run_wine" "$exe" --output_dir "$(win "$scratch/ffmpeg-out")" --src "$(win "$scratch/clip.mp4")"
capture ffmpeg-linux "$linux_tool" --output_dir "$scratch/ffmpeg-linux" --src "$scratch/clip.mp4"
[ "$(cat ffmpeg.rc)" = 0 ] || fail "video: exit status $(cat ffmpeg.rc); stderr: $(head -c 2000 ffmpeg.err)"
python3 "$(dirname "$0")/same-thumbnails.py" "$ffmpeg" ffmpeg-linux.out ffmpeg.out ||
  fail "video: the thumbnails differ from the Linux build's"
echo "video: the Linux build's four thumbnails"

# --- the same video without the media module: the Media Foundation frame -----
# The frame at 1 s is read with Media Foundation and written as a JPEG; that
# file goes through the Shell and our decoders like any picture, so all four
# sizes are made without any Shell handler.
no_media=$scratch/no-media
mkdir -p "$no_media" "$scratch/video-out"
cp "$(dirname "$exe")"/*.exe "$(dirname "$exe")"/*.dll "$no_media/"
rm "$no_media/tessera-media.dll"
out_dir=$(win "$scratch/video-out")
capture video "$run_wine" "$no_media/$(basename "$exe")" --output_dir "$out_dir" --src "$(win "$scratch/clip.mp4")"
[ "$(cat video.rc)" = 0 ] || fail "video: exit status $(cat video.rc); stderr: $(head -c 2000 video.err)"
grep -q 'Failed to export frame' video.err && fail "video: the frame export failed: $(cat video.err)"
keys=$(grep -o '"[a-z-]*" : ' video.out | tr -d '": ' | tr '\n' ' ')
[ "$keys" = "large medium small small-medium " ] || fail "video: report keys '$keys'; stdout: $(cat video.out)"
[ "$(tail -c 3 video.out | od -An -tx1 | tr -d ' ')" = 7d0a0a ] || fail "video: report does not end in '}\\n\\n'"

# Each size from the 640x360 frame, the cascade's longer sides and rounding
# exactly as the Linux tool makes them.
ffprobe=$(dirname "$ffmpeg")/ffprobe
[ -x "$ffprobe" ] || ffprobe=ffprobe
declare -A expected=([large]=640x360 [medium]=568x320 [small-medium]=426x240 [small]=212x120)
out_dir_json=${out_dir//\\/\\\\}
reported=()
while read -r key path; do
  # A TempFile of the output directory: its eight-character random name, no
  # extension (the frame file, "<random>.jpg", is never reported).
  [[ "$path" =~ ^"$out_dir_json"\\\\[A-Za-z0-9_-]{8}$ ]] || fail "video: $key path '$path' is not an output TempFile"
  unix=${path#Z:}
  unix=${unix//\\\\//}
  [ "$(head -c 3 "$unix" | od -An -tx1 | tr -d ' ')" = ffd8ff ] || fail "video: '$path' is not a JPEG"
  size=$("$ffprobe" -v error -select_streams v:0 -show_entries stream=width,height -of csv=s=x:p=0 "$unix")
  [ "$size" = "${expected[$key]}" ] || fail "video: $key is $size, not ${expected[$key]}"
  reported+=("$(basename "$unix")")
done < <(sed -n 's/^ *"\([a-z-]*\)" : "\(.*\)",\{0,1\}$/\1 \2/p' video.out)
[ ${#reported[@]} = 4 ] || fail "video: ${#reported[@]} paths in the report; stdout: $(cat video.out)"
left=$(ls -A "$scratch/video-out" | sort | tr '\n' ' ')
[ "$left" = "$(printf '%s\n' "${reported[@]}" | sort | tr '\n' ' ')" ] ||
  fail "video: the output directory holds '$left', not just the reported files"
echo "video without the media module: four sizes of the exported frame, nothing else left behind"

# --- a Shell handler that never answers --------------------------------------
# Our decoders take over after the Shell's bound, once: the later sizes do not
# wait for the same handler again. A video that nothing can read ends with a
# null report. Either way the process ends, on time, although the handler's
# thread never returns, and leaves nothing behind.
python3 -c "
import sys
data = open(sys.argv[1], 'rb').read()
open(sys.argv[2], 'wb').write(data[:data.find(b'moov') - 4])" "$scratch/clip.mp4" "$scratch/no-moov.mp4"
for src in photo.jpg no-moov.mp4; do
  rm -rf "$scratch/hang-out" && mkdir -p "$scratch/hang-out"
  start=$SECONDS
  capture hang "$run_wine" "$hanging_exe" --output_dir "$(win "$scratch/hang-out")" --src "$(win "$scratch/$src")"
  took=$((SECONDS - start))
  [ "$(cat hang.rc)" = 0 ] || fail "hanging handler, $src: exit status $(cat hang.rc); stderr: $(head -c 2000 hang.err)"
  made=$(grep -c '"Z:' hang.out || true)
  left=$(ls -A "$scratch/hang-out" | wc -l)
  case $src in
    photo.jpg) [ "$made" = 4 ] && [ "$left" = 4 ] && [ "$took" -le 20 ] ||
      fail "hanging handler, $src: $made reported, $left files, $took s; stdout: $(cat hang.out)" ;;
    *) [ "$(cat hang.out)" = null ] && [ "$left" = 0 ] && [ "$took" -le 70 ] ||
      fail "hanging handler, $src: $left files, $took s; stdout: $(cat hang.out)" ;;
  esac
  echo "hanging handler, $src: $made thumbnails in $took s, nothing else left behind"
done
rm -rf "$scratch"
