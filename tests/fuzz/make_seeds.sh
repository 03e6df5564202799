#!/usr/bin/env bash
# Writes the seed volumes and images of every fuzz target into OUT/<target>:
# the inputs earlier campaigns found new paths with (seeds/<target>.tar.zst),
# small volumes made by each file system's own tools, the repository's test
# volumes and the shared samples, each cut to the target's input limit, and
# images the tool dumps from them. Usage: make_seeds.sh OUT MDSNAP
set -euo pipefail
out=$1 mdsnap=$2
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../.." && pwd)
shared=$top/../shared
. "$here/limits.sh"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# cut TARGET NAME FILE: the first max_len bytes of FILE as a seed.
cut() {
  mkdir -p "$out/$1"
  head -c "$(max_len "$1")" "$3" >"$out/$1/$2"
}
mk() { # mk TARGET NAME SIZE_KIB COMMAND...: a fresh volume made by COMMAND (volume path last)
  local t=$1 n=$2 kib=$3; shift 3
  truncate -s "${kib}K" "$tmp/$n"
  if "$@" "$tmp/$n" >/dev/null 2>&1; then cut "$t" "$n" "$tmp/$n"; else echo "skipped seed $n: $1 failed or is missing"; fi
}
for t in fat exfat ext ntfs apfs hfs btrfs image; do
  mkdir -p "$out/$t"
  [ -f "$here/seeds/$t.tar.zst" ] && zstd -dc "$here/seeds/$t.tar.zst" | tar -C "$out/$t" -xf -
done

mk fat fat12 256 mkfs.fat -F 12
mk fat fat16 4096 mkfs.fat -F 16 -s 1
mk fat fat32 1024 mkfs.fat -F 32 -s 1 -S 512 -a
mk exfat exfat 4096 mkfs.exfat
mk ext ext2 256 mke2fs -q -F -t ext2 -b 1024 -N 32
mk ext ext4 1024 mke2fs -q -F -t ext4 -b 1024 -N 64
mk ntfs ntfs 2048 mkntfs -q -F -f -c 512
mk btrfs btrfs 16384 mkfs.btrfs -q -f -M -n 4096

# sample SUBDIR TARGET: the repository's and the shared samples of one file system.
sample() {
  mkdir -p "$out/$2"
  for f in "$top"/tests/data/"$1"*.img.zst "$shared"/fixtures/"$1"/*.img.zst "$shared"/corpus/"$1"/*.img.zst; do
    [ -f "$f" ] || continue
    # Only the first max_len bytes are kept; no need to unpack the rest.
    zstd -dc "$f" 2>/dev/null | head -c "$(max_len "$2")" >"$tmp/cut" || true
    [ -s "$tmp/cut" ] && mv "$tmp/cut" "$out/$2/$(basename "$f" .img.zst)"
  done
}
sample fat fat
sample exfat exfat
sample ext ext
sample ntfs ntfs
# mkapfs makes nothing small enough: the APFS seeds are the samples.
sample apfs apfs
sample hfsplus hfs
sample hfsx hfs
sample btrfs btrfs

# Images of the made volumes, through the tool itself.
mkdir -p "$out/image"
for v in "$tmp"/fat12 "$tmp"/fat16 "$tmp"/exfat "$tmp"/ext2 "$tmp"/ntfs "$tmp"/btrfs; do
  [ -f "$v" ] || continue
  "$mdsnap" --dump --silent -f:"$tmp/img" "$v" >/dev/null 2>&1 || continue
  cut image "$(basename "$v").mds" "$tmp/img"
  rm -f "$tmp/img"
done
