#!/usr/bin/env bash
# Metadata dump of a 4 GiB Btrfs volume holding 200,000 files in 10,000
# directories (built by mkfs.btrfs --rootdir, no mount needed) against
# btrfs-image -c0 writing to /dev/null, and against the lower bound: one
# sequential read of as many bytes as the mdsnap image stores. mdsnap writes
# its image to /dev/null too. Page cache warm; contenders alternate; medians.
# Targets: mdsnap at most 0.5x btrfs-image's time and 1.5x the lower bound;
# peak RSS at most the bitmap plus 16 MiB; image data at most btrfs-image's
# plus 5%.
# Usage: bench/btrfs_dump.sh [path/to/mdsnap]   (BENCH_DIR, ROUNDS, BTRFS_FILES)
set -euo pipefail
ROUNDS=${ROUNDS:-5}
source "$(dirname "$0")/lib.sh"
files=${BTRFS_FILES:-200000}
vol=btrfs-$((files / 1000))k.img
for tool in mkfs.btrfs btrfs btrfs-image; do
  command -v $tool >/dev/null || { echo "needs $tool (btrfs-progs)" >&2; exit 1; }
done

build() {
  local tree=btrfs-tree-$files
  rm -rf "$tree"
  echo "making $vol: generating $files files"
  python3 "$bench_dir/gentree.py" "$tree" "$files" ext
  truncate -s 4G "$1"
  echo "making $vol: mkfs.btrfs --rootdir"
  mkfs.btrfs -q -f -L bench --rootdir "$tree" "$1" >/dev/null
  rm -rf "$tree"
  btrfs check --readonly "$1" >/dev/null 2>&1
}
cached "$vol" build
cat "$vol" > /dev/null   # warm the page cache

# One untimed dump gives the byte count of the lower bound and the image to check.
rm -f out.mds
"$bin" --dump --silent -f:out.mds "$vol" 2>/dev/null
stored=$(python3 "$bench_dir/imageruns.py" runs out.mds | awk '{s += $2} END {printf "%.0f", s}')
peer_bytes=$(btrfs-image -c0 "$vol" - 2>/dev/null | wc -c)
sectors=$(( $(stat -c %s "$vol") / 4096 ))

warm_lower "$vol" "$stored" "$bin" --dump --silent -f:/dev/null "$vol"
rm -f ./*.times
mine() { run mdsnap_dump "$bin" --dump --silent -f:/dev/null "$vol"; }
# btrfs-image drops the volume's cached pages when it closes it, so the
# pages are read back (untimed) before whoever runs next.
peer() {
  run btrfs_image sh -c 'exec btrfs-image -c0 "$1" - > /dev/null' sh "$vol"
  warm_lower "$vol" "$stored" "$bin" --dump --silent -f:/dev/null "$vol"
}
lower() { run read_bytes dd if="$vol" of=/dev/null bs=2M count="$stored" iflag=count_bytes; }
rotate mine peer lower
table mdsnap_dump btrfs_image read_bytes
echo "time ratio mdsnap/btrfs-image $(ratio mdsnap_dump btrfs_image)x (target <= 0.50x)," \
     "mdsnap/read_bytes $(ratio mdsnap_dump read_bytes)x (target <= 1.50x)"
bitmap_kib=$(( (sectors + 8 * 1024 - 1) / (8 * 1024) ))
echo "peak RSS target: bitmap (${bitmap_kib} KiB) + 16384 KiB = $((bitmap_kib + 16384)) KiB"
echo "image data bytes: mdsnap $stored (image file $(stat -c %s out.mds)), btrfs-image -c0 $peer_bytes"
fs="Btrfs 4 GiB, $((files / 1000))k files"
result "$fs" "btrfs-image -c0" time "$(ratio mdsnap_dump btrfs_image)" 0.50
result "$fs" "sequential read of the same bytes" time "$(ratio mdsnap_dump read_bytes)" 1.50
result "$fs" "btrfs-image -c0" "image data" "$(awk -v a="$stored" -v b="$peer_bytes" 'BEGIN {printf "%.3f", a / b}')" 1.05
result "$fs" "bitmap + 16 MiB" "peak RSS" \
  "$(awk -v a="$(median mdsnap_dump 2)" -v b="$((bitmap_kib + 16384))" 'BEGIN {printf "%.3f", a / b}')" 1.00
python3 "$bench_dir/imageruns.py" check out.mds "$vol"
rm -f out.mds
