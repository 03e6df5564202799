#!/usr/bin/env python3
"""Runs every input a fuzz campaign once crashed on through the real tool:
each volume in regressions/<scanner>/ is dumped, each image in
regressions/image/ is restored into a new sparse file. Each run must end
with a defined status, within its time, with no signal and no sanitizer
report. Inputs are stored zstd-compressed."""
import argparse
import glob
import os
import subprocess
import sys
import tempfile

# Low bytes of the statuses a run may end with (the README's table).
DEFINED = {0, 1, 6, 7, 12, 13, 28, 36, 40, 51, 234}
# Seconds per MiB of input, and the floor; sanitizer builds are slow.
SECONDS_PER_MIB = 10
SECONDS_MIN = 30


def run(args, size):
    limit = SECONDS_MIN + SECONDS_PER_MIB * (size >> 20)
    try:
        p = subprocess.run(args, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                           timeout=limit)
    except subprocess.TimeoutExpired:
        return "no end within %ds" % limit
    out = p.stdout.decode("utf-8", "replace")
    if p.returncode < 0:
        return "signal %d\n%s" % (-p.returncode, out[-2000:])
    if "Sanitizer" in out or "runtime error:" in out:
        return "sanitizer report\n%s" % out[-2000:]
    if p.returncode not in DEFINED:
        return "status %d outside the defined set\n%s" % (p.returncode, out[-2000:])
    return None


def main():
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--mdsnap", required=True)
    ap.add_argument("--dir", default=os.path.join(os.path.dirname(os.path.abspath(__file__)), "regressions"))
    a = ap.parse_args()
    inputs = sorted(glob.glob(os.path.join(a.dir, "*", "*.zst")))
    if not inputs:
        print("SKIP: no kept fuzz inputs in %s" % a.dir)
        return 77
    failed = 0
    with tempfile.TemporaryDirectory() as tmp:
        for src in inputs:
            target = os.path.basename(os.path.dirname(src))
            raw = os.path.join(tmp, "input")
            subprocess.run(["zstd", "-d", "-q", "-f", src, "-o", raw], check=True)
            size = os.path.getsize(raw)
            out = os.path.join(tmp, "out")
            if os.path.exists(out):
                os.unlink(out)
            if target == "image":
                args = [a.mdsnap, "--restore", "-c", "--silent", "-f:" + raw, out]
            else:
                # The hfs and apfs targets take -data and -fork from bits 1 and 2 of the size.
                flags = []
                if target in ("hfs", "apfs"):
                    flags = (["-data"] if size & 2 else []) + (["-fork"] if target == "hfs" and size & 4 else [])
                args = [a.mdsnap, "--dump", "--silent"] + flags + ["-f:" + out, raw]
            problem = run(args, size)
            name = os.path.relpath(src, a.dir)
            print("%s %s" % ("FAIL" if problem else "ok  ", name))
            if problem:
                print("  " + problem.replace("\n", "\n  "))
                failed += 1
    print("%d of %d kept inputs failed" % (failed, len(inputs)))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
