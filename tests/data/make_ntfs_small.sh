#!/bin/bash
# Builds tests/data/ntfs_small.img.zst, the populated NTFS volume the NTFS
# scanner tests use where FUSE is not at hand. Needs mkntfs and ntfs-3g
# (package ntfs-3g) and root for the FUSE mount.
#   /marker.bin       64 KiB of a repeated marker text (a non-resident $DATA)
#   /x/$Extend/       1000 empty files: a two-level $I30 index, and a
#                     directory whose record the tests move into record 11
#   /links/target     and 40 hard links to it: its record overflows into an
#                     attribute list with an extension record
#   /dir/sub/a.txt    a small resident file
set -euo pipefail
out="$(cd "$(dirname "$0")" && pwd)/ntfs_small.img.zst"
work=$(mktemp -d)
trap 'umount "$work/mnt" 2>/dev/null || true; rm -rf "$work"' EXIT
truncate -s 16M "$work/v.img"
mkntfs -F -q -Q -c 4096 -L small "$work/v.img" >/dev/null 2>&1
mkdir "$work/mnt"
ntfs-3g "$work/v.img" "$work/mnt"
head -c 65536 < <(yes MDSNAPMARKER) > "$work/mnt/marker.bin"
mkdir -p "$work/mnt/x/\$Extend" "$work/mnt/links" "$work/mnt/dir/sub"
(cd "$work/mnt/x/\$Extend" && seq -w 1 1000 | sed 's/^/f/' | xargs touch)
echo target > "$work/mnt/links/target"
for i in $(seq 1 40); do ln "$work/mnt/links/target" "$work/mnt/links/hard_link_with_a_longer_name_$i"; done
echo a > "$work/mnt/dir/sub/a.txt"
umount "$work/mnt"
zstd -q -19 -f "$work/v.img" -o "$out"
ls -l "$out"
