#!/usr/bin/env bash
# Runs every bench script here, one after another, and prints one table of
# what they measured against their targets. A script that cannot run on this
# machine (a missing tool, no root for a loop device) is listed as skipped.
# Usage: bench/all.sh [path/to/mdsnap]   (BENCH_DIR, ROUNDS may be set; SKIP
# names scripts to list as skipped, e.g. SKIP=ext_scale while its volume is
# still being built elsewhere)
set -uo pipefail
here=$(dirname "$(readlink -f "$0")")
bin=$(readlink -f "${1:-${MDSNAP:-./build/mdsnap}}")
export ROUNDS=${ROUNDS:-5}
logs=$(mktemp -d)
scripts=(ext_dump exfat_dump fat32_dump raw_dump big_empty ext_scale)
[ -f "$here/ntfs_dump.sh" ] && scripts+=(ntfs_dump)
[ -f "$here/btrfs_dump.sh" ] && scripts+=(btrfs_dump)
scripts+=(apfs_dump hfs_dump)
for s in "${scripts[@]}"; do
  echo "== $s" >&2
  if [[ " ${SKIP:-} " == *" $s "* ]]; then
    echo "$s: skipped or failed: skipped on request (SKIP)"
    continue
  fi
  if "$here/$s.sh" "$bin" > "$logs/$s.log" 2>&1; then
    # A script without result lines has its ratio lines shown as they are.
    grep -E '^(result|reported|skipped):' "$logs/$s.log" | sed "s/^/$s: /" ||
      grep -i 'ratio' "$logs/$s.log" | sed "s/^/$s: reported: /"
  else
    echo "$s: skipped or failed: $(tail -n1 "$logs/$s.log")"
  fi
  cat "$logs/$s.log" >&2
done > "$logs/summary"
echo
printf '%-12s | %-28s | %-34s | %-10s | %-7s | %-8s | %s\n' script "file system" peer what ratio target met
sed -n 's/^\([a-z0-9_]*\): result: \(.*\)$/\1 | \2/p' "$logs/summary" |
  awk -F' \\| ' '{printf "%-12s | %-28s | %-34s | %-10s | %-7s | %-8s | %s\n", $1, $2, $3, $4, $5, $6, $7}'
grep -E ": (reported|skipped)" "$logs/summary" || true
echo "load average while measuring: $(cut -d' ' -f1-3 /proc/loadavg) (other work on the machine adds noise)"
rm -rf "$logs"
