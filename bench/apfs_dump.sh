#!/usr/bin/env bash
# Metadata dump of APFS containers against the lower bound: one sequential
# read of as many bytes as the mdsnap image stores (there is no peer tool on
# Linux). Two containers: the largest shared macOS-made sample, and an empty
# 4 GiB container made by mkapfs (nothing here can put files into one).
# mdsnap writes its image to /dev/null. Page cache warm; contenders
# alternate; medians.
# Targets: mdsnap at most 1.5x the lower bound; peak RSS at most the bitmap
# plus 16 MiB.
# Usage: bench/apfs_dump.sh [path/to/mdsnap]   (BENCH_DIR, ROUNDS, FIXTURES may be set)
set -euo pipefail
ROUNDS=${ROUNDS:-7}
source "$(dirname "$0")/lib.sh"
fixtures=${FIXTURES:-$bench_dir/../../shared/fixtures}
for tool in mkapfs zstd; do
  command -v $tool >/dev/null || { echo "needs $tool (apfsprogs, zstd)" >&2; exit 1; }
done

# The largest sample by unpacked size.
sample= sample_bytes=0
for f in "$fixtures"/apfs/*.img.zst; do
  [ -f "$f" ] || continue
  bytes=$(zstd -dc "$f" | wc -c)
  if [ "$bytes" -gt "$sample_bytes" ]; then sample=$f sample_bytes=$bytes; fi
done
vols=()
if [ -n "$sample" ]; then
  unpack() { zstd -q -d -f "$sample" -o "$1"; }
  name=apfs-sample-$(basename "$sample" .img.zst).img
  cached "$name" unpack
  vols+=("$name")
else
  echo "no APFS sample under $fixtures: only the mkapfs container is measured"
fi
make4g() { truncate -s 4G "$1" && mkapfs -L bench "$1" >/dev/null; }
cached apfs-4g.img make4g
vols+=(apfs-4g.img)

for vol in "${vols[@]}"; do
  echo "== $vol ($(stat -c %s "$vol") bytes)"
  cat "$vol" > /dev/null   # warm the page cache
  # One untimed dump gives the byte count of the lower bound and the image to check.
  rm -f out.mds
  "$bin" --dump --silent -f:out.mds "$vol" 2>/dev/null
  stored=$(python3 "$bench_dir/imageruns.py" runs out.mds | awk '{s += $2} END {printf "%.0f", s}')
  blocks=$(( $(stat -c %s "$vol") / 4096 ))
  warm_lower "$vol" "$stored" "$bin" --dump --silent -f:/dev/null "$vol"
  rm -f ./*.times
  # Both started directly: a shell in front of one of them alone costs a
  # millisecond of a 10 ms run.
  mine() { run mdsnap_dump "$bin" --dump --silent -f:/dev/null "$vol"; }
  lower() { run read_bytes dd if="$vol" of=/dev/null bs=2M count="$stored" iflag=count_bytes; }
  rotate mine lower
  table mdsnap_dump read_bytes
  echo "time ratio mdsnap/read_bytes $(ratio mdsnap_dump read_bytes)x (target <= 1.50x)"
  result "APFS $vol" "read_bytes" time "$(ratio mdsnap_dump read_bytes)" 1.50
  bitmap_kib=$(( (blocks + 8 * 1024 - 1) / (8 * 1024) ))
  echo "peak RSS: $(median mdsnap_dump 2) KiB; target: bitmap (${bitmap_kib} KiB) + 16384 KiB = $((bitmap_kib + 16384)) KiB"
  echo "image data bytes: $stored (image file $(stat -c %s out.mds))"
  python3 "$bench_dir/imageruns.py" check out.mds "$vol"
  rm -f out.mds
done
