"""Damaged volumes from other projects' test suites, through a full round
trip. Each image is unpacked into a scratch copy (the stored file is never
touched) and dumped; an image mdsnap accepts is restored into a sparse file
and the file system's own checker must give the copy the same exit status it
gives the original. An image mdsnap refuses must get a defined status and a
message, never a signal or a hang."""
import concurrent.futures
import glob
import hashlib
import os
import shutil

import util
from util import Fail, Skip

FOLDERS = ("ext", "fat", "exfat", "ntfs", "btrfs", "apfs", "nosig")
DUMP_TIMEOUT = 30
CHECK_TIMEOUT = 60

# The checker by the name mdsnap prints on success.
CHECKERS = {
    "ExtFs": ["e2fsck", "-fn"],
    "FAT": ["fsck.fat", "-n"],
    "exFAT": ["fsck.exfat", "-n"],
    "NTFS": ["ntfsfix", "-n"],
    "APFS": ["apfsck"],
    "Btrfs": ["btrfs", "check", "--readonly"],
}

# Low bytes of the statuses a refusal may end with (see the README's table).
DEFINED = {1, 6, 7, 12, 13, 28, 36, 40, 51}

# Verdicts that differ for a reason outside the ext scanner; the group still
# passes on them, and each is printed as KNOWN with its reason.
KNOWN = {
}


def sha256(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for chunk in iter(lambda: f.read(1 << 22), b""):
            h.update(chunk)
    return h.hexdigest()


def recognised(out):
    for line in out.splitlines():
        if line.startswith("Recognized as ") and line.endswith("."):
            return line[len("Recognized as "):-1]
    return None


def last_line(text):
    lines = [l for l in text.strip().splitlines() if l.strip()]
    return lines[-1].strip() if lines else ""


def one(ctx, src, work):
    """Returns (outcome word, detail, image bytes or 0). Raises nothing."""
    base = os.path.basename(src)[:-len(".img.zst")]
    os.makedirs(work, exist_ok=True)
    vol, img, dst = (os.path.join(work, n) for n in ("vol.img", "img.mds", "restored.img"))
    r = util.run(["zstd", "-d", "-q", "-f", "--sparse", src, "-o", vol], timeout=60)
    if r.returncode != 0:
        return "FAIL", "cannot unpack: " + last_line(r.out), 0
    before = sha256(vol)
    r = util.run([ctx.mdsnap, "--dump", "--nopercents", "-f:" + img, vol], timeout=DUMP_TIMEOUT)
    if sha256(vol) != before:
        return "FAIL", "the volume changed during the dump", 0
    # The same without the overlay: the drivers then see the volume marked
    # read-only, and a damaged journal must still leave it as it was.
    bare = util.run([ctx.mdsnap, "--dump", "--silent", "-nojnl", "-f:" + img + ".nojnl", vol], timeout=DUMP_TIMEOUT)
    util.remove(img + ".nojnl")
    if sha256(vol) != before:
        return "FAIL", "the volume changed during the dump with -nojnl", 0
    if bare.timed_out or bare.returncode < 0 or (bare.returncode != 0 and bare.returncode not in DEFINED):
        return "FAIL", "the dump with -nojnl ended with status %d%s" % (
            bare.returncode, " (hung)" if bare.timed_out else ""), 0
    if r.timed_out:
        return "FAIL", "dump hung (no exit within %ds)" % DUMP_TIMEOUT, 0
    if "Sanitizer" in r.out or "runtime error:" in r.out:
        return "FAIL", "sanitizer report\n%s" % util.tail_lines(r.out), 0
    if r.returncode < 0:
        return "FAIL", "dump killed by signal %d\n%s" % (-r.returncode, util.tail_lines(r.out)), 0
    if r.returncode != 0:
        if r.returncode not in DEFINED:
            return "FAIL", "refused with undefined status %d\n%s" % (r.returncode, util.tail_lines(r.out)), 0
        if not r.out.strip():
            return "FAIL", "refused with status %d and no message" % r.returncode, 0
        return "refused", "status %d: %s" % (r.returncode, last_line(r.out)), 0
    fs = recognised(r.out)
    if fs not in CHECKERS:
        return "FAIL", "dumped, but recognised as %r, which has no checker here" % fs, 0
    size = os.path.getsize(img)
    r = util.run([ctx.mdsnap, "--restore", "-c", "--nopercents", "-f:" + img, dst], timeout=DUMP_TIMEOUT)
    if r.returncode != 0:
        return "FAIL", "restore failed with status %d\n%s" % (r.returncode, util.tail_lines(r.out)), size
    checker = CHECKERS[fs]
    if not shutil.which(checker[0]):
        return "skip", "%s is not installed" % checker[0], size
    a = util.run(checker + [vol], timeout=CHECK_TIMEOUT)
    if a.timed_out or a.returncode < 0:
        return "skip", "%s on the ORIGINAL %s" % (checker[0], "hangs" if a.timed_out else "crashes"), size
    b = util.run(checker + [dst], timeout=CHECK_TIMEOUT)
    if sha256(vol) != before:
        return "FAIL", "the volume changed under the checker", size
    verdict = "%s %s: original %d, restored %d" % (fs, checker[0], a.returncode, b.returncode)
    if a.returncode == b.returncode:
        return "agree", verdict, size
    if base in KNOWN:
        return "KNOWN", verdict + " (" + KNOWN[base] + ")", size
    return "FAIL", "%s differ\n--- original:\n%s\n--- restored:\n%s" % (
        verdict, util.tail_lines(a.out, 12), util.tail_lines(b.out, 12)), size


def run(ctx):
    util.need("zstd", "e2fsck", "fsck.fat", "fsck.exfat", "ntfsfix", "apfsck")
    images = []
    for folder in FOLDERS:
        images += sorted(glob.glob(os.path.join(ctx.corpus, folder, "*.img.zst")))
    if not images:
        raise Skip("no corpus images under %s" % ctx.corpus)
    work = os.path.join(ctx.work, "corpus")

    def task(src):
        name = os.path.basename(src)[:-len(".img.zst")]
        where = os.path.join(work, name)
        try:
            return one(ctx, src, where)
        finally:
            if not ctx.keep:
                shutil.rmtree(where, ignore_errors=True)

    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        results = list(pool.map(task, images))
    counts = {}
    failures = []
    for src, (outcome, detail, size) in zip(images, results):
        name = os.path.relpath(src, ctx.corpus)[:-len(".img.zst")]
        counts[outcome] = counts.get(outcome, 0) + 1
        print("%-8s %-72s %9s  %s" % (outcome, name, size or "-", detail), flush=True)
        if outcome == "FAIL":
            failures.append(name)
    print("SUMMARY corpus: %d images, %s" % (len(images), ", ".join(
        "%d %s" % (n, k) for k, n in sorted(counts.items()))))
    if failures:
        print("FAILED: %s" % ", ".join(failures))
        return 1
    return 0
