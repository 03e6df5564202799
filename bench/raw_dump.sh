#!/usr/bin/env bash
# Raw dump and restore of a 2 GiB volume file against dd moving the same
# bytes with 2 MiB transfers. Page cache warm; contenders alternate; medians.
# The dd restores copy the stored blocks out of the same image as mdsnap
# (they start at its 4096th byte). The restore flushes its target to disk
# before it ends, so it is compared with dd conv=fsync; plain dd shows what
# that flush costs.
# Target: mdsnap within 1.1x of dd, peak RSS under bitmap + 16 MiB.
# Usage: bench/raw_dump.sh [path/to/mdsnap]   (BENCH_DIR, ROUNDS may be set)
set -euo pipefail
source "$(dirname "$0")/lib.sh"
if [ "$(stat -c %s raw2g.img 2>/dev/null || echo 0)" != $((2 << 30)) ]; then
  echo "making raw2g.img (2 GiB of random bytes, fully allocated)"
  head -c $((2 << 30)) /dev/urandom > raw2g.img
fi
cat raw2g.img > /dev/null   # warm the page cache

rm -f ./*.times
mdsnap_dump() { rm -f out.mds; run mdsnap_dump "$bin" --dump -dd --silent -f:out.mds raw2g.img; }
dd_dump() { rm -f out.dd; run dd_dump dd if=raw2g.img of=out.dd bs=2M; }
mdsnap_restore() { rm -f target.img; run mdsnap_restore "$bin" --restore -c --silent -f:out.mds target.img; }
dd_restore() { rm -f target.dd; run dd_restore dd if=out.mds of=target.dd bs=2M iflag=skip_bytes skip=4096; }
dd_restore_fsync() {
  rm -f target.dd; run dd_restore_fsync dd if=out.mds of=target.dd bs=2M iflag=skip_bytes skip=4096 conv=fsync
}
# Dumps, then restores, each group in turn, so that every restore is the one
# right after a dump equally often.
for ((r = 0; r < rounds; r++)); do
  in_turn "$r" mdsnap_dump dd_dump
  in_turn "$r" mdsnap_restore dd_restore dd_restore_fsync
done
bitmap_kib=$(( ((2 << 30) >> 20) / 8 / 1024 + 1 ))   # one bit per 1 MiB block
table mdsnap_dump dd_dump mdsnap_restore dd_restore dd_restore_fsync
echo "dump ratio $(ratio mdsnap_dump dd_dump)x, restore ratio $(ratio mdsnap_restore dd_restore_fsync)x" \
     "against dd conv=fsync, $(ratio mdsnap_restore dd_restore)x against plain dd (target <= 1.10x)"
result "raw 2 GiB, -dd dump" "dd bs=2M" time "$(ratio mdsnap_dump dd_dump)" 1.10
result "raw 2 GiB, restore -c" "dd bs=2M conv=fsync" time "$(ratio mdsnap_restore dd_restore_fsync)" 1.10
echo "peak RSS target: bitmap (${bitmap_kib} KiB) + 16384 KiB = $((bitmap_kib + 16384)) KiB"
cmp -s raw2g.img target.img && echo "restored file equals the source" || { echo "restored file DIFFERS" >&2; exit 1; }
cmp -s raw2g.img target.dd || { echo "dd's restored file DIFFERS" >&2; exit 1; }
rm -f out.mds out.dd target.img target.dd
