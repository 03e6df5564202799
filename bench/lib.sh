# Sourced by the benchmark scripts: settings, timing and medians.
# Sets bin (absolute path of mdsnap, from $1), dir ($BENCH_DIR) and rounds
# ($ROUNDS), then works in $dir.
bench_dir=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
bin=$(readlink -f "${1:-${MDSNAP:-./build/mdsnap}}")
dir=${BENCH_DIR:-/tmp/mdsnap-bench}
rounds=${ROUNDS:-3}
[ -x /usr/bin/time ] || { echo "needs /usr/bin/time (apt-get install time)" >&2; exit 1; }
[ -x "$bin" ] || { echo "no mdsnap binary at $bin" >&2; exit 1; }
mkdir -p "$dir" && cd "$dir"
# Every script keeps its timings and outputs under fixed names in $dir: two
# benches at once in one folder would read each other's files, so the second
# waits for the first.
exec 9>"$dir/.bench.lock"
flock 9

# run NAME COMMAND...: appends "seconds peak_kib" to NAME.times; the output
# goes to NAME.log and is shown when the command fails. Seconds come from the
# shell's clock (milliseconds), the peak RSS from /usr/bin/time. Dirty pages
# of the previous contender are written back first, so that their writeback
# is not charged to this one.
run() {
  local name=$1; shift
  sync
  local start=$EPOCHREALTIME
  if ! /usr/bin/time -f "%M" -o "$name.one" "$@" >"$name.log" 2>&1; then
    echo "$name failed: $*" >&2
    cat "$name.log" >&2
    exit 1
  fi
  local end=$EPOCHREALTIME
  awk -v s="$start" -v e="$end" -v m="$(tail -n1 "$name.one")" 'BEGIN {printf "%.3f %s\n", e - s, m}' >> "$name.times"
}

# in_turn ROUND FUNCTION...: each contender once, starting ROUND places
# along the list, so that over the rounds every contender takes every place
# and follows every other one: here the run right after a big write is often
# several times slower, whoever it is.
in_turn() {
  local r=$1; shift
  local fns=("$@") i
  for ((i = 0; i < $#; i++)); do "${fns[(r + i) % $#]}"; done
}

# rotate FUNCTION...: $rounds rounds of in_turn.
rotate() {
  local r
  for ((r = 0; r < rounds; r++)); do in_turn "$r" "$@"; done
}

# median NAME COLUMN: column 1 is seconds, column 2 peak RSS in KiB.
median() { sort -n -k"$2" "$1.times" | awk -v c="$2" '{v[NR]=$c} END {print v[int((NR+1)/2)]}'; }

# warm_lower VOLUME BYTES COMMAND...: reads the volume's first BYTES (what
# the lower bound reads) and runs COMMAND, twice each, right before the
# rounds. A volume file larger than the page cache can keep (holes read as
# cached zero pages) loses its first pages to its own warming read, and the
# lower bound would then time the disk; pages read twice stay.
warm_lower() {
  local vol=$1 bytes=$2; shift 2
  local i
  for i in 1 2; do
    dd if="$vol" of=/dev/null bs=2M count="$bytes" iflag=count_bytes 2>/dev/null
    "$@" >/dev/null 2>&1
  done
}

# allocated FILE: bytes the file occupies on disk (sparse files count less).
allocated() { echo $(( $(stat -c '%b * %B' "$1") )); }

# table NAME...: median seconds and peak RSS of each contender.
table() {
  printf '%-16s %10s %12s\n' what "median s" "peak RSS KiB"
  local n
  for n in "$@"; do printf '%-16s %10s %12s\n' "$n" "$(median "$n" 1)" "$(median "$n" 2)"; done
}

# ratio A B: median seconds of A over those of B.
ratio() { awk -v a="$(median "$1" 1)" -v b="$(median "$2" 1)" 'BEGIN {printf "%.2f", (b > 0 ? a / b : 0)}'; }

# The interpreter itself, not a wrapper script in front of it, and without
# site packages: its start-up is part of what a baseline in Python costs.
python=$(python3 -c 'import sys; print(sys.executable)')

# cached FILE BUILDER...: runs BUILDER with FILE.part as its last argument
# unless FILE exists, then renames the result, so an interrupted build is
# never taken for a finished volume.
cached() {
  local file=$1; shift
  [ -f "$file" ] && return 0
  rm -f "$file.part"
  local start=$SECONDS
  "$@" "$file.part"
  mv "$file.part" "$file"
  echo "built $file in $((SECONDS - start)) s"
}

# against_tool FS NAME OUTPUT COMMAND...: rounds of mdsnap dumping $vol into
# out.mds alternating with COMMAND, a tool writing the sparse image OUTPUT;
# then times, sizes (targets $time_target, $size_target) and the image check.
# Both images are sparse: their sizes are compared as allocated bytes.
against_tool() {
  local fs=$1 name=$2 output=$3; shift 3
  local cmd=("$@")
  rm -f ./*.times
  mine() { rm -f out.mds; run mdsnap_dump "$bin" --dump --silent -f:out.mds "$vol"; }
  theirs() { rm -f "$output"; run "$name" "${cmd[@]}"; }
  rotate mine theirs
  table mdsnap_dump "$name"
  local tr sr
  tr=$(ratio mdsnap_dump "$name")
  sr=$(awk -v a="$(allocated out.mds)" -v b="$(allocated "$output")" 'BEGIN {printf "%.3f", a / b}')
  echo "time ratio mdsnap/$name ${tr}x (target <= ${time_target}x)"
  echo "image bytes allocated: mdsnap $(allocated out.mds) ($(stat -c %s out.mds) apparent)," \
       "$name $(allocated "$output") ($(stat -c %s "$output") apparent); ratio $sr (target <= $size_target)"
  result "$fs" "$name" time "$tr" "$time_target"
  result "$fs" "$name" "image data" "$sr" "$size_target"
  python3 "$bench_dir/imageruns.py" check out.mds "$vol"
  rm -f out.mds "$output"
}

# build_ext FILES SIZE OUT: an ext4 volume of SIZE holding FILES generated
# files, copied in by mkfs (no mount needed).
build_ext() {
  local files=$1 size=$2 out=$3 tree=ext-tree-$1
  rm -rf "$tree"
  echo "making $out: generating $files files"
  python3 "$bench_dir/gentree.py" "$tree" "$files" ext
  truncate -s "$size" "$out"
  echo "making $out: mkfs.ext4 -d"
  mkfs.ext4 -F -q -L bench -d "$tree" "$out"
  rm -rf "$tree"
  e2fsck -fn "$out" >/dev/null 2>&1
}

# result FS PEER WHAT RATIO TARGET: one line that bench/all.sh gathers into
# its table; met when RATIO <= TARGET.
result() {
  awk -v fs="$1" -v peer="$2" -v what="$3" -v r="$4" -v t="$5" 'BEGIN {
    printf "result: %s | %s | %s | %.2fx | <= %.2fx | %s\n", fs, peer, what, r, t, (r + 0 <= t + 0 ? "met" : "MISSED") }'
}
