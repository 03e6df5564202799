#!/usr/bin/env bash
# Big and empty: freshly made, sparse 1 TiB volumes of ext4, exFAT and FAT32.
# mdsnap against e2image -r and exfat2img -o where they exist; FAT32 has no
# such peer, so its time and image size are reported as they are. Page cache
# warm; contenders alternate; medians.
# Target: mdsnap at most half the peer's time; image data (allocated bytes)
# no more than the peer's + 5%.
# Usage: bench/big_empty.sh [path/to/mdsnap]   (BENCH_DIR, ROUNDS may be set)
set -euo pipefail
source "$(dirname "$0")/lib.sh"

make_ext() { truncate -s 1T "$1"; mkfs.ext4 -F -q -L big "$1"; }
make_exfat() { truncate -s 1T "$1"; mkfs.exfat -L big "$1" >/dev/null; }
make_fat() { truncate -s 1T "$1"; mkfs.vfat -F 32 -n BIG "$1" >/dev/null; }

# one FS VOLUME MAKER PEER OUTPUT COMMAND...: a peer-less run when PEER is "-".
one() {
  local fs=$1 volume=$2 maker=$3 peer=$4 output=${5:-}; shift $(($# < 5 ? $# : 5))
  vol=$volume
  cached "$vol" "$maker"
  if [ "$peer" = - ]; then
    rm -f ./*.times
    mine() { rm -f out.mds; run mdsnap_dump "$bin" --dump --silent -f:out.mds "$vol"; }
    rotate mine
    table mdsnap_dump
    echo "image: $(stat -c %s out.mds) bytes, $(allocated out.mds) allocated"
    echo "reported: $fs | mdsnap $(median mdsnap_dump 1) s | image $(stat -c %s out.mds) bytes," \
         "$(allocated out.mds) allocated"
    python3 "$bench_dir/imageruns.py" check out.mds "$vol"
    rm -f out.mds
  else
    time_target=0.50 size_target=1.05 against_tool "$fs" "$peer" "$output" "$@"
  fi
}

if command -v mkfs.ext4 >/dev/null && command -v e2image >/dev/null; then
  echo "== ext4"
  one "ext4 1 TiB, empty" big-ext4.img make_ext e2image out.raw e2image -r big-ext4.img out.raw
else
  echo "skipped: ext4 1 TiB, empty (needs mkfs.ext4 and e2image)"
fi
if command -v mkfs.exfat >/dev/null && command -v exfat2img >/dev/null; then
  echo "== exFAT"
  one "exFAT 1 TiB, empty" big-exfat.img make_exfat exfat2img out.e2i exfat2img -o out.e2i big-exfat.img
else
  echo "skipped: exFAT 1 TiB, empty (needs mkfs.exfat and exfat2img)"
fi
if command -v mkfs.vfat >/dev/null; then
  echo "== FAT32"
  one "FAT32 1 TiB, empty" big-fat32.img make_fat -
else
  echo "skipped: FAT32 1 TiB, empty (needs mkfs.vfat)"
fi
