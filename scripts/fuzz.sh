#!/usr/bin/env bash
# Builds the fuzz targets with clang and runs one or all of them.
# Usage: scripts/fuzz.sh [fat|exfat|ext|ntfs|apfs|hfs|btrfs|image|all] [seconds per target] [max executions]
# (a campaign: scripts/fuzz.sh all 1800 5000000 stops each target at 30 minutes
# or five million executions, whichever comes first)
# Corpora grow in build-fuzz/corpus/<target>; a crash lands in
# build-fuzz/crashes/<target>/ (keep it in tests/fuzz/regressions/<target>/).
set -euo pipefail
cd "$(dirname "$0")/.."
which=${1:-all} seconds=${2:-30} runs=${3:--1}
targets=(fat exfat ext ntfs apfs hfs btrfs image)
[ "$which" = all ] || targets=("$which")
. tests/fuzz/limits.sh

dir=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMDSNAP_FUZZ=ON \
  -DMDSNAP_TESTS=OFF >/dev/null
cmake --build "$dir" -j 2 --target mdsnap $(printf 'fuzz_%s ' "${targets[@]}")

seeds=$dir/seeds
[ -d "$seeds" ] || bash tests/fuzz/make_seeds.sh "$seeds" "$dir/mdsnap"

export ASAN_OPTIONS=detect_leaks=1:quarantine_size_mb=16:malloc_context_size=20
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
status=0
for t in "${targets[@]}"; do
  mkdir -p "$dir/corpus/$t" "$dir/crashes/$t"
  echo "== fuzz_$t for ${seconds}s"
  regress=tests/fuzz/regressions/$t
  # The image target runs the tool's own code, which reports every bad image
  # on standard error; the fuzzer's own report still comes through.
  quiet=()
  [ "$t" = image ] && quiet=(-close_fd_mask=2)
  set -- "$dir/corpus/$t" "$seeds/$t"
  [ -d "$regress" ] && set -- "$@" "$regress"
  "$dir/fuzz/fuzz_$t" -max_total_time="$seconds" -runs="$runs" -max_len="$(max_len "$t")" \
    -rss_limit_mb="$(rss_limit_mb "$t")" -malloc_limit_mb="$(malloc_limit_mb "$t")" \
    -timeout="$(timeout_s "$t")" -dict=tests/fuzz/"$t".dict -print_final_stats=1 \
    -artifact_prefix="$dir/crashes/$t/" "${quiet[@]}" "$@" 2>&1 | grep -vE '^#[0-9]+\s+(NEW|REDUCE|pulse)' || true
  if [ -n "$(ls -A "$dir/crashes/$t")" ]; then
    echo "fuzz_$t: findings in $dir/crashes/$t"
    status=1
  fi
done
exit $status
