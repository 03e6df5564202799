#!/usr/bin/env bash
# Metadata dump of a 4 GiB ext4 volume holding 200,000 files in 10,000
# directories against e2image -r writing its sparse raw metadata image.
# Page cache warm; contenders alternate; medians.
# Target: mdsnap no slower than e2image; image no larger than e2image's
# allocated bytes + 10%.
# Usage: bench/ext_dump.sh [path/to/mdsnap]   (BENCH_DIR, ROUNDS may be set)
set -euo pipefail
source "$(dirname "$0")/lib.sh"
files=200000
vol=ext4-200k.img
command -v e2image >/dev/null || { echo "needs e2image (e2fsprogs)" >&2; exit 1; }

# The tree is generated in $dir and copied in by mkfs, which needs no mount.
build() {
  rm -rf ext-tree
  echo "making $vol: generating $files files"
  python3 "$bench_dir/gentree.py" ext-tree "$files" ext
  truncate -s 4G "$1"
  echo "making $vol: mkfs.ext4 -d"
  mkfs.ext4 -F -q -L bench -d ext-tree "$1"
  rm -rf ext-tree
  e2fsck -fn "$1" >/dev/null 2>&1
}
cached "$vol" build
cat "$vol" > /dev/null   # warm the page cache

size_target=1.10 against_tool e2image out.raw e2image -r "$vol" out.raw
