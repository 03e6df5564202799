#!/usr/bin/env bash
# Metadata dump of an 8 GiB exFAT volume (32 KiB clusters) holding 100,000
# files in 3,000 directories against exfat2img writing its sparse metadata
# image. Page cache warm; contenders alternate; medians.
# Target: mdsnap at most half exfat2img's time; image data (allocated bytes)
# no more than exfat2img's + 5%.
# Usage: bench/exfat_dump.sh [path/to/mdsnap]   (BENCH_DIR, ROUNDS may be set)
set -euo pipefail
source "$(dirname "$0")/lib.sh"
files=${EXFAT_FILES:-100000}
vol=exfat-$((files / 1000))k.img
for tool in exfat2img mkfs.exfat fsck.exfat mount.exfat-fuse losetup; do
  command -v $tool >/dev/null || { echo "needs $tool (exfatprogs, exfat-fuse, util-linux)" >&2; exit 1; }
done

# Written through the FUSE driver on a loop device: slow (several minutes),
# hence cached. A block device makes the unmount wait for the driver's flush.
loop= mnt=$dir/exfat-mnt
detach() {
  if [ -n "$loop" ]; then
    mountpoint -q "$mnt" && umount "$mnt"
    while fuser -s "$loop" 2>/dev/null; do sleep 0.2; done
    losetup -d "$loop"
    loop=
  fi
}
build() {
  rm -rf exfat-tree
  echo "making $vol: generating $files files"
  python3 "$bench_dir/gentree.py" exfat-tree "$files" exfat
  truncate -s 8G "$1"
  mkfs.exfat -L bench "$1" >/dev/null
  trap detach EXIT
  loop=$(losetup -f --show "$1")
  mkdir -p "$mnt"
  mount.exfat-fuse "$loop" "$mnt" 2>/dev/null
  echo "making $vol: copying through FUSE"
  tar -C exfat-tree -cf - . | tar -C "$mnt" -xvf - --no-same-owner --no-same-permissions |
    awk 'NR % 10000 == 0 {print "  " NR " entries copied"; fflush()}'
  detach
  trap - EXIT
  rm -rf exfat-tree
  fsck.exfat -n "$1" >/dev/null
}
cached "$vol" build
cat "$vol" > /dev/null   # warm the page cache

time_target=0.50 size_target=1.05 against_tool "exFAT 8 GiB, 100k files" exfat2img out.e2i exfat2img -o out.e2i "$vol"
