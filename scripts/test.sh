#!/usr/bin/env bash
# Builds mdsnap and runs the whole test suite: once as a release build, once
# with AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh

jobs=$(nproc 2>/dev/null || echo 2)

# Skipped tests and their reasons, collected from every ctest run and shown
# at the end (also when a suite fails).
skips=$(mktemp)
skip_report() {
  echo "== skipped tests, with their reasons"
  if [ -s "$skips" ]; then cat "$skips"; else echo "   none"; fi
  rm -f "$skips"
}
trap skip_report EXIT

run_suite() { # run_suite BUILD_DIR [cmake args...]
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  local rc=0 junit=$PWD/$dir/ctest-junit.xml
  rm -f "$junit"
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 900 -LE windows --output-junit "$junit") || rc=$?
  python3 scripts/skip_summary.py "$dir" "$junit" >>"$skips" || true
  return $rc
}

echo "== release build"
run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMDSNAP_ROUNDTRIP_CACHE="$PWD/build/tests/roundtrip/cache"
echo "== sanitizer build (address, undefined)"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_suite build-sanitize -DCMAKE_BUILD_TYPE=Debug -DMDSNAP_SANITIZE=ON \
  -DMDSNAP_ROUNDTRIP_CACHE="$PWD/build/tests/roundtrip/cache"

# --- Windows: the cross builds, and the 64-bit executable under wine beside
# the release build (tests labelled "windows"; each says why when skipped).
echo "== Windows cross builds (x64, x86) and mdsnap.exe under wine"
windows_junit=$PWD/build/ctest-junit-windows.xml
rm -f "$windows_junit"
windows_rc=0
(cd build && ctest -L windows -j "$jobs" --timeout 1800 --output-on-failure --output-junit "$windows_junit") ||
  windows_rc=$?
python3 scripts/skip_summary.py windows "$windows_junit" >>"$skips" || true
[ "$windows_rc" -eq 0 ] || exit "$windows_rc"
# --- end Windows

echo "== fuzz smoke runs (20 s per target)"
probe=$(mktemp -d)
echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' >"$probe/p.cpp"
if ! command -v clang++ >/dev/null 2>&1; then
  echo "SKIP fuzz smoke runs: clang++ is not installed" | tee -a "$skips"
elif ! clang++ -fsanitize=fuzzer "$probe/p.cpp" -o "$probe/p" >/dev/null 2>&1; then
  echo "SKIP fuzz smoke runs: clang cannot link a libFuzzer target (runtime missing)" | tee -a "$skips"
else
  bash scripts/fuzz.sh all 20
fi
rm -rf "$probe"
