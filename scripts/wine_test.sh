#!/usr/bin/env bash
# Cross-builds mdsnap.exe for 64-bit and 32-bit Windows and runs the 64-bit
# one under wine beside the Linux build: command-line runs, raw and head-only
# round trips, and every scanner's dump of the sample volumes, compared byte
# for byte. Needs mingw-w64 and wine64 (scripts/deps.sh installs them).
#   scripts/wine_test.sh             everything, in build/windows/
#   scripts/wine_test.sh images      one step: build, cli or images
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j 2 --target mdsnap
exec python3 tests/windows/wine_run.py --linux-mdsnap build/mdsnap --work build/windows "${@:-all}"
