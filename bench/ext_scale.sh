#!/usr/bin/env bash
# How the dump scales with the number of files: a 16 GiB ext4 volume with
# 800,000 files against the 4 GiB one with 200,000 (ext_dump.sh's). Page
# cache warm; the two dumps alternate; medians.
# Target: the large volume takes at most 4.4x the time of the small one, and
# its peak RSS exceeds the small one's by no more than its larger bitmap.
# Usage: bench/ext_scale.sh [path/to/mdsnap]   (BENCH_DIR, ROUNDS may be set)
set -euo pipefail
source "$(dirname "$0")/lib.sh"
command -v mkfs.ext4 >/dev/null || { echo "needs mkfs.ext4 (e2fsprogs)" >&2; exit 1; }
small=ext4-200k.img large=ext4-800k.img
cached "$small" build_ext 200000 4G
cached "$large" build_ext 800000 16G
cat "$small" "$large" > /dev/null   # warm the page cache

rm -f ./*.times
dump_small() { rm -f out.mds; run dump_200k "$bin" --dump --silent -f:out.mds "$small"; }
dump_large() { rm -f out.mds; run dump_800k "$bin" --dump --silent -f:out.mds "$large"; }
rotate dump_small dump_large
rm -f out.mds
table dump_200k dump_800k
# One bit per 4 KiB block.
bitmap_kib=$(( ((16 << 30) - (4 << 30)) / 4096 / 8 / 1024 ))
echo "time ratio 800k/200k $(ratio dump_800k dump_200k)x (target <= 4.40x)"
echo "peak RSS: 800k $(median dump_800k 2) KiB, 200k $(median dump_200k 2) KiB," \
     "difference allowed: the larger bitmap, $bitmap_kib KiB"
result "ext4 16 GiB, 800k files" "same, 200k files" time "$(ratio dump_800k dump_200k)" 4.40
result "ext4 16 GiB, 800k files" "same, 200k files" "peak RSS over 200k's + bitmap" \
       "$(awk -v a="$(median dump_800k 2)" -v b="$(median dump_200k 2)" -v m="$bitmap_kib" 'BEGIN {print a / (b + m)}')" 1.00
