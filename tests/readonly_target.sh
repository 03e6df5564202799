#!/usr/bin/env bash
# A restore onto a block device the kernel holds read-only is refused at the
# open with the write-protected status and message, and not one byte of the
# device changes; the same device still dumps (read-only), and the same
# restore onto it set up writable succeeds, so the refusal is the read-only
# flag's doing. Exit 77 (with the reason) where loop devices are unavailable.
# Usage: readonly_target.sh path/to/mdsnap
set -uo pipefail
bin=$1
skip() { echo "SKIP readonly_target: $*"; exit 77; }
fail() { echo "FAIL readonly_target: $*"; exit 1; }
[ "$(id -u)" -eq 0 ] || skip "needs root to set up loop devices"
command -v losetup >/dev/null || skip "losetup is not installed (apt-get install mount)"

work=$(mktemp -d)
loop=""
cleanup() {
  [ -n "$loop" ] && losetup -d "$loop" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
cd "$work"

# The source: 2 MiB of noise, dumped block for block. The target: a file of
# the same size holding another pattern, on a loop device set up read-only.
head -c $((2 << 20)) /dev/urandom >source.img
"$bin" --dump -dd --silent -f:img.mds source.img || fail "raw dump of the source failed ($?)"
head -c $((2 << 20)) /dev/zero | tr '\0' 'Z' >target.img
before=$(sha256sum <target.img)
loop=$(losetup -r -f --show target.img 2>err) || skip "no loop device: $(cat err)"

"$bin" --restore --nopercents -f:img.mds "$loop" >out 2>err
rc=$?
[ "$rc" -eq 32 ] || fail "restore onto read-only $loop: exit $rc, want 32 (0xA0001020)"$'\n'"$(cat out err)"
want="Can't open \"$loop\" for writing: the device is write-protected"
[ "$(cat err)" = "$want" ] || fail "message: got '$(cat err)', want '$want'"
[ ! -s out ] || fail "restore printed before refusing: $(cat out)"
# Standard input redirected, no --restore: the direction rule restores too.
"$bin" -f:img.mds "$loop" </dev/null >/dev/null 2>&1
rc=$?
[ "$rc" -eq 32 ] || fail "restore by the direction rule onto read-only $loop: exit $rc, want 32"
[ "$(sha256sum <target.img)" = "$before" ] || fail "the read-only target was written"

# Dumping the read-only device falls back to a read-only open.
"$bin" --dump -dd --nopercents -f:ro.mds "$loop" >out 2>err || fail "dump of read-only $loop failed ($?)"$'\n'"$(cat out err)"
# Blocks of 1 MiB and no tail: the image ends with the device's bytes.
cmp -s <(tail -c $((2 << 20)) ro.mds) target.img \
  || fail "the dump of the read-only device does not hold its bytes"

losetup -d "$loop"
loop=$(losetup -f --show target.img 2>err) || skip "no second loop device: $(cat err)"
"$bin" --restore --silent -f:img.mds "$loop" || fail "restore onto writable $loop failed ($?)"
losetup -d "$loop"
loop=""
cmp -s source.img target.img || fail "the writable restore does not equal the source"
echo "read-only target refused (exit 32, nothing written); dumped read-only; restored once writable"
