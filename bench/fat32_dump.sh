#!/usr/bin/env bash
# Metadata dump of a 4 GiB FAT32 volume (4 KiB clusters) holding 150,000 files
# in 7,500 directories against the least any dump must do: one process that
# reads the bytes the mdsnap image stores (everything in front of the data
# area, that is boot and reserved sectors and both FATs, plus every directory
# cluster), run by run in pieces of at most 2 MiB, and writes them to one
# file. The run list comes from an image made before the timed rounds.
# Page cache warm; contenders alternate; medians. Target: 1.5x that reader.
# Usage: bench/fat32_dump.sh [path/to/mdsnap]   (BENCH_DIR, ROUNDS may be set)
set -euo pipefail
source "$(dirname "$0")/lib.sh"
files=${FAT_FILES:-150000}
vol=fat32-$((files / 1000))k.img
for tool in mkfs.vfat mcopy fsck.fat; do
  command -v $tool >/dev/null || { echo "needs $tool (dosfstools, mtools)" >&2; exit 1; }
done

# Written offline with mtools, no mount needed.
build() {
  rm -rf fat-tree
  echo "making $vol: generating $files files"
  python3 "$bench_dir/gentree.py" fat-tree "$files" fat
  truncate -s 4G "$1"
  mkfs.vfat -F 32 -n BENCH "$1" >/dev/null
  echo "making $vol: mcopy -s"
  (cd fat-tree && MTOOLS_SKIP_CHECK=1 mcopy -s -m -Q -i "$dir/$1" ./* ::/)
  rm -rf fat-tree
  fsck.fat -n "$1" >/dev/null
}
cached "$vol" build
cat "$vol" > /dev/null   # warm the page cache

"$bin" --dump --silent -f:out.mds "$vol" 2>/dev/null
python3 "$bench_dir/imageruns.py" runs out.mds > runs.txt
field() { od -An -t"$1" -j"$2" -N"$3" "$vol" | tr -d ' '; }
front=$(( ($(field u2 14 2) + $(field u1 16 1) * $(field u4 36 4)) * $(field u2 11 2) ))
awk -v front="$front" '{
    runs++; below = $1 >= front ? 0 : ($1 + $2 <= front ? $2 : front - $1); a += below; b += $2 - below }
  END { printf "baseline reads %d runs: %.0f bytes in front of the data area + %.0f bytes of directory clusters\n",
               runs, a, b }' runs.txt

rm -f ./*.times
mine() { rm -f out.mds; run mdsnap_dump "$bin" --dump --silent -f:out.mds "$vol"; }
reader() { rm -f out.cat; run read_runs "$python" -S "$bench_dir/imageruns.py" read "$vol" runs.txt out.cat; }
start() { run python_start "$python" -S -c pass; }
rotate mine reader start
table mdsnap_dump read_runs python_start
echo "time ratio mdsnap/read_runs $(ratio mdsnap_dump read_runs)x (target <= 1.50x;" \
     "python_start: the interpreter's own share)"
result "FAT32 4 GiB, 150k files" "sequential read of the same runs" time "$(ratio mdsnap_dump read_runs)" 1.50
echo "image bytes: mdsnap $(stat -c %s out.mds) (file size), $(allocated out.mds) allocated; read_runs $(stat -c %s out.cat)"
python3 "$bench_dir/imageruns.py" check out.mds "$vol"
rm -f out.mds out.cat runs.txt
