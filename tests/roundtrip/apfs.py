"""APFS containers for the round trips: every shared macOS-made sample, dumped
with and without -data, and empty containers made with mkapfs (nothing here
can put files into an APFS volume). Judged after the restore by apfsck (the
same verdict, and the same first message where it rejects the original), by
fsapfsinfo's file-system hierarchy and file entries (sizes, modes, times to
the nanosecond, attribute names), and by a read-only fsapfsmount of both
sides that lists names, modes, sizes, times and link targets and, where file
contents were dumped, reads every byte."""
import glob
import hashlib
import os
import subprocess
import tempfile
import time
from contextlib import contextmanager

import recipes
import util
from recipes import FileSystem, Volume, _cached
from util import Fail, Skip

util.SCANNER_COMPONENT["apfs"] = "Mdsnap Apfs included"

# Files at least this large that a metadata image must not carry (their
# blocks are file contents, not structure).
CONTENT_BYTES = 64 << 10
# Listings are compared up to this many entries.
LISTING_LINES = 4000


def _hide(text, path):
    return text.replace(path, "<volume>")


def apfsck_first(path):
    """apfsck's verdict: exit status and first message (the note about the
    sector size of a regular file left out)."""
    r = util.run(["apfsck", path], timeout=300)
    lines = [l for l in r.out.splitlines() if "sector size" not in l and l.strip()]
    return r.returncode, lines[0] if lines else ""


def info_listing(path):
    """fsapfsinfo's view: the container and volume information, the
    file-system hierarchy, and every file entry with its size, mode, owner,
    times to the nanosecond and extended-attribute names."""
    out = []
    for option in (["-H"], ["-E", "all"]):
        r = util.run(["fsapfsinfo"] + option + [path], timeout=300)
        out.append("fsapfsinfo %s exit %d\n%s" % (" ".join(option), r.returncode, _hide(r.out, path)))
    return "\n".join(out), None


@contextmanager
def mounted(img, scratch=None):
    """Every volume of `img` mounted read-only through fsapfsmount kept in the
    foreground; yields the mount point, or None with the refusal."""
    with tempfile.TemporaryDirectory(dir=scratch) as mnt, tempfile.TemporaryFile() as log:
        p = subprocess.Popen(["fsapfsmount", "-v", "-f", "all", img, mnt], stdin=subprocess.DEVNULL, stdout=log,
                             stderr=subprocess.STDOUT, env=util.ENV)
        deadline = time.time() + 30
        while not os.path.ismount(mnt) and p.poll() is None and time.time() < deadline:
            time.sleep(0.02)
        if not os.path.ismount(mnt):
            if p.poll() is None:
                p.kill()
            p.wait()
            log.seek(0)
            out = log.read().decode("utf-8", "replace")
            # A refusal (an encrypted volume without its password, a tree
            # the reader cannot follow) is compared like a listing.
            lines = [l for l in out.splitlines() if l.startswith("libfsapfs_")]
            yield None, "fsapfsmount exit %s: %s" % (p.returncode, _hide("\n".join(lines[:3]), img))
            return
        try:
            yield mnt, None
        finally:
            util.run(["umount", mnt], check=True)
            p.wait(timeout=60)


def walk(mnt, contents):
    """One line per entry: path, mode, size, link count, the three times in
    nanoseconds, link target; with contents, a digest of each regular file."""
    lines, digests = [], {}
    for root, dirs, files in os.walk(mnt):
        dirs.sort()
        for name in sorted(dirs + files):
            full = os.path.join(root, name)
            rel = os.path.relpath(full, mnt)
            st = os.lstat(full)
            target = os.readlink(full) if os.path.islink(full) else ""
            lines.append("%s mode=%o size=%d links=%d m=%d c=%d a=%d -> %s"
                         % (rel, st.st_mode, st.st_size, st.st_nlink, st.st_mtime_ns, st.st_ctime_ns,
                            st.st_atime_ns, target))
            if contents and os.path.isfile(full) and not os.path.islink(full):
                h = hashlib.sha256()
                try:
                    with open(full, "rb") as f:
                        for chunk in iter(lambda: f.read(1 << 20), b""):
                            h.update(chunk)
                    digests[rel] = (st.st_size, h.hexdigest())
                except OSError as e:
                    digests[rel] = (st.st_size, "unreadable: %s" % e.strerror)
    return lines[:LISTING_LINES], digests


def mount_listing(path):
    with mounted(path) as (mnt, why):
        if mnt is None:
            return why, None
        lines, _ = walk(mnt, False)
    return "\n".join(lines), None


def contents(path):
    with mounted(path) as (mnt, why):
        if mnt is None:
            return None
        return walk(mnt, True)[1]


ZERO_DIGESTS = {}


def _zero_digest(size):
    if size not in ZERO_DIGESTS:
        h = hashlib.sha256()
        left = size
        while left:
            n = min(left, 1 << 20)
            h.update(bytes(n))
            left -= n
        ZERO_DIGESTS[size] = h.hexdigest()
    return ZERO_DIGESTS[size]


def extra_checks(vol, src, dst, content_kept):
    problems = []
    a, b = apfsck_first(src), apfsck_first(dst)
    if a[0] != 0 and a[1] != b[1]:
        problems.append("apfsck's first message differs: original %r, restored %r" % (a[1], b[1]))
    before, after = contents(src), contents(dst)
    if before is None:
        return problems
    if after is None:
        return problems + ["the restored container cannot be mounted, the original can"]
    if content_kept:
        differ = sorted(p for p in before if before[p] != after.get(p))
        if differ:
            problems.append("with -data, %d files read back differently, e.g. %s" % (len(differ), differ[:3]))
    else:
        kept = sorted(p for p, (size, digest) in before.items()
                      if size >= CONTENT_BYTES and digest != _zero_digest(size) and after.get(p) == (size, digest))
        if kept:
            problems.append("a metadata image carries the contents of %d large files, e.g. %s" % (len(kept), kept[:3]))
    return problems


FS = FileSystem(["apfsck"], [info_listing, mount_listing], extra=extra_checks)


def _need():
    util.need("zstd", "apfsck", "fsapfsinfo", "fsapfsmount")
    if os.geteuid() != 0 or not os.path.exists("/dev/fuse"):
        raise Skip("fsapfsmount needs root and /dev/fuse")


def fixtures(ctx, name):
    _need()
    vols = []
    for src in sorted(glob.glob(os.path.join(ctx.fixtures, "apfs", "*.img.zst"))):
        base = os.path.basename(src)[:-len(".img.zst")]
        path = os.path.join(ctx.cache, "volumes", "fixture_" + base + ".img")
        with util.locked(path):
            if not os.path.exists(path):
                util.zstd_decompress(src, path, sparse=True)
        note = "macOS-made: apfsck rejects it, the copy must be rejected with the same first message"
        vols.append(Volume("fixture_" + base, "apfs", path, checker_must_pass=None, note=note))
        vols.append(Volume("fixture_" + base + "_data", "apfs", path, checker_must_pass=None, note=note,
                           data=True))
    if not vols:
        raise Skip("no APFS samples under %s" % ctx.fixtures)
    return vols


def mkapfs_recipe(size_mb, args, blocks=None, data=False):
    """An empty container made by mkapfs on a sparse file; `blocks` makes the
    container smaller than the file."""
    def make(ctx, name):
        _need()
        util.need("mkapfs")

        def build(img, scratch):
            with open(img, "wb") as f:
                f.truncate(size_mb << 20)
            util.run(["mkapfs", "-L", name] + args + [img] + ([str(blocks)] if blocks else []), check=True)

        path = _cached(ctx, name, build)
        vols = [Volume(name, "apfs", path)]
        if data:
            vols.append(Volume(name + "_data", "apfs", path, data=True))
        return vols
    return make


RECIPES = {
    "apfs_fixtures": fixtures,
    "apfs_512m": mkapfs_recipe(512, [], data=True),
    "apfs_1g_case_sensitive": mkapfs_recipe(1024, ["-s", "-z"]),
    # The container ends 1 MiB before the file does.
    "apfs_short_container": mkapfs_recipe(300, [], blocks=(300 << 20) // 4096 - 256),
}

GROUPS = {
    "apfs": ["apfs_fixtures", "apfs_512m", "apfs_1g_case_sensitive", "apfs_short_container"],
}

recipes.FILESYSTEMS["apfs"] = FS
recipes.RECIPES.update(RECIPES)
recipes.GROUPS.update(GROUPS)
