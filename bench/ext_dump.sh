#!/usr/bin/env bash
# Metadata dump of a 4 GiB ext4 volume holding 200,000 files in 10,000
# directories against e2image -r writing its sparse raw metadata image.
# Page cache warm; contenders alternate; medians.
# Target: mdsnap at most half e2image's time; image data (allocated bytes)
# no more than e2image's + 5%.
# Usage: bench/ext_dump.sh [path/to/mdsnap]   (BENCH_DIR, ROUNDS may be set)
set -euo pipefail
source "$(dirname "$0")/lib.sh"
files=200000
vol=ext4-200k.img
command -v e2image >/dev/null || { echo "needs e2image (e2fsprogs)" >&2; exit 1; }

cached "$vol" build_ext "$files" 4G
cat "$vol" > /dev/null   # warm the page cache

time_target=0.50 size_target=1.05 against_tool "ext4 4 GiB, 200k files" e2image out.raw e2image -r "$vol" out.raw
