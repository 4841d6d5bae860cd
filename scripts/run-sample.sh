#!/usr/bin/env bash
# Installs what is missing, builds the tool, and makes the thumbnails of the
# bundled sample photo. Prints the tool's JSON report; the thumbnails land in
# out/sample (or the directory given as the first argument).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j2 --target thumbnail-tool >&2

out_dir=${1:-out/sample}
mkdir -p "$out_dir"
exec build/tool/thumbnail-tool/thumbnail-tool --output_dir "$out_dir" --src samples/sample.jpg
