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
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
[ -x /usr/bin/time ] || need+=(time)

if [ ${#need[@]} -eq 0 ]; then exit 0; fi
echo "Installing: ${need[*]}"
if [ "$(id -u)" -eq 0 ]; then sudo=""; elif command -v sudo >/dev/null; then sudo="sudo"; else
  echo "Missing packages (${need[*]}) and not root: install them, then run again." >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq "${need[@]}" >/dev/null
