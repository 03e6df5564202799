#!/usr/bin/env bash
# Metadata dump of a 4 GiB NTFS volume (4 KiB clusters) holding 200,000 files
# in 10,000 directories against ntfsclone --metadata --save-image writing to
# /dev/null, and against the lower bound: one sequential read of as many bytes
# as the mdsnap image stores. mdsnap writes its image to /dev/null too. Page
# cache warm; contenders alternate; medians.
# Targets: mdsnap at most 0.5x ntfsclone's time and 1.5x the lower bound; peak
# RSS at most the bitmap plus 16 MiB.
# Usage: bench/ntfs_dump.sh [path/to/mdsnap]   (BENCH_DIR, ROUNDS, NTFS_FILES,
# MDSNAP_ARGS may be set; MDSNAP_ARGS=-dd stands in for a missing scanner)
set -euo pipefail
ROUNDS=${ROUNDS:-5}
source "$(dirname "$0")/lib.sh"
files=${NTFS_FILES:-200000}
vol=ntfs-$((files / 1000))k.img
read -r -a extra <<< "${MDSNAP_ARGS:-}"
for tool in mkntfs ntfs-3g ntfsclone ntfsfix umount; do
  command -v $tool >/dev/null || { echo "needs $tool (ntfs-3g, util-linux)" >&2; exit 1; }
done

# The tree generator writes straight into the ntfs-3g mount: no staging copy
# to write, read back and delete. The driver runs in the foreground of a
# background job, so waiting for it means its last write is done.
mnt=$dir/ntfs-mnt driver=
detach() {
  if [ -n "$driver" ]; then
    mountpoint -q "$mnt" && umount "$mnt"
    wait "$driver" || true
    driver=
  fi
}
build() {
  truncate -s 4G "$1"
  mkntfs -q -F -f -L bench "$1" >/dev/null 2>&1
  mkdir -p "$mnt"
  trap detach EXIT
  ntfs-3g -o no_detach,big_writes "$1" "$mnt" >/dev/null 2>&1 &
  driver=$!
  until mountpoint -q "$mnt"; do sleep 0.1; done
  echo "making $vol: writing $files files through FUSE"
  python3 "$bench_dir/gentree.py" "$mnt/tree" "$files" ext
  detach
  trap - EXIT
  ntfsfix -n "$1" >/dev/null
}
cached "$vol" build
cat "$vol" > /dev/null   # warm the page cache

# One untimed dump gives the byte count of the lower bound and the image to check.
rm -f out.mds
"$bin" --dump --silent "${extra[@]}" -f:out.mds "$vol" 2>/dev/null
stored=$(python3 "$bench_dir/imageruns.py" runs out.mds | awk '{s += $2} END {printf "%.0f", s}')
clone_bytes=$(ntfsclone --metadata --save-image -o - "$vol" 2>/dev/null | wc -c)
clusters=$(( $(stat -c %s "$vol") / 4096 ))

warm_lower "$vol" "$stored" "$bin" --dump --silent -f:/dev/null "${extra[@]}" "$vol"
rm -f ./*.times
mine() { run mdsnap_dump "$bin" --dump --silent -f:/dev/null "${extra[@]}" "$vol"; }
clone() { run ntfsclone sh -c 'exec ntfsclone --metadata --save-image -o - "$1" > /dev/null' sh "$vol"; }
lower() { run read_bytes dd if="$vol" of=/dev/null bs=2M count="$stored" iflag=count_bytes; }
rotate mine clone lower
table mdsnap_dump ntfsclone read_bytes
echo "time ratio mdsnap/ntfsclone $(ratio mdsnap_dump ntfsclone)x (target <= 0.50x)," \
     "mdsnap/read_bytes $(ratio mdsnap_dump read_bytes)x (target <= 1.50x)"
bitmap_kib=$(( (clusters + 8 * 1024 - 1) / (8 * 1024) ))
echo "peak RSS target: bitmap (${bitmap_kib} KiB) + 16384 KiB = $((bitmap_kib + 16384)) KiB"
echo "image data bytes: mdsnap $stored (image file $(stat -c %s out.mds)), ntfsclone metadata image $clone_bytes"
fs="NTFS 4 GiB, 200k files"
result "$fs" "ntfsclone --metadata" time "$(ratio mdsnap_dump ntfsclone)" 0.50
result "$fs" "sequential read of the same bytes" time "$(ratio mdsnap_dump read_bytes)" 1.50
result "$fs" "bitmap + 16 MiB" "peak RSS" \
  "$(awk -v a="$(median mdsnap_dump 2)" -v b="$((bitmap_kib + 16384))" 'BEGIN {printf "%.3f", a / b}')" 1.00
python3 "$bench_dir/imageruns.py" check out.mds "$vol"
rm -f out.mds
