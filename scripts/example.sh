#!/usr/bin/env bash
# Builds mdsnap and shows its main job on a real volume: a FAT32 volume is
# made and populated with the file system's own tools, its metadata is dumped
# into an image, the image is described, restored into a sparse file and
# checked with the file system's own checker.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target mdsnap
bin=$PWD/build/mdsnap

work=${1:-/tmp/mdsnap-example}
rm -rf "$work" && mkdir -p "$work" && cd "$work"
echo "== making a 256 MiB FAT32 volume with a few hundred files ($work/volume.img)"
mkfs.fat -F 32 -C -n EXAMPLE volume.img $((256 * 1024)) >/dev/null
export MTOOLS_SKIP_CHECK=1
mkdir -p tree/docs/reports/2026 tree/photos tree/src
for i in $(seq 1 300); do head -c $((i * 997)) /dev/urandom > "tree/photos/IMG_$i.jpg"; done
for i in $(seq 1 40); do echo "report $i" > "tree/docs/reports/2026/quarterly report number $i.txt"; done
cp -r "$OLDPWD"/mdsnap "$OLDPWD"/core tree/src/
mcopy -s -i volume.img tree/* ::/

echo "== dump:    mdsnap --dump -f:volume.mds volume.img"
"$bin" --dump --nopercents -f:volume.mds volume.img
echo "== info:    mdsnap -info volume.mds"
"$bin" -info volume.mds
echo "== restore: mdsnap --restore -c -f:volume.mds restored.img"
"$bin" --restore -c --nopercents -f:volume.mds restored.img
echo "== sizes (apparent / allocated)"
du -h --apparent-size volume.img volume.mds restored.img | sed 's/^/   /'
du -h restored.img | sed 's/^/   allocated: /'
echo "== checker on the restored volume: fsck.fat -n restored.img"
fsck.fat -n restored.img
echo "== the same tree on both (mdir -/)"
if diff <(mdir -/ -i volume.img ::/ | grep -v -e 'bytes free' -e 'Volume Serial') \
        <(mdir -/ -i restored.img ::/ | grep -v -e 'bytes free' -e 'Volume Serial') >/dev/null; then
  echo "   identical listings ($(mdir -/ -i restored.img ::/ | grep -c ' ') lines)"
else
  echo "   listings differ" >&2
  exit 1
fi
