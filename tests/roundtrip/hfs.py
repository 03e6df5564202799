"""HFS+ and HFSX volumes for the round trips: the sample volumes macOS made
(nothing on Linux here makes or populates HFS+). Each is dumped three ways:
metadata only, with -data, and with -fork (those with resource forks also with both),
and judged after the restore by the sleuthkit (fsstat as checker, fsstat and
fls listings with names, sizes and the four dates) and by fshfsinfo (volume
information, and the hierarchy as a bodyfile with identifiers, modes, owners,
sizes and times; a symbolic link's target is its data fork, so it is left to
the fork checks). The forks' blocks of every file and link, as istat lists them, must hold nothing
in a metadata image and the source's bytes when their flag was given; those
forks must then read back equal through icat."""
import glob
import os
import re
import subprocess
import tempfile
from dataclasses import dataclass

import recipes
import util
from recipes import FileSystem, Volume
from util import Fail, Skip

# The journal's two files: kept as metadata whatever the flags say.
JOURNAL_FILES = ("/.journal", "/.journal_info_block")
FIRST_USER_ID = 16   # catalog node IDs below this are the volume's own files
RESOURCE_FORK = "4353"   # the sleuthkit's attribute type of a resource fork
LINK_TARGET = re.compile(r"^([^|]*\|[^|]*?) -> [^|]*\|", re.M)


@dataclass
class HfsVolume(Volume):
    fork: bool = False   # dumped with -fork


def run_bytes(args):
    p = subprocess.run(args, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                       timeout=120, env=util.ENV)
    return p.returncode, p.stdout


# ---------------------------------------------------------------- listers

def hfs_fls(path):
    r = util.run(["fls", "-f", "hfs", "-r", "-p", "-l", path], timeout=300)
    if r.returncode != 0:
        return "fls exit %d\n%s" % (r.returncode, r.out), set()
    names = {line.partition(":\t")[2].split("\t")[0] for line in r.out.splitlines()}
    return r.out, names


def hfs_fsstat(path):
    r = util.run(["fsstat", "-f", "hfs", path])
    return "fsstat exit %d\n%s" % (r.returncode, r.out), None


def fshfsinfo_listing(path):
    """Volume information, then the hierarchy as a bodyfile: identifier,
    mode, owner, group, size and four times of every entry."""
    info = util.run(["fshfsinfo", path])
    with tempfile.TemporaryDirectory() as d:
        body = os.path.join(d, "body")
        h = util.run(["fshfsinfo", "-H", "-B", body, path], timeout=300)
        lines = open(body, encoding="utf-8", errors="replace").read() if os.path.exists(body) else ""
    # A symbolic link's target is its data fork: compared by the fork checks.
    lines = LINK_TARGET.sub(r"\1 -> (data fork)|", lines)
    return "fshfsinfo exit %d/%d\n%s\n%s" % (info.returncode, h.returncode, info.out, lines), None


# ---------------------------------------------------------------- forks

def block_size(path):
    for line in util.run(["fsstat", "-f", "hfs", path]).out.splitlines():
        if line.startswith("Allocation Block Size:"):
            return int(line.split(":")[1])
    raise Fail("fsstat shows no block size for %s" % path)


def fork_blocks(path, inum):
    """{"data": [...], "resource": [...]}: the blocks istat lists per fork."""
    forks, current = {"data": [], "resource": []}, None
    for line in util.run(["istat", "-f", "hfs", path, str(inum)]).out.splitlines():
        if line.startswith("Data Fork Blocks:"):
            current = "data"
        elif line.startswith("Resource Fork Blocks:"):
            current = "resource"
        elif not line.strip() or line.endswith(":"):
            current = None
        elif current:
            for token in line.split():
                a, _, b = token.partition("-")
                if a.isdigit():
                    forks[current] += range(int(a), int(b or a) + 1)
    return forks


def user_files(path):
    """(inode, name) of every file and symbolic link a user made."""
    out = []
    for line in util.run(["fls", "-f", "hfs", "-r", "-p", path], timeout=300).out.splitlines():
        head, _, name = line.partition(":\t")
        kind, _, inum = head.rpartition(" ")
        if kind[:3] in ("r/r", "l/l") and inum.isdigit() and int(inum) >= FIRST_USER_ID \
                and "/" + name not in JOURNAL_FILES:
            out.append((int(inum), name))
    return out


def read_block(path, block, size):
    with open(path, "rb") as f:
        f.seek(block * size)
        return f.read(size)


def extra_checks(vol, src, dst, content_kept):
    """Each fork's blocks: the source's bytes when its flag was given, zeros
    otherwise; a kept fork reads back equal through icat."""
    problems = []
    size = block_size(src)
    raw = content_kept and not vol.data   # a raw dump keeps every block
    kept = {"data": vol.data or raw, "resource": vol.fork or raw}
    files = user_files(src)
    if len(files) < 1 and vol.expect:
        problems.append("the sample lists no user files (harness fault)")
    seen = {"data": 0, "resource": 0}
    for inum, name in files:
        for fork, blocks in fork_blocks(src, inum).items():
            seen[fork] += len(blocks)
            for b in blocks:
                s, d = read_block(src, b, size), read_block(dst, b, size)
                if kept[fork] and s != d:
                    problems.append("%s fork of %s: block %d not restored" % (fork, name, b))
                    break
                if not kept[fork] and d.strip(b"\0"):
                    problems.append("%s fork of %s: block %d holds content in a metadata image" % (fork, name, b))
                    break
            if kept[fork] and blocks:
                attr = str(inum) if fork == "data" else "%d-%s" % (inum, RESOURCE_FORK)
                a, b = run_bytes(["icat", "-f", "hfs", src, attr]), run_bytes(["icat", "-f", "hfs", dst, attr])
                if a != b:
                    problems.append("%s fork of %s reads back differently through icat" % (fork, name))
    if vol.fork and seen["resource"] == 0 and vol.note == "has resource forks":
        problems.append("no resource fork found on a sample that has them (harness fault)")
    return problems[:10]


FS = FileSystem(["fsstat", "-f", "hfs"], [hfs_fls, hfs_fsstat, fshfsinfo_listing], extra=extra_checks)


# ---------------------------------------------------------------- volumes

# Samples with resource forks, and the largest one: dumped with both flags too.
WITH_FORKS = ("hfsplus_dfvfs_small", "hfsplus_rich_16m", "hfsplus_keramics_small")


def samples(ctx, name):
    util.need("zstd", "fsstat", "fls", "istat", "icat", "fshfsinfo")
    vols = []
    for folder in ("hfsplus", "hfsx"):
        for src in sorted(glob.glob(os.path.join(ctx.fixtures, folder, "*.img.zst"))):
            base = os.path.basename(src)[:-len(".img.zst")]
            path = os.path.join(ctx.cache, "volumes", "fixture_" + base + ".img")
            with util.locked(path):
                if not os.path.exists(path):
                    util.zstd_decompress(src, path)
            note = "has resource forks" if base in WITH_FORKS else ""
            vols.append(HfsVolume("fixture_" + base, "hfs", path, note=note))
            vols.append(HfsVolume("fixture_" + base + "_data", "hfs", path, data=True, note=note))
            vols.append(HfsVolume("fixture_" + base + "_fork", "hfs", path, fork=True, note=note))
            if base in WITH_FORKS:
                vols.append(HfsVolume("fixture_" + base + "_data_fork", "hfs", path, data=True, fork=True, note=note))
    if not vols:
        raise Skip("no HFS+ samples under %s" % ctx.fixtures)
    return vols


recipes.FILESYSTEMS["hfs"] = FS
recipes.RECIPES["hfs_samples"] = samples
recipes.GROUPS["hfs"] = ["hfs_samples"]
