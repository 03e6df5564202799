#!/bin/bash
# Builds tests/data/btrfs_small.img.zst, the Btrfs volume the scanner tests
# damage, so they run without root or btrfs-progs. Needs mkfs.btrfs
# (package btrfs-progs), a kernel with btrfs and root for the loop mount.
#   4 KiB nodes, DUP metadata (every node has two copies), crc32c
#   /files/       300 small files (inline) and 20 of 16 KiB: a two-level fs tree
#   /sv           a subvolume, and /snap a read-only snapshot of it taken
#                 before sv changed: the two trees share nodes
#   /logged_*     written and fsync'd just before the copy: the copy's
#                 superblock names a log root tree
set -euo pipefail
out="$(cd "$(dirname "$0")" && pwd)/btrfs_small.img.zst"
work=$(mktemp -d)
loop=""
trap 'umount "$work/mnt" 2>/dev/null || true; [ -n "$loop" ] && losetup -d "$loop"; rm -rf "$work"' EXIT
truncate -s 128M "$work/v.img"
mkfs.btrfs -q -f -n 4096 -U 5eb1a5e5-0000-4000-8000-00000000b7f5 "$work/v.img"
mkdir "$work/mnt"
loop=$(losetup -f --show "$work/v.img")
mount -o commit=300 "$loop" "$work/mnt"
mkdir "$work/mnt/files"
for i in $(seq -w 1 300); do echo "small file $i" > "$work/mnt/files/small_$i.txt"; done
for i in $(seq -w 1 20); do head -c 16384 < <(yes "block $i") > "$work/mnt/files/big_$i.bin"; done
btrfs -q subvolume create "$work/mnt/sv"
for i in $(seq -w 1 200); do echo "in subvolume $i" > "$work/mnt/sv/entry_with_a_long_name_$i.txt"; done
sync
btrfs -q subvolume snapshot -r "$work/mnt/sv" "$work/mnt/snap"
echo changed > "$work/mnt/sv/entry_with_a_long_name_001.txt"
sync
for i in 1 2 3; do
  echo "logged $i" > "$work/mnt/logged_$i"
  python3 -c "import os,sys; fd=os.open(sys.argv[1], os.O_RDONLY); os.fsync(fd)" "$work/mnt/logged_$i"
done
cp --sparse=always "$work/v.img" "$work/copy.img"
umount "$work/mnt"
zstd -q -19 -f "$work/copy.img" -o "$out"
ls -l "$out"
