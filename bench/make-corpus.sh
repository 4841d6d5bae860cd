#!/usr/bin/env bash
# Makes the benchmark corpus in <dir> with ffmpeg, cjpeg and heif-enc only
# (and bench/make-icc.py for embedded profiles), seeded so that results of
# different days compare (ffmpeg's gradient source is the one part that is
# not bit-exact: its camera-like pictures differ slightly from run to run).
# Files already there are kept. Writes <dir>/MANIFEST.tsv: name, kind (jpeg,
# image, video), displayed width, height.
#
# The phone HEICs of the shared real-world corpus (../shared/corpus/heif
# beside the checkout, or TESSERA_SHARED_CORPUS) are linked in when it is
# there; the benchmark runs without them.
set -euo pipefail
bench=$(cd "$(dirname "$0")" && pwd)
shared=${TESSERA_SHARED_CORPUS:-$bench/../../shared/corpus}
dir=$1
cd "$dir"

ff() { ffmpeg -nostdin -v error -y "$@"; }

# Camera-like content: smooth colour fields, fractal edges and sensor noise,
# rendered at a quarter of the size and scaled up, so the entropy coder has
# real work at every scale. Writes binary PPM to standard output.
camera_ppm() {
  local w=$1 h=$2
  ff -f lavfi -i "gradients=s=$((w / 4))x$((h / 4)):n=6:seed=7" \
     -f lavfi -i "mandelbrot=s=$((w / 4))x$((h / 4)):maxiter=300:start_scale=2.5" \
     -filter_complex "[0][1]blend=all_mode=softlight,scale=$w:$h:flags=bicubic,noise=alls=22:allf=u:all_seed=11,format=rgb24" \
     -frames:v 1 -f image2pipe -vcodec ppm -
}

make() {  # name, then the command that writes it to $tmp
  local name=$1; shift
  [[ -s $name ]] && return 0
  echo "corpus: making $name" >&2
  tmp=$name.part
  "$@"
  mv "$tmp" "$name"
}

jpeg() { camera_ppm "$1" "$2" | cjpeg -quality 90 "${@:3}" -outfile "$tmp"; }
# A camera export: an embedded profile (sRGB, or Display P3 as phones write).
icc() {
  [[ -s $1.icc ]] || python3 "$bench/make-icc.py" "$1" "$1.icc"
  echo "$1.icc"
}
png_rgba() {
  camera_ppm 4000 3000 | ff -f image2pipe -vcodec ppm -i - \
    -vf "format=rgba,geq=r='r(X,Y)':g='g(X,Y)':b='b(X,Y)':a='64+191*X/W'" -f image2 -vcodec png "$tmp"
}
tiff_lzw() {
  camera_ppm 8000 6000 | ff -f image2pipe -vcodec ppm -i - -f image2 -vcodec tiff \
    -compression_algo lzw "$tmp"
}
heic() {
  camera_ppm 4032 3024 | cjpeg -quality 95 -outfile "$tmp.jpg"
  heif-enc -q 80 -o "$tmp.heic" "$tmp.jpg" >/dev/null
  rm -f "$tmp.jpg"
  mv "$tmp.heic" "$tmp"
}
# A 20 MP HDR still as phones and cameras write them: 10-bit PQ, BT.2020,
# AV1-coded HEIF (AVIF brands). Deterministic content (ffmpeg's gradients
# source is not, whatever its seed) goes from sRGB to PQ with diffuse white
# at 203 cd/m² and its brightest fifth stretched up to 1000; libaom on one
# thread codes the same bytes every time.
hdr_heif() {
  local w=5472 h=3648
  local lin='if(lte(val/65535,0.04045),val/65535/12.92,pow((val/65535+0.055)/1.055,2.4))'
  local nits="(203*($lin)*(1+20*max($lin-0.8,0)))"
  local y="pow($nits/10000,0.1593017578125)"
  local pq="65535*pow((0.8359375+18.8515625*$y)/(1+18.6875*$y),78.84375)"
  ff -f lavfi -i "mandelbrot=s=$((w / 4))x$((h / 4)):maxiter=300:start_scale=2.5" \
     -f lavfi -i "nullsrc=s=$((w / 4))x$((h / 4)),geq=r='128+96*sin(X/24+Y/63)':g='128+96*sin(Y/33+2)':b='128+96*cos((X+Y)/43)'" \
     -filter_complex "[1]format=rgb24[g];[0]format=rgb24[m];[g][m]blend=all_mode=softlight,scale=$w:$h:flags=bicubic,noise=alls=22:allf=u:all_seed=11,format=rgb48le,lutrgb=r='$pq':g='$pq':b='$pq',scale=out_color_matrix=bt2020:out_range=full,format=yuv420p10le" \
     -frames:v 1 -c:v libaom-av1 -still-picture 1 -cpu-used 8 -threads 1 -row-mt 0 -crf 12 \
     -color_primaries bt2020 -color_trc smpte2084 -colorspace bt2020nc -color_range pc \
     -fflags +bitexact -flags +bitexact -f avif "$tmp"
}
video() {  # width height seconds codec [extra output options]
  local w=$1 h=$2 s=$3 codec=$4; shift 4
  ff -f lavfi -i "testsrc2=s=${w}x${h}:r=30:d=$s" -f lavfi -i "sine=f=440:d=$s" \
     -c:v "$codec" -pix_fmt yuv420p -threads 2 -c:a aac -b:a 96k -fflags +bitexact \
     -flags +bitexact "$@" -f mp4 "$tmp"
}

# A phone clip held upright: landscape 1920x1080 frames shown turned 90
# degrees clockwise by the track's display matrix (set in place, since this
# ffmpeg cannot write one).
portrait() {
  video 1920 1080 4 libx264 -preset fast
  python3 - "$tmp" <<'PY'
import struct, sys
path = sys.argv[1]
data = bytearray(open(path, "rb").read())
at = data.find(b"tkhd")
assert at > 0 and data[at + 4] == 0, "expected a version 0 track header"
one = 0x10000
matrix = [0, one, 0, -one, 0, 0, 1080 * one, 0, 0x40000000]
data[at + 44:at + 80] = struct.pack(">9i", *matrix)
open(path, "wb").write(data)
PY
}

cat > MANIFEST.tsv <<'EOF'
tiny-64.jpg	jpeg	64	64
vga-640x480.jpg	jpeg	640	480
camera-24mp.jpg	jpeg	6000	4000
progressive-12mp.jpg	jpeg	4000	3000
progressive-24mp-srgb.jpg	jpeg	6000	4000
p3-20mp.jpg	jpeg	5472	3648
huge-100mp.jpg	jpeg	12240	8160
rgba-4000x3000.png	image	4000	3000
lzw-48mp.tif	image	8000	6000
phone-12mp.heic	image	4032	3024
hdr-pq-20mp.heif	image	5472	3648
h264-1080p-10s.mp4	video	1920	1080
hevc-4k-3s.mp4	video	3840	2160
portrait-phone.mp4	video	1080	1920
EOF

make tiny-64.jpg           jpeg 64 64
make vga-640x480.jpg       jpeg 640 480
make camera-24mp.jpg       jpeg 6000 4000
make progressive-12mp.jpg  jpeg 4000 3000 -progressive
make progressive-24mp-srgb.jpg jpeg 6000 4000 -progressive -icc "$(icc srgb)"
make p3-20mp.jpg           jpeg 5472 3648 -icc "$(icc display-p3)"
make huge-100mp.jpg        jpeg 12240 8160
make rgba-4000x3000.png    png_rgba
make lzw-48mp.tif          tiff_lzw
make phone-12mp.heic       heic
make hdr-pq-20mp.heif      hdr_heif
make h264-1080p-10s.mp4    video 1920 1080 10 libx264 -preset fast
make hevc-4k-3s.mp4        video 3840 2160 3 libx265 -preset ultrafast -tag:v hvc1 \
                           -x265-params log-level=error
make portrait-phone.mp4    portrait

# Real phone HEICs (grids of tiles, Display P3), by the shared corpus's own
# manifest: path, ..., what the file exercises (6th column), ..., displayed
# size (9th). Linked, not copied.
if [[ -f $shared/MANIFEST.tsv ]]; then
  awk -F '\t' '$1 ~ /^heif\// && $6 ~ /iPhone/ && $9 ~ /^[0-9]+x[0-9]+$/ { print $1 "\t" $9 }' \
      "$shared/MANIFEST.tsv" |
  while IFS=$'\t' read -r path size; do
    [[ -f $shared/$path ]] || continue
    name=shared-$(basename "$path")
    ln -sfn "$shared/$path" "$name"
    printf '%s\timage\t%s\t%s\n' "$name" "${size%x*}" "${size#*x}" >> MANIFEST.tsv
  done
fi
