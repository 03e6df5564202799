# The fuzz targets' limits, shared by scripts/fuzz.sh and make_seeds.sh.
# Memory: a scan may hold its bitmap and 16 MiB; the targets check that
# themselves, counting every allocation through the library's memory
# service. The bitmap follows the size the file system claims, not the
# device's, but a dump takes at most 2^32 blocks: no single allocation may
# pass that bitmap (512 MiB), 16 MiB and twice the input (its own copies). The process limit is coarse: the fuzzer keeps
# its whole corpus in memory. Time: one input may take 2 s plus 2 s per MiB
# of volume.
max_len() { # max_len TARGET: the largest input in bytes
  case $1 in
    ntfs | apfs) echo $((4 << 20)) ;;
    hfs) echo $((2 << 20)) ;;  # the small samples whole, alternate header included
    btrfs) echo $((8 << 20)) ;;  # a small mixed volume puts its trees at 1 and 5 MiB
    image) echo $((256 << 10)) ;;
    *) echo $((1 << 20)) ;;
  esac
}
len_mib() { echo $((($(max_len "$1") + (1 << 20) - 1) >> 20)); }
malloc_limit_mb() { echo $((512 + 16 + 2 * $(len_mib "$1"))); }
rss_limit_mb() { echo 2048; }
# FUZZ_TIMEOUT_SCALE stretches it on a machine busy with other work (the
# fuzzer measures wall time).
timeout_s() { echo $(((2 + 2 * $(len_mib "$1")) * ${FUZZ_TIMEOUT_SCALE:-1})); }
