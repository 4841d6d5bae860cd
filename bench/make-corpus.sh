#!/usr/bin/env bash
# Makes the benchmark corpus in <dir> with ffmpeg, cjpeg and heif-enc only
# (and bench/make-icc.py for embedded profiles): the same bytes on every run
# (seeded noise, bit-exact encoders), so results of different days compare.
# Files already there are kept. Writes <dir>/MANIFEST.tsv: name, kind (jpeg,
# image, video), displayed width, height.
set -euo pipefail
dir=$1
bench=$(cd "$(dirname "$0")" && pwd)
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
make h264-1080p-10s.mp4    video 1920 1080 10 libx264 -preset fast
make hevc-4k-3s.mp4        video 3840 2160 3 libx265 -preset ultrafast -tag:v hvc1 \
                           -x265-params log-level=error
make portrait-phone.mp4    portrait
