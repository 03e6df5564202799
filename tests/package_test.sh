#!/usr/bin/env bash
# The Debian package as a user gets it: CPack makes mdsnap_<version>_<arch>.deb
# from this build, its control fields name the release and only libc6, that
# still covers what dpkg-shlibdeps finds in the binary, and
# the binary unpacked with dpkg -x (beside its manual page and licence) runs:
# its version text, and a dump of a small real volume that -info names.
# Exit 77 (with the reason) where the Debian tools are missing.
# Usage: package_test.sh CPACK BUILD_DIR SOURCE_DIR VERSION SANITIZED(0|1)
set -uo pipefail
cpack=$1 build=$2 src=$3 version=$4 sanitized=$5
skip() { echo "SKIP package: $*"; exit 77; }
fail() { echo "FAIL package: $*"; exit 1; }
for t in dpkg dpkg-deb dpkg-shlibdeps; do
  command -v "$t" >/dev/null || skip "$t is not installed (apt-get install dpkg-dev)"
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
arch=$(dpkg --print-architecture)
deb=$work/out/mdsnap_${version}_${arch}.deb
(cd "$build" && "$cpack" -G DEB -B "$work/out") >"$work/cpack.log" 2>&1 ||
  fail "cpack failed"$'\n'"$(tail -n 20 "$work/cpack.log")"
[ -f "$deb" ] || fail "no $(basename "$deb"); cpack made: $(ls "$work/out")"

field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = mdsnap ] || fail "Package: $(field Package)"
[ "$(field Version)" = "$version" ] || fail "Version: $(field Version), want $version"
[ "$(field Architecture)" = "$arch" ] || fail "Architecture: $(field Architecture)"
depends=$(field Depends)
names=$(echo "$depends" | tr ',' '\n' | sed 's/(.*//; s/ //g' | sort | tr '\n' ' ')
[ "$names" = "libc6 " ] || fail "Depends: $depends (want libc6 only)"

root=$work/root
dpkg -x "$deb" "$root" || fail "dpkg -x failed"
bin=$root/usr/bin/mdsnap
[ -x "$bin" ] || fail "no usr/bin/mdsnap in the package: $(cd "$root" && find . -type f)"
cmp -s "$root/usr/share/man/man1/mdsnap.1" "$src/doc/mdsnap.1" || fail "usr/share/man/man1/mdsnap.1 missing or stale"
cmp -s "$root/usr/share/doc/mdsnap/LICENSE" "$src/LICENSE" || fail "usr/share/doc/mdsnap/LICENSE missing or stale"

# What the binary needs, as dpkg-shlibdeps sees it: everything must be
# declared. A sanitizer build needs its runtimes and is not what gets shipped.
if [ "$sanitized" = 1 ]; then
  echo "note: sanitizer build; its runtime libraries are not checked against Depends"
else
  mkdir -p "$work/shlib/debian" && touch "$work/shlib/debian/control"
  found=$(cd "$work/shlib" && dpkg-shlibdeps -O "$bin" 2>/dev/null | sed -n 's/^shlibs:Depends=//p')
  [ -n "$found" ] || fail "dpkg-shlibdeps found nothing for $bin"
  echo "dpkg-shlibdeps: $found; declared: $depends"
  while read -r dep; do
    name=${dep%% *}
    need=$(echo "$dep" | sed -n 's/.*(>= \(.*\))/\1/p')
    case $name in
      libc6) ;;
      *) fail "the binary needs $name, which Depends does not declare" ;;
    esac
    have=$(echo "$depends" | tr ',' '\n' | sed -n "s/^ *$name (>= \(.*\))/\1/p")
    [ -z "$need" ] || dpkg --compare-versions "$have" ge "$need" ||
      fail "Depends has $name (>= $have), the binary needs (>= $need)"
  done < <(echo "$found" | tr ',' '\n' | sed 's/^ *//')
fi

"$bin" --version >"$work/v" 2>&1
rc=$?
[ "$rc" -eq 1 ] || fail "installed mdsnap --version: exit $rc"
grep -q "^mdsnap $version, " "$work/v" || fail "--version does not name $version:"$'\n'"$(cat "$work/v")"

command -v zstd >/dev/null || skip "zstd is not installed: the unpacked binary's dump was not tried"
zstd -q -d -o "$work/vol.img" "$src/tests/data/exfat_small_4k.img.zst" || fail "cannot unpack the test volume"
"$bin" --dump --nopercents -f:"$work/img.mds" "$work/vol.img" >"$work/dump.log" 2>&1 ||
  fail "installed mdsnap --dump failed ($?)"$'\n'"$(cat "$work/dump.log")"
info=$("$bin" -info "$work/img.mds")
[ "${info%%,*}" = exFAT ] || fail "-info of the dump: $info"
echo "$(basename "$deb"): $(stat -c %s "$deb") bytes, Depends: $depends; unpacked binary dumped: $info"
