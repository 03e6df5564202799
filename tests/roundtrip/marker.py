"""A marker file whose content a metadata image must leave out, for FAT,
exFAT and ext volumes. Its clusters or blocks are found with the file
system's own tools (sleuthkit's istat, debugfs), never with mdsnap's code:
they must hold the marker's text in the source and zeros in the restored
copy (or the text again when contents were dumped)."""
import re

import util
from util import Fail

NAME = "marker.bin"
SIZE = 256 << 10   # whole clusters up to 128 KiB: no slack to judge
# Small enough to live in the inode when inline data is on.
INLINE_NAME = "inline.txt"
INLINE_TEXT = b"MDSNAP-INLINE-MARKER kept in the inode\n"


def content():
    # Every 512 bytes name their own offset, so a misplaced sector shows.
    return b"".join((b"MDSNAP-MARKER %08x " % off).ljust(512, b".") for off in range(0, SIZE, 512))


def write(root, inline=False):
    """Puts the marker (and, for inline data, the small one) into a staged tree."""
    with open(root + "/" + NAME, "wb") as f:
        f.write(content())
    if inline:
        with open(root + "/" + INLINE_NAME, "wb") as f:
            f.write(INLINE_TEXT)


def _units(fs, path):
    """(byte offset, length, kept by design) of each unit holding the
    marker, in file order."""
    if fs == "ext":
        r = util.run(["dumpe2fs", "-h", path], check=True)
        size = int(re.search(r"^Block size:\s+(\d+)", r.out, re.M).group(1))
        # stat's BLOCKS list names each run by its logical blocks; the
        # mapping blocks ((IND), (ETB0), ...) are left out that way.
        r = util.run(["debugfs", "-R", "stat /" + NAME, path], check=True)
        runs = {}
        for m in re.finditer(r"\((\d+)(?:-(\d+))?\):(\d+)(?:-(\d+))?", r.out.split("BLOCKS:", 1)[-1]):
            first, last, phys = int(m.group(1)), int(m.group(2) or m.group(1)), int(m.group(3))
            for i in range(first, last + 1):
                runs[i] = phys + i - first
        units = [runs[i] for i in sorted(runs)]
        # A block-mapped file keeps, by design, the blocks its indirect
        # blocks reach: only the twelve direct ones stay out.
        direct = 12 if "(IND)" in r.out else len(units)
    else:
        r = util.run(["ifind", "-n", "/" + NAME, path], check=True)
        inum = r.out.strip()
        r = util.run(["istat", path, inum], check=True)
        units = [int(s) for s in r.out.split("Sectors:", 1)[-1].split() if s.isdigit()]
        if fs == "exfat":
            r = util.run(["dump.exfat", path], check=True)
            size = 1 << int(re.search(r"Sector Size Bits:\s+(\d+)", r.out).group(1))
        else:
            r = util.run(["fsstat", path], check=True)
            size = int(re.search(r"Sector Size:\s+(\d+)", r.out).group(1))
        direct = len(units)
    if len(units) * size < SIZE:
        raise Fail("the tools list %d units of %d bytes for %s, too few" % (len(units), size, NAME))
    return [(u * size, size, i >= direct) for i, u in enumerate(units[:SIZE // size])]


def _read(path, off, n):
    with open(path, "rb") as f:
        f.seek(off)
        return f.read(n)


def check(vol, src, dst, contents_kept):
    if not vol.marker:
        return []
    want = content()
    problems = []
    pos = 0
    units = _units(vol.fs, src)
    for off, n, kept in units:
        if _read(src, off, n) != want[pos:pos + n]:
            return ["%s: the SOURCE does not hold its text at 0x%x (recipe or harness fault)" % (NAME, off)]
        got = _read(dst, off, n)
        if (contents_kept or kept) and got != want[pos:pos + n]:
            problems.append("%s: restored bytes at 0x%x differ from the source" % (NAME, off))
        elif not (contents_kept or kept) and got.count(0) != n:
            problems.append("%s: file content at 0x%x in a metadata image" % (NAME, off))
        pos += n
    print("  marker: %d units of %d bytes checked, %d kept through indirect blocks"
          % (len(units), units[0][1], sum(u[2] for u in units)), flush=True)
    if INLINE_NAME in vol.expect:
        r = util.run(["debugfs", "-R", "stat /" + INLINE_NAME, src], check=True)
        if "Size of inline data" not in r.out:
            problems.append("%s is not inline on the SOURCE (recipe fault)" % INLINE_NAME)
        a, b = _cat(src, INLINE_NAME), _cat(dst, INLINE_NAME)
        if not a.startswith(INLINE_TEXT):
            problems.append("%s: the SOURCE reads back %r (recipe or harness fault)" % (INLINE_NAME, a[:60]))
        elif a != b:
            problems.append("%s: inline content not restored (%r)" % (INLINE_NAME, b[:60]))
    return problems[:3]


def _cat(path, name):
    out = path + ".cat"
    with open(out, "wb") as f:
        util.run(["debugfs", "-R", "cat /" + name, path], stdout=f, check=True)
    with open(out, "rb") as f:
        data = f.read()
    util.remove(out)
    return data
