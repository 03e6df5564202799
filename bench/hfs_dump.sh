#!/usr/bin/env bash
# Metadata dump of the largest HFS+ sample (16 MiB, made by macOS: nothing
# on Linux here makes HFS+ volumes), plain and with -data -fork, each against
# the lower bound: one sequential read of as many bytes as its image stores.
# mdsnap writes its image to /dev/null. Page cache warm; contenders
# alternate; medians. The volume is small, so process start-up weighs in:
# ROUNDS defaults to 21.
# Targets: mdsnap at most 1.5x the read; peak RSS at most the bitmap plus
# 16 MiB.
# Usage: bench/hfs_dump.sh [path/to/mdsnap]   (BENCH_DIR, ROUNDS, FIXTURES may be set)
set -euo pipefail
ROUNDS=${ROUNDS:-21}
source "$(dirname "$0")/lib.sh"
fixtures=${FIXTURES:-$bench_dir/../../shared/fixtures}
sample=$fixtures/hfsplus/hfsplus_rich_16m.img.zst
[ -f "$sample" ] || { echo "needs the sample $sample (FIXTURES=...)" >&2; exit 1; }
command -v zstd >/dev/null || { echo "needs zstd" >&2; exit 1; }
vol=hfsplus_rich_16m.img
unpack() { zstd -q -d -f -o "$1" "$sample"; }
cached "$vol" unpack
cat "$vol" > /dev/null   # warm the page cache

# stored ARGS...: the bytes an image made with ARGS stores (the lower bound's count).
stored() {
  rm -f out.mds
  "$bin" --dump --silent "$@" -f:out.mds "$vol" 2>/dev/null
  python3 "$bench_dir/imageruns.py" check out.mds "$vol" >/dev/null
  python3 "$bench_dir/imageruns.py" runs out.mds | awk '{s += $2} END {printf "%.0f", s}'
}
plain_bytes=$(stored)
content_bytes=$(stored -data -fork)
rm -f out.mds

rm -f ./*.times
plain() { run mdsnap_plain "$bin" --dump --silent -f:/dev/null "$vol"; }
plain_read() { run read_plain dd if="$vol" of=/dev/null bs=2M count="$plain_bytes" iflag=count_bytes; }
content() { run mdsnap_data_fork "$bin" --dump --silent -f:/dev/null -data -fork "$vol"; }
content_read() { run read_data_fork dd if="$vol" of=/dev/null bs=2M count="$content_bytes" iflag=count_bytes; }
rotate plain plain_read content content_read
table mdsnap_plain read_plain mdsnap_data_fork read_data_fork
r1=$(ratio mdsnap_plain read_plain) r2=$(ratio mdsnap_data_fork read_data_fork)
echo "time ratio mdsnap/read: plain ${r1}x, -data -fork ${r2}x (target <= 1.50x)"
blocks=$(( $(stat -c %s "$vol") / 4096 ))
bitmap_kib=$(( (blocks + 8 * 1024 - 1) / (8 * 1024) ))
echo "peak RSS target: bitmap (${bitmap_kib} KiB) + 16384 KiB = $((bitmap_kib + 16384)) KiB"
echo "image data bytes: plain $plain_bytes, -data -fork $content_bytes"
result "HFS+ 16 MiB sample" "reading the same bytes" "time" "$r1" 1.5
result "HFS+ 16 MiB sample, -data -fork" "reading the same bytes" "time" "$r2" 1.5
