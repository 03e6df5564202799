# The fuzz targets' limits, shared by scripts/fuzz.sh and make_seeds.sh.
# Memory: a scan may hold its bitmap and 16 MiB (the targets check that
# themselves, counting every allocation); the process limit adds the
# sanitizer's and the fuzzer's own baseline and the input. Time: one input
# may take 2 s plus 2 s per MiB of volume.
max_len() { # max_len TARGET: the largest input in bytes
  case $1 in
    ntfs) echo $((4 << 20)) ;;
    image) echo $((256 << 10)) ;;
    *) echo $((1 << 20)) ;;
  esac
}
baseline_mb=512
rss_limit_mb() { echo $((baseline_mb + 16 + 2 * ($(max_len "$1") >> 20))); }
timeout_s() { echo $((2 + 2 * (($(max_len "$1") + (1 << 20) - 1) >> 20))); }
