#!/usr/bin/env bash
# Installs what building and testing mdsnap need, when it is missing.
# Debian package names; apt-get runs as root (or through sudo when present).
set -euo pipefail

need=()
want() { # want COMMAND PACKAGE
  command -v "$1" >/dev/null 2>&1 || need+=("$2")
}
want cmake cmake
want ninja ninja-build
want g++ g++
want zstd zstd
want python3 python3
want mkfs.fat dosfstools
want mcopy mtools
want mkfs.exfat exfatprogs
want mount.exfat-fuse exfat-fuse
want fusermount3 fuse3
want mke2fs e2fsprogs
want fls sleuthkit
want losetup mount
want mkntfs ntfs-3g
# The manual page's rendering check and the package test.
want man man-db
want dpkg-shlibdeps dpkg-dev
want mkapfs apfsprogs
want fsapfsmount libfsapfs-utils
want fshfsinfo libfshfs-utils
want mkfs.btrfs btrfs-progs
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
[ -x /usr/bin/time ] || need+=(time)

# The fuzz targets want clang and its libFuzzer runtime; without them the
# fuzz runs are skipped, so a failure to install them is not fatal.
fuzz_need=()
command -v clang++ >/dev/null 2>&1 || fuzz_need+=(clang)
fuzz_runtime() {
  command -v clang++ >/dev/null 2>&1 && ls "$(clang++ --print-runtime-dir 2>/dev/null)"/libclang_rt.fuzzer-*.a >/dev/null 2>&1
}
if ! fuzz_runtime && command -v clang++ >/dev/null 2>&1; then
  major=$(clang++ -dumpversion | cut -d. -f1)
  fuzz_need+=("libclang-rt-$major-dev")
fi

# --- Windows: the mingw-w64 cross compilers and wine64 for the tests
# labelled "windows"; without them those tests are skipped, so a failure to
# install them is not fatal.
win_need=()
command -v x86_64-w64-mingw32-g++ >/dev/null 2>&1 || win_need+=(mingw-w64)
command -v wine64 >/dev/null 2>&1 || [ -x /usr/lib/wine/wine64 ] || win_need+=(wine64)
# --- end Windows

if [ ${#need[@]} -eq 0 ] && [ ${#fuzz_need[@]} -eq 0 ] && [ ${#win_need[@]} -eq 0 ]; then exit 0; fi
if [ "$(id -u)" -eq 0 ]; then sudo=""; elif command -v sudo >/dev/null; then sudo="sudo"; else
  if [ ${#need[@]} -eq 0 ]; then
    echo "Not installing (not root): ${fuzz_need[*]} ${win_need[*]}; the fuzz runs and Windows tests will be skipped." >&2
    exit 0
  fi
  echo "Missing packages (${need[*]}) and not root: install them, then run again." >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
if [ ${#need[@]} -gt 0 ]; then
  echo "Installing: ${need[*]}"
  $sudo apt-get install -y -qq "${need[@]}" >/dev/null
fi
if [ ${#fuzz_need[@]} -gt 0 ]; then
  echo "Installing for the fuzz runs: ${fuzz_need[*]}"
  $sudo apt-get install -y -qq "${fuzz_need[@]}" >/dev/null || echo "Could not install ${fuzz_need[*]}." >&2
  # clang alone may come without the runtime package.
  if ! fuzz_runtime && command -v clang++ >/dev/null 2>&1; then
    $sudo apt-get install -y -qq "libclang-rt-$(clang++ -dumpversion | cut -d. -f1)-dev" >/dev/null 2>&1 || true
  fi
fi
# --- Windows
if [ ${#win_need[@]} -gt 0 ]; then
  echo "Installing for the Windows builds and their wine run: ${win_need[*]}"
  $sudo apt-get install -y -qq "${win_need[@]}" >/dev/null || echo "Could not install ${win_need[*]}." >&2
fi
# --- end Windows
