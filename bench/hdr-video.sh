#!/usr/bin/env bash
# HDR video thumbnails of two builds compared: colour (CIEDE2000, through
# delta-e.py) on PQ and HLG HEVC clips, then time and peak memory of the
# four sizes of a 4K PQ clip.
#
#   bench/hdr-video.sh OLD_TOOL NEW_TOOL [WORK_DIR]
#
# The clips are made once in WORK_DIR (default: a temporary folder) with
# the ffmpeg command: SDR test patterns put into BT.2020 PQ or HLG, 10-bit
# HEVC. "bright" clips put SDR white at 1000 cd/m² (PQ), one clip declares
# a MaxCLL of 4000 cd/m².
set -euo pipefail
if [ $# -lt 2 ]; then
  sed -n '2,11p' "$0" >&2
  exit 2
fi
old=$(realpath "$1")
new=$(realpath "$2")
here=$(dirname "$(realpath "$0")")
work=${3:-$(mktemp -d)}
mkdir -p "$work"
cd "$work"

x265=(-c:v libx265 -preset ultrafast -pix_fmt yuv420p10le)
pq=(-colorspace bt2020nc -color_primaries bt2020 -color_trc smpte2084)
hlg=(-colorspace bt2020nc -color_primaries bt2020 -color_trc arib-std-b67)
to_pq=zscale=tin=bt709:min=bt709:pin=bt709:t=smpte2084:m=bt2020nc:p=bt2020
to_hlg=zscale=tin=bt709:min=bt709:pin=bt709:t=arib-std-b67:m=bt2020nc:p=bt2020
mastering="G(13250,34500)B(7500,3000)R(34000,16000)WP(15635,16450)L(40000000,50)"
gradients="gradients=s=1920x1080:r=10:d=2:c0=black:c1=white:c2=red:c3=blue:nb_colors=4:speed=0.05:seed=1"

# clip NAME SOURCE FILTER TAGS-ARRAY-NAME [X265-PARAMS]
clip() {
  local name=$1 source=$2 filter=$3 tags="$4[@]" params=${5:-}
  [ -s "$name" ] && return
  ffmpeg -v error -y -f lavfi -i "$source" -vf "$filter,format=yuv420p10le" "${x265[@]}" \
    -x265-params "log-level=none$params" "${!tags}" "$name"
}
clip pq-testsrc2.mp4 testsrc2=s=1920x1080:r=10:d=2 "$to_pq" pq
clip hlg-testsrc2.mp4 testsrc2=s=1920x1080:r=10:d=2 "$to_hlg" hlg
clip pq-bright-bars.mp4 smptehdbars=s=1920x1080:r=10:d=2 "$to_pq:npl=1000" pq
clip hlg-bars.mp4 smptehdbars=s=1920x1080:r=10:d=2 "$to_hlg" hlg
clip pq-maxcll4000.mp4 testsrc2=s=1920x1080:r=10:d=2 "$to_pq:npl=600" pq \
  ":hdr10=1:max-cll=4000,400:master-display=$mastering"
clip pq-gradients.mp4 "$gradients" "$to_pq:npl=1000" pq
clip hlg-gradients.mp4 "$gradients" "$to_hlg" hlg
clip pq-4k.mp4 testsrc2=s=3840x2160:r=10:d=2 "$to_pq:npl=400" pq

python3 "$here/delta-e.py" "$old" "$new" pq-testsrc2.mp4 hlg-testsrc2.mp4 pq-bright-bars.mp4 hlg-bars.mp4 \
  pq-maxcll4000.mp4 pq-gradients.mp4 hlg-gradients.mp4

echo
echo "pq-4k.mp4, four sizes: tool, run, wall s, user s, system s, peak RSS KiB"
for run in 1 2 3; do
  for tool in old new; do
    out=$(mktemp -d)
    /usr/bin/time -f "%e %U %S %M" -o time.txt "${!tool}" --output_dir "$out" --src pq-4k.mp4 >/dev/null
    echo "$tool $run $(cat time.txt)"
    rm -rf "$out"
  done
done
