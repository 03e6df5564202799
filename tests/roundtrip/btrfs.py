"""Btrfs volumes for the round trips: made with mkfs.btrfs on a file,
populated through a loop mount, and judged after the restore by
`btrfs check --readonly`, a read-only loop mount of both sides that lists
what a user sees (names, sizes, modes, owners, times, symbolic links, hard
links, extended attributes), the subvolume list, and the tree dump."""
import os
import re
import shutil
import tempfile
import uuid
from contextlib import contextmanager

import recipes
import tree
import util
from recipes import FileSystem, Volume, _cached, _staged
from util import Fail, Skip

util.SCANNER_COMPONENT["btrfs"] = "BTRFS support included"

# The small test tree: its wide directory and deep chain stay modest, the
# big group has its own.
PROFILE = tree.Profile(name_bytes=True, wide=600, depth=12, big=8 << 20, rounds=4, per_round=30)
WIDE_ENTRIES = 50000
DEEP_LEVELS = 200
MARKER = "special/marker.bin"
MARKER_TEXT = b"MDSNAP-BTRFS-MARKER-"
MARKER_BYTES = 256 << 10
SIZE_MB = 256


# ---------------------------------------------------------------- mounting

def loop_problem():
    if os.geteuid() != 0:
        return "not root"
    for t in ("mkfs.btrfs", "btrfs", "losetup", "mount", "umount"):
        if not shutil.which(t):
            return "%s not installed (apt-get install btrfs-progs)" % t
    if "btrfs" not in open("/proc/filesystems").read():
        util.run(["modprobe", "btrfs"])
        if "btrfs" not in open("/proc/filesystems").read():
            return "the kernel has no btrfs"
    return None


_loop_ok = None


def need_loop():
    """Loop mounts must work here; checked once with a throw-away volume."""
    global _loop_ok
    why = loop_problem()
    if why:
        raise Skip("Btrfs volumes are written through a loop mount: " + why)
    if _loop_ok is None:
        with tempfile.TemporaryDirectory() as d:
            img = os.path.join(d, "probe.img")
            with open(img, "wb") as f:
                f.truncate(128 << 20)
            util.run(["mkfs.btrfs", "-q", img], check=True)
            try:
                with mounted(img, read_only=False):
                    pass
                _loop_ok = ""
            except Fail as e:
                _loop_ok = str(e)
    if _loop_ok:
        raise Skip("a loop mount of a Btrfs volume fails here: " + _loop_ok)


@contextmanager
def mounted(img, read_only=True, options=""):
    """`img` on a loop device (read-only for the listings, and without log
    replay, so the volume is never written) mounted on a fresh folder."""
    with tempfile.TemporaryDirectory() as mnt:
        r = util.run(["losetup", "-f", "--show"] + (["-r"] if read_only else []) + [img])
        if r.returncode != 0:
            raise Fail("losetup failed: " + r.out.strip())
        loop = r.out.strip()
        try:
            opts = "ro,rescue=nologreplay" if read_only else "rw"
            if options:
                opts += "," + options
            r = util.run(["mount", "-t", "btrfs", "-o", opts, loop, mnt])
            if r.returncode != 0:
                raise Fail("mount of %s failed: %s" % (os.path.basename(img), r.out.strip()))
            try:
                yield mnt
            finally:
                util.run(["umount", mnt], check=True)
        finally:
            util.run(["losetup", "-d", loop])


# ---------------------------------------------------------------- listings

def _entry_line(root, rel):
    p = os.path.join(root, rel)
    st = os.lstat(p)
    kind = "l" if os.path.islink(p) else "d" if os.path.isdir(p) and not os.path.islink(p) else "f"
    parts = [rel, kind, "%o" % st.st_mode, "u%d" % st.st_uid, "g%d" % st.st_gid, "n%d" % st.st_nlink,
             "i%d" % st.st_ino, "s%d" % st.st_size]
    # Inode 2 is the kernel's stand-in for a subvolume a snapshot left out:
    # it has no times on disk and shows the time of the lookup.
    if st.st_ino != 2:
        parts += ["m%d" % st.st_mtime_ns, "c%d" % st.st_ctime_ns, "a%d" % st.st_atime_ns]
    if kind == "l":
        parts.append("-> " + os.readlink(p))
    try:
        for name in sorted(os.listxattr(p, follow_symlinks=False)):
            parts.append("x:%s=%s" % (name, os.getxattr(p, name, follow_symlinks=False).hex()))
    except OSError as e:
        parts.append("xattr error %d" % e.errno)
    return "\t".join(parts)


def mount_listing(img):
    """Every entry as the kernel shows it on a read-only mount."""
    try:
        with mounted(img) as mnt:
            lines, names = [], set()
            for dirpath, dirs, files in os.walk(mnt):
                dirs.sort()
                for n in sorted(dirs + files):
                    rel = os.path.relpath(os.path.join(dirpath, n), mnt)
                    lines.append(_entry_line(mnt, rel))
                    names.add(recipes.short_components(rel))
            r = util.run(["btrfs", "subvolume", "list", "-a", "-u", "-q", "-R", "-g", "-c", "-r", mnt])
            lines.append("subvolumes (exit %d):\n%s" % (r.returncode, r.out))
            return "\n".join(lines), names
    except Fail as e:
        return "mount failed: %s" % e, set()


def dump_tree(img):
    """The tree dump: every item of every tree, as the file system's own tool
    prints it."""
    r = util.run(["btrfs", "inspect-internal", "dump-tree", img], timeout=300)
    # The tool names the device it read; nothing else may differ.
    out = r.out.replace(img, "<volume>")
    return "dump-tree exit %d\n%s" % (r.returncode, out), None


def marker_check(vol, src, dst, contents_kept):
    """The marker's blocks hold its text in the source and zeros in the
    restored copy: file contents are not in a metadata image."""
    if not vol.marker:
        return []
    block = 4096
    found = []
    with open(src, "rb") as f:
        off = 0
        while True:
            chunk = f.read(16 << 20)
            if not chunk:
                break
            for at in range(0, len(chunk), block):
                if chunk[at:at + len(MARKER_TEXT)] == MARKER_TEXT:
                    found.append(off + at)
            off += len(chunk)
    if len(found) < MARKER_BYTES // block:
        return ["marker: only %d of its %d blocks found in the SOURCE (recipe fault)" % (len(found),
                                                                                        MARKER_BYTES // block)]
    problems = []
    with open(dst, "rb") as f:
        for at in found:
            f.seek(at)
            if f.read(block).count(0) != block:
                problems.append("marker block at 0x%x is not zero in the restored copy" % at)
                break
    return problems


def super_field(img, name):
    r = util.run(["btrfs", "inspect-internal", "dump-super", img], check=True)
    return int(re.search(r"^%s\s+(\d+)" % name, r.out, re.M).group(1))


def mirrors(img, logical):
    """Physical offsets of a node's copies, in the order the chunk lists them."""
    r = util.run(["btrfs-map-logical", "-l", str(logical), img], check=True)
    return [int(m) for m in re.findall(r"^mirror \d+ logical \d+ physical (\d+)", r.out, re.M)]


def read_at(path, offset, n):
    with open(path, "rb") as f:
        f.seek(offset)
        return f.read(n)


def copies_check(vol, src, dst):
    """Of a node's copies the image holds the first, and the second only where
    the first is damaged: checked on the roots of the root and chunk trees."""
    size = super_field(src, "nodesize")
    problems = []
    for what in ("root", "chunk_root"):
        logical = super_field(src, what)
        for i, at in enumerate(mirrors(src, logical)):
            kept = i == 0 or (i == 1 and logical == getattr(vol, "bad_first_copy", None))
            want = read_at(src, at, size) if kept else bytes(size)
            if read_at(dst, at, size) != want:
                problems.append("%s node 0x%x: copy %d at 0x%x %s" % (what, logical, i + 1, at,
                                "differs from the source" if kept else "is not zero in the restored copy"))
    return problems


def extra_checks(vol, src, dst, contents_kept):
    return marker_check(vol, src, dst, contents_kept) + ([] if contents_kept else copies_check(vol, src, dst))


FS = FileSystem(["btrfs", "check", "--readonly"], [mount_listing, dump_tree], extra=extra_checks)


# ---------------------------------------------------------------- building

def marker_content():
    return (MARKER_TEXT + b"." * (4096 - len(MARKER_TEXT))) * (MARKER_BYTES // 4096)


def specials(mnt):
    """What the generic tree lacks: symbolic links, hard links, extended
    attributes, owners, modes and set times, a fifo, and the marker."""
    os.makedirs(os.path.join(mnt, "special"))
    with open(os.path.join(mnt, MARKER), "wb") as f:
        f.write(marker_content())
    s = os.path.join(mnt, "special")
    with open(os.path.join(s, "target.txt"), "w") as f:
        f.write("target\n")
    for i in range(5):
        os.link(os.path.join(s, "target.txt"), os.path.join(s, "hard_%d" % i))
    os.symlink("target.txt", os.path.join(s, "short_link"))
    os.symlink("x" * 3000, os.path.join(s, "long_dangling_link"))
    os.mkfifo(os.path.join(s, "fifo"))
    os.setxattr(os.path.join(s, "target.txt"), "user.small", b"value")
    os.setxattr(os.path.join(s, "target.txt"), "user.big", bytes(range(256)) * 12)
    os.chown(os.path.join(s, "target.txt"), 1234, 5678)
    os.chmod(os.path.join(s, "target.txt"), 0o4751)
    os.utime(os.path.join(s, "target.txt"), ns=(1000000000123456789, 1200000000987654321))
    os.lchown(os.path.join(s, "short_link"), 42, 43)


SPECIALS = {"special", MARKER, "special/target.txt", "special/short_link", "special/fifo"}


def populate(mnt, scratch, base=True):
    if base:
        root, t = _staged(PROFILE, scratch)
        for e in sorted(os.listdir(root)):
            s = os.path.join(root, e)
            if os.path.isdir(s):
                shutil.copytree(s, os.path.join(mnt, e), copy_function=shutil.copyfile)
            else:
                shutil.copyfile(s, os.path.join(mnt, e))
        recipes.apply_ops(t.ops, recipes.DirDriver(mnt), os.path.join(scratch, "ops"))
    specials(mnt)


def subvolumes(mnt):
    """Subvolumes, nested ones, and read-only snapshots taken between
    changes: the snapshots share tree blocks with their sources."""
    def btrfs(*args):
        util.run(["btrfs"] + list(args), check=True)
    btrfs("subvolume", "create", os.path.join(mnt, "sv1"))
    btrfs("subvolume", "create", os.path.join(mnt, "sv2"))
    btrfs("subvolume", "create", os.path.join(mnt, "sv1/nested"))
    for i in range(400):
        with open(os.path.join(mnt, "sv1/f%04d.txt" % i), "w") as f:
            f.write("file %d\n" % i * (i % 5))
    os.sync()
    btrfs("subvolume", "snapshot", "-r", os.path.join(mnt, "sv1"), os.path.join(mnt, "snap1_ro"))
    for i in range(0, 400, 3):
        os.unlink(os.path.join(mnt, "sv1/f%04d.txt" % i))
    with open(os.path.join(mnt, "sv1/after_snapshot.txt"), "w") as f:
        f.write("after\n")
    btrfs("subvolume", "snapshot", "-r", os.path.join(mnt, "sv1"), os.path.join(mnt, "snap2_ro"))
    btrfs("subvolume", "snapshot", os.path.join(mnt, "sv2"), os.path.join(mnt, "sv2_rw_snapshot"))
    os.sync()


SUBVOLUMES = {"sv1", "sv2", "sv1/nested", "snap1_ro", "snap2_ro", "snap1_ro/f0000.txt", "sv2_rw_snapshot"}


def make_volume(img, mkfs_args, size_mb=SIZE_MB):
    with open(img, "wb") as f:
        f.truncate(size_mb << 20)
    # A UUID of its own: the kernel refuses a second volume with the UUID of
    # one mounted at the same time (the two btrfs groups build side by side).
    util.run(["mkfs.btrfs", "-q", "-f", "-U", str(uuid.uuid4())] + mkfs_args + [img], check=True)


def recipe(mkfs_args, mount_options="", subvols=False, quota=False, marker=False, base=True):
    def make(ctx, name):
        need_loop()

        def build(img, scratch):
            make_volume(img, mkfs_args)
            with mounted(img, read_only=False, options=mount_options) as mnt:
                if quota:
                    util.run(["btrfs", "quota", "enable", mnt], check=True)
                populate(mnt, scratch, base)
                if subvols:
                    subvolumes(mnt)
                if quota:
                    util.run(["btrfs", "quota", "rescan", "-w", mnt], check=True)

        path = _cached(ctx, name, build)
        expect = (set(tree.generate(PROFILE)[1].expect) if base else set()) | SPECIALS
        if subvols:
            expect |= SUBVOLUMES
        return [Volume(name, "btrfs", path, expect=expect, marker=marker)]
    return make


def log_tree(ctx, name):
    """A copy taken after an fsync and before the next commit: its superblock
    names a log root tree. The checker must judge the copy and its restored
    image alike."""
    need_loop()

    def build(img, scratch):
        make_volume(img, [])
        # A long commit interval keeps the fsync'd change in the log only.
        with mounted(img, read_only=False, options="commit=300") as mnt:
            populate(mnt, scratch, base=False)
            os.sync()
            for i in range(20):
                fd = os.open(os.path.join(mnt, "logged_%02d.txt" % i), os.O_WRONLY | os.O_CREAT, 0o640)
                os.write(fd, b"fsync'd %d\n" % i * 50)
                os.fsync(fd)
                os.close(fd)
            shutil.copyfile(img, img + ".copy")
        os.replace(img + ".copy", img)
        r = util.run(["btrfs", "inspect-internal", "dump-super", img], check=True)
        if "log_root\t\t\t0\n" in r.out or "log_root" not in r.out:
            raise Fail("the copy has no log root; the recipe did not catch the log")

    path = _cached(ctx, name, build)
    return [Volume(name, "btrfs", path, checker_must_pass=None,
                   note="copied while mounted, with a log tree")]


def first_copy_bad(ctx, name):
    """DUP metadata whose root tree root has a damaged first copy: the
    image must keep the second, and the restored volume read from it."""
    need_loop()

    def build(img, scratch):
        make_volume(img, ["-m", "dup"])
        with mounted(img, read_only=False) as mnt:
            populate(mnt, scratch, base=False)
            subvolumes(mnt)
        first = mirrors(img, super_field(img, "root"))[0]
        with open(img, "r+b") as f:
            f.seek(first + 0x200)
            b = f.read(1)
            f.seek(first + 0x200)
            f.write(bytes([b[0] ^ 0xFF]))

    path = _cached(ctx, name, build)
    vol = Volume(name, "btrfs", path, expect=SPECIALS | SUBVOLUMES)
    vol.bad_first_copy = super_field(path, "root")
    return [vol]


def big(ctx, name):
    """A directory of 50,000 entries and a chain of 200 directories on 4 KiB
    nodes: the fs tree grows level-2 nodes."""
    need_loop()

    def build(img, scratch):
        make_volume(img, ["-n", "4096"], 512)
        with mounted(img, read_only=False) as mnt:
            w = os.path.join(mnt, "wide")
            os.mkdir(w)
            for i in range(WIDE_ENTRIES):
                open(os.path.join(w, "entry_%06d_with_a_longer_name" % i), "w").close()
            p = os.path.join(mnt, "deep")
            for i in range(DEEP_LEVELS):
                p = os.path.join(p, "d%03d" % i)
            os.makedirs(p)
            os.sync()
        r = util.run(["btrfs", "inspect-internal", "dump-tree", "-t", "5", img], timeout=300, check=True)
        if "node " not in r.out or "level 2" not in r.out:
            raise Fail("the fs tree has no level-2 node; the recipe made too small a tree")

    path = _cached(ctx, name, build)
    return [Volume(name, "btrfs", path, expect={"wide", "wide/entry_049999_with_a_longer_name"})]


RECIPES = {
    "btrfs_default": recipe([], subvols=True, marker=True),
    "btrfs_n4k": recipe(["-n", "4096"]),
    "btrfs_n64k": recipe(["-n", "65536"]),
    "btrfs_msingle": recipe(["-m", "single"], base=False),
    "btrfs_mixed": recipe(["-M"], base=False),
    "btrfs_zstd": recipe([], mount_options="compress=zstd", base=False),
    "btrfs_quota_snapshots": recipe(["-n", "4096"], subvols=True, quota=True, base=False),
    "btrfs_csums": lambda ctx, name: sum((recipe(["--csum", c], base=False)(ctx, name + "_" + c)
                                          for c in ("xxhash", "sha256", "blake2")), []),
    "btrfs_log": log_tree,
    "btrfs_first_copy_bad": first_copy_bad,
    "btrfs_big": big,
}

GROUPS = {
    "btrfs": ["btrfs_default", "btrfs_n4k", "btrfs_n64k", "btrfs_msingle", "btrfs_mixed", "btrfs_zstd",
              "btrfs_quota_snapshots", "btrfs_csums", "btrfs_log", "btrfs_first_copy_bad"],
    "btrfs_big": ["btrfs_big"],
}

recipes.FILESYSTEMS["btrfs"] = FS
recipes.RECIPES.update(RECIPES)
recipes.GROUPS.update(GROUPS)
