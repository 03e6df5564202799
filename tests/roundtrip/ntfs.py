"""NTFS volumes for the round trips: made with mkntfs on a file, populated
through an ntfs-3g FUSE mount, and judged after the restore by ntfsfix -n,
the sleuthkit lister, and a read-only ntfs-3g mount of both sides that lists
what a user sees (times, attributes, links, streams, reparse data, security
descriptors) and, where file contents were dumped too, reads every byte."""
import ctypes
import errno
import glob
import hashlib
import os
import shutil
import struct
import subprocess
import tempfile
import time
from contextlib import contextmanager

import recipes
import tree
import util
from recipes import FileSystem, Volume, _cached, _staged
from util import Fail, Skip

PROFILE = tree.Profile()
# The big volume: a directory past 20,000 entries (a multi-level index), a
# chain of directories 120 deep, two files in 1,500 fragments each.
WIDE_ENTRIES = 20500
DEEP_LEVELS = 120
FRAGMENTS = 1500

MARKER = "special/marker.bin"
LOG_RESTART_BYTES = 8192   # the log's two restart pages
STREAM_SIZES = {"small": 20, "big": 40000, "empty": 0}   # "big" is non-resident; all fit an xattr


# ---------------------------------------------------------------- mounting

def fuse_problem():
    if os.geteuid() != 0:
        return "not root"
    if not os.path.exists("/dev/fuse"):
        return "/dev/fuse missing"
    for t in ("ntfs-3g", "mkntfs", "umount"):
        if not shutil.which(t):
            return "%s not installed (apt-get install ntfs-3g)" % t
    return None


@contextmanager
def mounted(img, options, scratch=None):
    """`img` mounted through ntfs-3g kept in the foreground, so that the
    unmount is over only when the driver has closed the file. Yields the
    mount point, or None (with the failure) when ntfs-3g refuses the volume."""
    with tempfile.TemporaryDirectory(dir=scratch) as mnt, tempfile.TemporaryFile() as log:
        # Its messages go to a file: a pipe nobody reads while the tree is
        # walked would block the driver.
        p = subprocess.Popen(["ntfs-3g", "-o", "no_detach," + options, img, mnt], stdin=subprocess.DEVNULL,
                             stdout=log, stderr=subprocess.STDOUT, env=util.ENV)
        deadline = time.time() + 30
        while not os.path.ismount(mnt) and p.poll() is None and time.time() < deadline:
            time.sleep(0.02)
        if not os.path.ismount(mnt):
            if p.poll() is None:
                p.kill()
            p.wait()
            log.seek(0)
            out = log.read().decode("utf-8", "replace")
            yield None, "ntfs-3g exit %s: %s" % (p.returncode, util.tail_lines(out.replace(img, "<volume>"), 3))
            return
        try:
            yield mnt, None
        finally:
            util.run(["umount", mnt], check=True)
            p.wait(timeout=60)


# ---------------------------------------------------------------- listing

_libc = ctypes.CDLL(None, use_errno=True)
_libc.lgetxattr.restype = ctypes.c_ssize_t
_libc.lgetxattr.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_void_p, ctypes.c_size_t]


def getxattr(path, name):
    """The attribute's value, its size asked first: ntfs-3g answers a buffer
    that is too small with EIO, not ERANGE, so os.getxattr's first guess of
    128 bytes fails on every longer value."""
    p, n = os.fsencode(path), name.encode()
    size = _libc.lgetxattr(p, n, None, 0)
    if size >= 0:
        buf = ctypes.create_string_buffer(max(size, 1))
        got = _libc.lgetxattr(p, n, buf, size)
        if got >= 0:
            return buf.raw[:got]
    e = ctypes.get_errno()
    raise OSError(e, os.strerror(e))


XATTRS = ("system.ntfs_times", "system.ntfs_attrib", "system.ntfs_dos_name")
HASHED_XATTRS = ("system.ntfs_acl", "system.ntfs_reparse_data")


def _digest(b):
    return "%d:%s" % (len(b), hashlib.sha256(b).hexdigest()[:16])


def _file_digest(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for chunk in iter(lambda: f.read(1 << 20), b""):
            h.update(chunk)
    return h.hexdigest()[:24]


def describe(full, rel, content):
    """One line: what a user of the mounted volume sees of the entry."""
    try:
        st = os.lstat(full)
    except OSError as e:
        return "%s lstat %s" % (rel, e.strerror)
    kind = "d" if os.path.isdir(full) and not os.path.islink(full) else "l" if os.path.islink(full) else "f"
    parts = [rel, kind, "size=%d" % st.st_size, "blocks=%d" % st.st_blocks, "ino=%d" % st.st_ino,
             "nlink=%d" % st.st_nlink]
    for name in XATTRS + HASHED_XATTRS:
        short = name.split(".", 1)[1]
        try:
            v = getxattr(full, name)
        except OSError as e:
            if e.errno != errno.ENODATA:
                parts.append("%s %s" % (short, e.strerror))
            continue
        parts.append("%s=%s" % (short, _digest(v) if name in HASHED_XATTRS else
                                v.decode("utf-8", "replace") if name.endswith("dos_name") else v.hex()))
    if kind == "l":
        parts.append("-> " + os.readlink(full))
    try:
        streams = sorted(n for n in os.listxattr(full, follow_symlinks=False) if n.startswith("user."))
    except OSError as e:
        streams = []
        parts.append("listxattr " + e.strerror)
    for s in streams:
        try:
            v = getxattr(full, s)
            parts.append("stream %s=%s" % (s[5:], _digest(v) if content else len(v)))
        except OSError as e:
            parts.append("stream %s %s" % (s[5:], e.strerror))
    if content and kind == "f":
        try:
            parts.append("data=" + _file_digest(full))
        except OSError as e:
            parts.append("data " + e.strerror)
    return " ".join(parts)


def mount_listing(path, content=False):
    """Every entry of a read-only ntfs-3g mount, walked with an explicit
    stack; named streams appear as user.* attributes there. Which names must
    be there is the sleuthkit lister's to judge; a volume that does not mount
    lists nothing, which fails that judgement."""
    with mounted(path, "ro,streams_interface=xattr") as (mnt, why):
        if mnt is None:
            return why, set()
        lines = [describe(mnt, ".", content)]
        stack = [""]
        while stack:
            rel = stack.pop()
            try:
                entries = os.listdir(os.path.join(mnt, rel))
            except OSError as e:
                lines.append("%s listdir %s" % (rel, e.strerror))
                continue
            for e in entries:
                p = os.path.join(rel, e)
                full = os.path.join(mnt, p)
                lines.append(describe(full, p, content))
                if os.path.isdir(full) and not os.path.islink(full):
                    stack.append(p)
    return "\n".join(sorted(lines)), None


def ntfs_fls(path):
    return recipes.fls_listing(path, under_deleted=True, orphans=True)


# ---------------------------------------------------------------- checks

# Boot sector fields.
BOOT_OEM = slice(3, 11)
BOOT_BYTES_PER_SECTOR = 11     # u16
BOOT_SECTORS_PER_CLUSTER = 13  # u8; above 128: 2^(256 - value)
BOOT_TOTAL_SECTORS = 40        # u64
BOOT_MFT_CLUSTERS = 48         # u64 $MFT, then u64 $MFTMirr
BOOT_RECORD_SIZE = 64          # s8; negative: 2^-value bytes, else clusters


def geometry(path):
    """(bytes per sector, cluster size, total sectors) from the boot sector."""
    b = read_at(path, 0, 512)
    bps = struct.unpack_from("<H", b, BOOT_BYTES_PER_SECTOR)[0]
    spc = b[BOOT_SECTORS_PER_CLUSTER]
    spc = spc if spc <= 128 else 1 << (256 - spc)
    return bps, bps * spc, struct.unpack_from("<Q", b, BOOT_TOTAL_SECTORS)[0]


def read_at(path, off, n):
    with open(path, "rb") as f:
        f.seek(off)
        return f.read(n)


def data_runs(path, inum):
    """(first cluster, count) runs of record inum's unnamed $DATA, from the
    sleuthkit's view of the record; None when it cannot read the record."""
    r = util.run(["istat", "-r", path, str(inum)])
    if r.returncode != 0:
        return None
    runs, in_data = [], False
    for line in r.out.splitlines():
        if line.startswith("Type:"):
            in_data = line.startswith("Type: $DATA (128-") and "Name: N/A" in line
        elif in_data and "Starting address:" in line:
            a, n = line.split("Starting address:")[1].split(", length:")
            if a.strip().isdigit():
                runs.append((int(a), int(n)))
    return runs


def marker_runs(path):
    r = util.run(["ifind", "-n", "/" + MARKER, path])
    if r.returncode != 0 or not r.out.strip().isdigit():
        raise Fail("ifind cannot find %s: %s" % (MARKER, r.out.strip()))
    inum = int(r.out)
    if inum < 16:
        raise Fail("marker %s is record %d, a system file" % (MARKER, inum))
    runs = data_runs(path, inum)
    if not runs:
        raise Fail("no clusters found for %s (record %d)" % (MARKER, inum))
    return runs


def extra_checks(vol, src, dst, content_kept):
    """The backup boot sector past the last cluster and the log's restart
    pages (no lister reads them) come back; the marker's
    clusters hold nothing in a metadata image; with contents dumped, every
    file and stream reads back byte for byte."""
    problems = []
    bps, cluster, total = geometry(src)
    backup = total * bps
    if backup + bps <= os.path.getsize(src):
        a, b = read_at(src, backup, bps), read_at(dst, backup, bps)
        if a[BOOT_OEM] != b"NTFS    " and vol.marker:
            problems.append("the recipe's volume has no backup boot sector at 0x%x" % backup)
        elif a != b:
            problems.append("backup boot sector at 0x%x differs (restored %s)"
                            % (backup, "zero" if not b.strip(b"\0") else "other bytes"))
    log = data_runs(src, 2)
    if log:
        first, count = log[0]
        n = min(count * cluster, LOG_RESTART_BYTES)
        if read_at(src, first * cluster, n) != read_at(dst, first * cluster, n):
            problems.append("the log's restart pages at cluster %d differ" % first)
    if vol.marker:
        bad = []
        for first, count in marker_runs(src):
            for c in range(first, first + count):
                s, d = read_at(src, c * cluster, cluster), read_at(dst, c * cluster, cluster)
                if not s.strip(b"\0"):
                    bad.append("cluster %d of the SOURCE marker is zero (recipe fault)" % c)
                elif content_kept and s != d:
                    bad.append("cluster %d of %s not restored" % (c, MARKER))
                elif not content_kept and d.strip(b"\0"):
                    bad.append("cluster %d of %s holds file content in a metadata image" % (c, MARKER))
        problems += bad[:3]
    if content_kept:
        a, _ = mount_listing(src, content=True)
        b, _ = mount_listing(dst, content=True)
        if a != b:
            problems.append("contents differ through the mount:\n%s" % util.diff(a, b))
    return problems


FS = FileSystem(["ntfsfix", "-n"], [ntfs_fls, mount_listing], extra=extra_checks)


# ---------------------------------------------------------------- building

def symlink_reparse(target):
    """A relative symbolic-link reparse buffer (tag 0xA000000C)."""
    t = target.encode("utf-16-le")
    body = struct.pack("<HHHHI", 0, len(t), len(t), len(t), 1) + t + t
    return struct.pack("<IHH", 0xA000000C, len(body), 0) + body


def write_pattern(path, size, seed):
    with open(path, "wb") as f:
        f.write(((seed + "|").encode() * (size // (len(seed) + 1) + 1))[:size])


def add_specials(mnt, compression):
    """Entries that only NTFS has, or that ntfs-3g stores its own way.
    Returns the paths that must be listed at the end."""
    expect = []

    def j(p):
        expect.append(p)
        return os.path.join(mnt, p)

    os.mkdir(j("special"))
    write_pattern(j(MARKER), 256 << 10, "marker")
    # Sparse: data at the start, in the middle and at the end, holes between.
    with open(j("special/sparse.bin"), "wb") as f:
        for off in (0, 3 << 20, (8 << 20) - 100):
            f.seek(off)
            f.write(b"sparse data " * 8)
    if compression:
        d = j("special/compressed")
        os.mkdir(d)
        os.setxattr(d, "system.ntfs_attrib_be", struct.pack(">I", 0x810))   # directory | compressed
        write_pattern(j("special/compressed/small.txt"), 100, "c-small")
        write_pattern(j("special/compressed/text.txt"), 300 << 10, "compress me")
        with open(j("special/compressed/sparse_compressed.bin"), "wb") as f:
            f.write(os.urandom(70000))
            f.seek(2 << 20)
            f.write(b"tail" * 3000)
    # Named streams, through the Windows-style name interface.
    write_pattern(j("special/streams.txt"), 5000, "main stream")
    for name, size in STREAM_SIZES.items():
        write_pattern(os.path.join(mnt, "special/streams.txt:" + name), size, "stream " + name)
    os.mkdir(j("special/dir_with_stream"))
    write_pattern(os.path.join(mnt, "special/dir_with_stream:notes"), 3000, "dir stream")
    # Symbolic links (ntfs-3g's own kind keeps the target in the data, so
    # short ones), and a reparse point whose buffer is too big for the record.
    os.symlink("../sizes/size_03_512.bin", j("special/link_file"))
    os.symlink("../deep", j("special/link_dir"))
    os.symlink("/nowhere/at/all", j("special/link_dangling"))
    open(j("special/reparse_long"), "w").close()
    os.setxattr(os.path.join(mnt, "special/reparse_long"), "system.ntfs_reparse_data",
                symlink_reparse("..\\" + "\\".join("segment_%02d_of_a_long_target" % i for i in range(40))))
    # DOS 8.3 names beside long ones.
    write_pattern(j("special/Long File Name With Spaces.text"), 700, "dos")
    os.setxattr(os.path.join(mnt, "special/Long File Name With Spaces.text"), "system.ntfs_dos_name", b"LONGFI~1.TEX")
    os.mkdir(j("special/Another Long Directory Name"))
    os.setxattr(os.path.join(mnt, "special/Another Long Directory Name"), "system.ntfs_dos_name", b"ANOTHE~1")
    # Hard links, one in another directory.
    write_pattern(j("special/hard_a"), 9000, "hard")
    os.link(os.path.join(mnt, "special/hard_a"), j("special/hard_b"))
    os.link(os.path.join(mnt, "special/hard_a"), j("special/Another Long Directory Name/hard_c"))
    # Security descriptors that differ from the default one.
    os.chmod(os.path.join(mnt, "special/hard_a"), 0o600)
    os.chmod(os.path.join(mnt, "special/streams.txt"), 0o640)
    os.chmod(os.path.join(mnt, "special/dir_with_stream"), 0o700)
    # Deleted: a file with streams, and a directory with files.
    write_pattern(os.path.join(mnt, "special/gone.txt"), 3000, "gone")
    write_pattern(os.path.join(mnt, "special/gone.txt:alt"), 3000, "gone alt")
    os.mkdir(os.path.join(mnt, "special/gone_dir"))
    for i in range(30):
        write_pattern(os.path.join(mnt, "special/gone_dir/f%02d.txt" % i), 100 * i, "gone %d" % i)
    os.sync()
    os.unlink(os.path.join(mnt, "special/gone.txt"))
    shutil.rmtree(os.path.join(mnt, "special/gone_dir"))
    return expect


def add_big(mnt, cluster):
    """The slow parts: a very wide directory, a very deep one, and two files
    grown in turns from their ends backwards, so that every cluster is a run
    of its own and the runs need an attribute list and extension records."""
    expect = ["huge"]
    os.mkdir(os.path.join(mnt, "huge"))
    for i in range(WIDE_ENTRIES):
        p = "huge/entry_%05d_%s.txt" % (i, "long_name_part" * (i % 5))
        open(os.path.join(mnt, p), "wb").close() if i % 10 else write_pattern(os.path.join(mnt, p), 600, p)
        expect.append(p)
    p = "deeper"
    os.mkdir(os.path.join(mnt, p))
    expect.append(p)
    for lvl in range(DEEP_LEVELS):
        p += "/d%03d" % lvl
        os.mkdir(os.path.join(mnt, p))
        expect.append(p)
    fds = [os.open(os.path.join(mnt, "frag_%s.bin" % n), os.O_WRONLY | os.O_CREAT) for n in "ab"]
    expect += ["frag_a.bin", "frag_b.bin"]
    for fd in fds:
        os.ftruncate(fd, FRAGMENTS * cluster)
    for i in reversed(range(FRAGMENTS)):
        for n, fd in enumerate(fds):
            os.pwrite(fd, (b"%c%06d" % (ord("ab"[n]), i)) * (cluster // 7) + b"\n" * (cluster % 7), i * cluster)
    for fd in fds:
        os.close(fd)
    return expect


def build(img, scratch, size_mb, mkfs_args, base=True, specials=True, big=False):
    with open(img, "wb") as f:
        f.truncate(size_mb << 20)
    util.run(["mkntfs", "-q", "-F", "-f", "-L", "RTNTFS"] + mkfs_args + [img], check=True, timeout=300)
    cluster = geometry(img)[1]
    expect = []
    if base:
        root, t = _staged(PROFILE, scratch)
    with mounted(img, "compression,permissions,streams_interface=windows", scratch) as (mnt, why):
        if mnt is None:
            raise Fail("cannot mount the new volume: " + why)
        if base:
            # cp keeps the big file's holes.
            util.run(["cp", "-r", "--sparse=always", root + "/.", mnt], check=True, timeout=600)
            recipes.apply_ops(t.ops, recipes.DirDriver(mnt), os.path.join(scratch, "ops"))
            expect += list(t.expect)
        if specials:
            expect += add_specials(mnt, compression=cluster <= 4096)
        if big:
            expect += add_big(mnt, cluster)
    r = util.run(["ntfsfix", "-n", img])
    if r.returncode != 0:
        raise Fail("ntfsfix -n rejects the freshly made volume:\n" + util.tail_lines(r.out))
    return expect


def recipe(size_mb, mkfs_args, base=True, big=False, with_data=False):
    def make(ctx, name):
        util.need("mkntfs", "ntfsfix", "fls", "istat", "ifind")
        why = fuse_problem()
        if why:
            raise Skip("NTFS volumes are written through ntfs-3g: " + why)
        listed = os.path.join(ctx.cache, "volumes", name + ".expect")

        def b(img, scratch):
            expect = build(img, scratch, size_mb, mkfs_args, base=base, big=big)
            with open(listed, "w") as f:   # what the cached volume must list
                f.write("\n".join(sorted(expect)))

        path = _cached(ctx, name, b)
        with open(listed) as f:
            expect = set(f.read().splitlines())
        vols = [Volume(name, "ntfs", path, expect=expect, marker=True)]
        if with_data:
            vols.append(Volume(name + "_data", "ntfs", path, expect=expect, marker=True, data=True))
        return vols
    return make


def busy_copy(ctx, name):
    """A copy taken while ntfs-3g had the volume mounted and was writing to
    it. (ntfs-3g empties the log when it mounts and writes no log records, so
    the copy's log is blank, not dirty: see dirty_log.)"""
    util.need("mkntfs", "ntfsfix", "fls")
    why = fuse_problem()
    if why:
        raise Skip("NTFS volumes are written through ntfs-3g: " + why)

    def b(img, scratch):
        build(img, scratch, 64, ["-c", "4096"], base=False, specials=True)
        with mounted(img, "streams_interface=windows", scratch) as (mnt, why):
            if mnt is None:
                raise Fail("cannot mount the new volume: " + why)
            os.mkdir(os.path.join(mnt, "busy"))
            for i in range(400):
                write_pattern(os.path.join(mnt, "busy/f%04d.txt" % i), 1000 + 37 * i, "busy %d" % i)
            fd = os.open(os.path.join(mnt, "busy/open_while_copied.bin"), os.O_WRONLY | os.O_CREAT)
            os.write(fd, b"x" * 100000)
            shutil.copyfile(img, img + ".copy")
            os.close(fd)
        os.replace(img + ".copy", img)

    path = _cached(ctx, name, b)
    return [Volume(name, "ntfs", path, checker_must_pass=None,
                   note="copied while mounted: the checker may reject the original")]


LOG_SOURCE = "ntfs_win10_2k_cluster_index"
RESTART_CLEAN = 0x0002


def dirty_log(ctx, name):
    """A Windows volume whose log restart areas no longer say the volume was
    shut down cleanly: both restart pages lose their clean flag, the log
    records stay as Windows wrote them."""
    util.need("zstd", "ntfsfix", "fls", "istat")
    src = os.path.join(ctx.fixtures, "ntfs", LOG_SOURCE + ".img.zst")
    if not os.path.exists(src):
        raise Skip("sample %s is missing" % src)

    def b(img, scratch):
        util.zstd_decompress(src, img, sparse=True)
        _, cluster, _ = geometry(img)
        r = util.run(["istat", "-r", img, "2"], check=True)
        first = int(r.out.split("Starting address:")[1].split(",")[0])
        for page in (0, 4096):
            off = first * cluster + page
            head = read_at(img, off, 512)
            if head[:4] != b"RSTR":
                raise Fail("no restart page at 0x%x of the log (sample changed?)" % off)
            flags = off + struct.unpack_from("<H", head, 24)[0] + 14
            value = struct.unpack("<H", read_at(img, flags, 2))[0]
            with open(img, "r+b") as f:
                f.seek(flags)
                f.write(struct.pack("<H", value & ~RESTART_CLEAN))

    path = _cached(ctx, name, b)
    return [Volume(name, "ntfs", path, checker_must_pass=None, note="the log says the volume is in use")]


def fixtures(ctx):
    util.need("zstd")
    vols = []
    for src in sorted(glob.glob(os.path.join(ctx.fixtures, "ntfs", "*.img.zst"))):
        base = os.path.basename(src)[:-len(".img.zst")]
        path = os.path.join(ctx.cache, "volumes", "fixture_" + base + ".img")
        with util.locked(path):
            if not os.path.exists(path):
                util.zstd_decompress(src, path, sparse=True)
        vols.append(Volume("fixture_" + base, "ntfs", path, checker_must_pass=None,
                           note="fixture: the restored verdict must match the original's"))
    return vols


RECIPES = {
    "ntfs_4k": recipe(160, ["-c", "4096"], with_data=True),
    "ntfs_512": recipe(96, ["-c", "512"]),
    "ntfs_64k": recipe(256, ["-c", "65536"]),
    "ntfs_s4k": recipe(160, ["-s", "4096", "-c", "4096"]),
    "ntfs_busy_copy": busy_copy,
    "ntfs_dirty_log": dirty_log,
    "ntfs_big": recipe(256, ["-c", "4096"], base=False, big=True),
}

GROUPS = {
    "ntfs": ["ntfs_4k", "ntfs_512", "ntfs_64k", "ntfs_s4k", "ntfs_busy_copy", "ntfs_dirty_log"],
    "ntfs_big": ["ntfs_big"],
}

recipes.FILESYSTEMS["ntfs"] = FS
recipes.RECIPES.update(RECIPES)
recipes.GROUPS.update(GROUPS)
