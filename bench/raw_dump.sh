#!/usr/bin/env bash
# Raw dump and restore of a 2 GiB volume file against dd moving the same
# bytes with 2 MiB transfers. Page cache warm; contenders alternate; medians.
# Target: mdsnap within 1.25x of dd, peak RSS under bitmap + 16 MiB.
# Usage: bench/raw_dump.sh [path/to/mdsnap]   (BENCH_DIR, ROUNDS may be set)
set -euo pipefail
bin=$(readlink -f "${1:-${MDSNAP:-./build/mdsnap}}")
dir=${BENCH_DIR:-/tmp/mdsnap-bench}
rounds=${ROUNDS:-3}
[ -x /usr/bin/time ] || { echo "needs /usr/bin/time (apt-get install time)" >&2; exit 1; }
mkdir -p "$dir" && cd "$dir"
if [ "$(stat -c %s raw2g.img 2>/dev/null || echo 0)" != $((2 << 30)) ]; then
  echo "making raw2g.img (2 GiB of random bytes, fully allocated)"
  head -c $((2 << 30)) /dev/urandom > raw2g.img
fi
cat raw2g.img > /dev/null   # warm the page cache

# run NAME COMMAND...: appends "seconds peak_kib" to NAME.times
run() {
  local name=$1; shift
  /usr/bin/time -f "%e %M" -o "$name.one" "$@" >/dev/null 2>&1
  cat "$name.one" >> "$name.times"
}
rm -f ./*.times
for _ in $(seq "$rounds"); do
  rm -f out.mds; run mdsnap_dump "$bin" --dump -dd --silent -f:out.mds raw2g.img
  rm -f out.dd;  run dd_dump dd if=raw2g.img of=out.dd bs=2M
  rm -f target.img; run mdsnap_restore "$bin" --restore -c --silent -f:out.mds target.img
  rm -f target.dd; run dd_restore dd if=out.dd of=target.dd bs=2M
done
median() { sort -n -k"$2" "$1.times" | awk -v c="$2" '{v[NR]=$c} END {print v[int((NR+1)/2)]}'; }
bitmap_kib=$(( ((2 << 30) >> 20) / 8 / 1024 + 1 ))   # one bit per 1 MiB block
printf '%-16s %10s %12s\n' what "median s" "peak RSS KiB"
for n in mdsnap_dump dd_dump mdsnap_restore dd_restore; do
  printf '%-16s %10s %12s\n' "$n" "$(median $n 1)" "$(median $n 2)"
done
awk -v a="$(median mdsnap_dump 1)" -v b="$(median dd_dump 1)" -v c="$(median mdsnap_restore 1)" \
    -v d="$(median dd_restore 1)" 'BEGIN {printf "dump ratio %.2fx, restore ratio %.2fx (target <= 1.25x)\n", a/b, c/d}'
echo "peak RSS target: bitmap (${bitmap_kib} KiB) + 16384 KiB = $((bitmap_kib + 16384)) KiB"
cmp -s raw2g.img target.img && echo "restored file equals the source" || { echo "restored file DIFFERS" >&2; exit 1; }
rm -f out.mds out.dd target.img target.dd
