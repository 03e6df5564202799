"""The registry: one checker per file system, one recipe per volume kind, and
the groups that CTest runs. Adding a file system means adding one entry to
FILESYSTEMS and its recipes to RECIPES."""
import glob
import os
import shutil
import tempfile
from contextlib import contextmanager
from dataclasses import dataclass, field

import marker
import tree
import util
from util import Fail, Skip

# Bump when a recipe or the tree changes, so cached volumes are rebuilt.
CACHE_VERSION = "8"


# ---------------------------------------------------------------- checkers

def fls_listing(path, under_deleted=False, orphans=False):
    """Names, types, times and sizes of every entry, deleted ones included,
    except (unless orphans) what lies among the lister's orphans and, unless
    under_deleted, under a deleted directory: ext images do not keep a
    deleted directory's blocks, by design."""
    r = util.run(["fls", "-r", "-p", "-l", path], timeout=300)
    if r.returncode != 0:
        return "fls exit %d\n%s" % (r.returncode, r.out), set()
    names, kept, dropped = set(), [], []
    for line in r.out.splitlines():
        head, _, rest = line.partition(":\t")
        name = rest.split("\t")[0]
        if any(name.startswith(d + "/") for d in dropped) or (name.startswith("$OrphanFiles") and not orphans):
            continue
        kept.append(line)
        if "*" in head:
            if head.startswith("d/d") and not under_deleted:
                dropped.append(name)
            continue
        names.add(short_components(name))
    return "\n".join(kept), names


def fls_full_listing(path):
    """fls_listing with what lies under deleted directories: FAT and exFAT
    images keep deleted directories while their clusters are free."""
    return fls_listing(path, under_deleted=True)


def mdir_listing(path):
    # Compared as it comes, exit status included: on some real volumes the
    # tool refuses the root (an empty root exits 1, for example).
    r = util.run(["mdir", "-/", "-a", "-i", path, "::/"], timeout=300)
    return "mdir exit %d\n%s" % (r.returncode, r.out), None


def short_components(path):
    # The lister cuts very long FAT names at about 247 characters.
    return "/".join(c[:240] for c in path.split("/"))


@dataclass
class FileSystem:
    checker: list
    listers: list
    extra: object = None   # extra(volume, source, restored, contents_kept) -> problems

    def check(self, path):
        r = util.run(self.checker + [path], timeout=300)
        return r.returncode, r.out


FILESYSTEMS = {
    "fat": FileSystem(["fsck.fat", "-n", "-V"], [fls_full_listing, mdir_listing], extra=marker.check),
    "exfat": FileSystem(["fsck.exfat", "-n"], [fls_full_listing], extra=marker.check),
    "ext": FileSystem(["e2fsck", "-fn"], [fls_listing], extra=marker.check),
}


@dataclass
class Volume:
    name: str
    fs: str
    path: str
    raw: bool = False
    to_stdout: bool = False
    checker_must_pass: object = True   # None: decided by the original's verdict
    note: str = ""
    expect: set = field(default_factory=set)
    data: bool = False       # dumped with -data
    marker: bool = False     # holds a marker file whose content a metadata image leaves out


# ------------------------------------------------------------ populating

def apply_ops(ops, driver, scratch):
    """Replays tree operations, batching runs of puts into one directory."""
    i = 0
    while i < len(ops):
        kind, path = ops[i][0], ops[i][1]
        parent = os.path.dirname(path)
        if kind == "put":
            batch = []
            while i < len(ops) and ops[i][0] == "put" and os.path.dirname(ops[i][1]) == parent:
                name, size = os.path.basename(ops[i][1]), ops[i][2]
                d = os.path.join(scratch, "b%d" % i)
                os.makedirs(d)
                host = os.path.join(d, name)
                tree.write_host_file(host, ops[i][1], size)
                batch.append(host)
                i += 1
            driver.put(parent, batch)
            continue
        if kind == "rm":
            batch = []
            while i < len(ops) and ops[i][0] == "rm":
                batch.append(ops[i][1])
                i += 1
            driver.rm(batch)
            continue
        getattr(driver, kind)(path)
        i += 1
    driver.finish()


class MtoolsDriver:
    def __init__(self, img):
        self.img = img

    def _m(self, *args):
        util.run(list(args), check=True, timeout=300)

    def mkdir(self, p):
        self._m("mmd", "-i", self.img, "::/" + p)

    def rmdir(self, p):
        self._m("mrd", "-i", self.img, "::/" + p)

    def put(self, parent, hosts):
        self._m("mcopy", "-D", "o", "-i", self.img, *hosts, "::/" + parent + ("/" if parent else ""))

    def rm(self, paths):
        self._m("mdel", "-i", self.img, *["::/" + p for p in paths])

    def rmtree(self, p):
        self._m("mdeltree", "-i", self.img, "::/" + p)

    def finish(self):
        pass


class DirDriver:
    """A mounted file system, changed through the kernel (or FUSE)."""

    def __init__(self, root):
        self.root = root

    def mkdir(self, p):
        os.mkdir(os.path.join(self.root, p))

    def rmdir(self, p):
        os.rmdir(os.path.join(self.root, p))

    def put(self, parent, hosts):
        for h in hosts:
            shutil.copyfile(h, os.path.join(self.root, parent, os.path.basename(h)))
        os.sync()

    def rm(self, paths):
        for p in paths:
            os.unlink(os.path.join(self.root, p))

    def rmtree(self, p):
        shutil.rmtree(os.path.join(self.root, p))
        os.sync()

    def finish(self):
        os.sync()


class DebugfsDriver:
    """Offline ext changes: one debugfs script run at the end."""

    def __init__(self, img):
        self.img = img
        self.cmds = []

    # Every command works on a name in the current directory: debugfs does
    # not resolve a leading "/" alone as the root when unlinking.
    def _in(self, cmd, p):
        self.cmds += ["cd /" + os.path.dirname(p), "%s %s" % (cmd, os.path.basename(p))]

    def mkdir(self, p):
        self._in("mkdir", p)

    def rmdir(self, p):
        self._in("rmdir", p)

    def put(self, parent, hosts):
        self.cmds.append("cd /" + parent)
        for h in hosts:
            self.cmds.append("write %s %s" % (h, os.path.basename(h)))

    def rm(self, paths):
        for p in paths:
            self._in("rm", p)

    def finish(self):
        script = self.img + ".debugfs"
        with open(script, "w") as f:
            f.write("\n".join(self.cmds) + "\n")
        # debugfs exits 0 even when a command fails; a lost entry shows up in
        # the listing check against the generated tree.
        util.run(["debugfs", "-w", "-f", script, self.img], timeout=300, check=True)
        os.unlink(script)


# ---------------------------------------------------------------- recipes

def _cached(ctx, name, build):
    """Builds a volume once per cache version and returns its path."""
    path = os.path.join(ctx.cache, "volumes", name + ".img")
    stamp = path + ".v" + CACHE_VERSION
    with util.locked(path):
        if not os.path.exists(stamp):
            util.remove(path)
            for old in glob.glob(path + ".v*"):
                util.remove(old)
            with tempfile.TemporaryDirectory(dir=os.path.dirname(path)) as scratch:
                tmp = os.path.join(scratch, "vol.img")
                build(tmp, scratch)
                os.replace(tmp, path)
            open(stamp, "w").close()
    return path


def _staged(prof, scratch, extra=None):
    bulk, t = tree.generate(prof)
    if extra:
        bulk += extra
        t.expect |= {p for p, _ in extra}
    root = os.path.join(scratch, "stage")
    os.makedirs(root)
    tree.stage(bulk, root)
    return root, t


def fat_recipe(bits, sector, cluster, size_mb, prof=tree.FAT_LIGHT):
    def make(ctx, name):
        util.need("mkfs.fat", "mcopy", "mmd", "mdel", "mrd")
        def build(img, scratch):
            with open(img, "wb") as f:
                f.truncate(size_mb << 20)
            util.run(["mkfs.fat", "-F", str(bits), "-S", str(sector), "-s", str(cluster // sector),
                      "-i", "1234ABCD", "-n", "RT%d" % bits, img], check=True)
            root, t = _staged(prof, scratch)
            marker.write(root)
            util.run(["mcopy", "-s", "-Q", "-D", "o", "-i", img] + sorted(glob.glob(root + "/*")) + ["::/"],
                     check=True, timeout=600)
            apply_ops(t.ops, MtoolsDriver(img), os.path.join(scratch, "ops"))

        path = _cached(ctx, name, build)
        expect = tree.generate(prof)[1].expect | {marker.NAME}
        return [Volume(name, "fat", path, expect=set(expect), marker=True)]
    return make


def ext_recipe(mkfs_args, size_mb, htree=0, extended="", mark=True):
    """extended: more mke2fs -E options; mark: put the marker file in."""
    inline = "inline_data" in mkfs_args

    def make(ctx, name):
        util.need("mke2fs", "debugfs", "e2fsck")

        def build(img, scratch):
            extra = [("htree", None)] + [("htree/h%06d_%s" % (i, "entry" * (i % 4)), 0) for i in range(htree)] \
                if htree else None
            root, t = _staged(tree.EXT, scratch, extra)
            if mark:
                marker.write(root, inline)
            with open(img, "wb") as f:
                f.truncate(size_mb << 20)
            util.run(["mke2fs", "-q", "-F", "-U", "6a1e3c55-0f0e-4c1a-9d5e-1234567890ab",
                      "-E", "hash_seed=0b4c3a2e-1111-2222-3333-444455556666,root_owner=0:0" + extended]
                     + mkfs_args + ["-d", root, img], check=True, timeout=600)
            apply_ops(t.ops, DebugfsDriver(img), os.path.join(scratch, "ops"))
            if htree:
                # Index the big directory (mke2fs -d leaves it linear).
                r = util.run(["e2fsck", "-fyD", img], timeout=600)
                if r.returncode not in (0, 1):
                    raise Fail("e2fsck -fyD failed (%d):\n%s" % (r.returncode, util.tail_lines(r.out)))

        path = _cached(ctx, name, build)
        expect = set(tree.generate(tree.EXT)[1].expect)
        if mark:
            expect |= {marker.NAME} | ({marker.INLINE_NAME} if inline else set())
        return [Volume(name, "ext", path, expect=expect, marker=mark)]
    return make


def ext_subdirs_recipe(mkfs_args, size_mb, subdirs):
    """An empty volume given `subdirs` directories in the root, one by one,
    so the root's blocks (its indirect block among them) come first."""
    def make(ctx, name):
        util.need("mke2fs", "debugfs", "e2fsck")
        names = ["subdirectory_%04d" % i for i in range(subdirs)]

        def build(img, scratch):
            with open(img, "wb") as f:
                f.truncate(size_mb << 20)
            util.run(["mke2fs", "-q", "-F"] + mkfs_args + [img], check=True, timeout=600)
            driver = DebugfsDriver(img)
            for n in names:
                driver.mkdir(n)
            driver.finish()

        return [Volume(name, "ext", _cached(ctx, name, build), expect=set(names))]
    return make


def _fuse_problem():
    if os.geteuid() != 0:
        return "not root"
    if not os.path.exists("/dev/fuse"):
        return "/dev/fuse missing"
    for t in ("mount.exfat-fuse", "losetup", "umount"):
        if not shutil.which(t):
            return "%s not installed" % t
    return None


@contextmanager
def _fuse_mounted(img, scratch):
    """The exFAT volume in `img` mounted through FUSE on a loop device."""
    r = util.run(["losetup", "-f", "--show", img])
    if r.returncode != 0:
        raise Skip("losetup failed: %s" % r.out.strip())
    loop = r.out.strip()
    mnt = os.path.join(scratch, "mnt")
    os.makedirs(mnt)
    try:
        r = util.run(["mount.exfat-fuse", loop, mnt])
        if r.returncode != 0:
            raise Skip("mount.exfat-fuse failed: %s" % r.out.strip())
        try:
            yield mnt
        finally:
            util.run(["umount", mnt], check=True)
    finally:
        util.run(["losetup", "-d", loop])


def build_exfat(img, scratch, size_mb, mkfs_args, prof, mark=False):
    with open(img, "wb") as f:
        f.truncate(size_mb << 20)
    util.run(["mkfs.exfat", "-L", "RTEXFAT"] + mkfs_args + [img], check=True)
    root, t = _staged(prof, scratch)
    if mark:
        marker.write(root)
    with _fuse_mounted(img, scratch) as mnt:
        for e in sorted(os.listdir(root)):
            s = os.path.join(root, e)
            if os.path.isdir(s):
                shutil.copytree(s, os.path.join(mnt, e), copy_function=shutil.copyfile)
            else:
                shutil.copyfile(s, os.path.join(mnt, e))
        apply_ops(t.ops, DirDriver(mnt), os.path.join(scratch, "ops"))
    return t


def exfat_recipe(size_mb, mkfs_args):
    def make(ctx, name):
        util.need("mkfs.exfat", "fsck.exfat")
        why = _fuse_problem()
        if why:
            raise Skip("exFAT volumes need FUSE on a loop device: " + why)
        path = _cached(ctx, name, lambda img, scratch: build_exfat(img, scratch, size_mb, mkfs_args, tree.EXFAT, True))
        return [Volume(name, "exfat", path, expect=set(tree.generate(tree.EXFAT)[1].expect) | {marker.NAME},
                       marker=True)]
    return make


def deleted_trees_recipe(fs):
    """A fresh volume on which whole directory trees were deleted, several
    levels deep, beside a kept one; a directory made afterwards may take
    some of their clusters again."""
    def make(ctx, name):
        ops, expect = tree.deleted_trees()
        if fs == "fat":
            util.need("mkfs.fat", "mcopy", "mmd", "mdeltree")

            def build(img, scratch):
                with open(img, "wb") as f:
                    f.truncate(32 << 20)
                util.run(["mkfs.fat", "-F", "16", "-s", "4", "-i", "1234ABCD", "-n", "RTDEL", img], check=True)
                apply_ops(ops, MtoolsDriver(img), os.path.join(scratch, "ops"))
        else:
            util.need("mkfs.exfat", "fsck.exfat")
            why = _fuse_problem()
            if why:
                raise Skip("exFAT volumes need FUSE on a loop device: " + why)

            def build(img, scratch):
                with open(img, "wb") as f:
                    f.truncate(32 << 20)
                util.run(["mkfs.exfat", "-L", "RTDEL", "-c", "4K", img], check=True)
                with _fuse_mounted(img, scratch) as mnt:
                    apply_ops(ops, DirDriver(mnt), os.path.join(scratch, "ops"))

        return [Volume(name, fs, _cached(ctx, name, build), expect=expect)]
    return make


# Small exFAT volumes kept in tests/data for machines without FUSE.
DATA_EXFAT = {
    "exfat_small_4k": (16, ["-c", "4K"]),
    "exfat_small_unaligned": (24, ["-c", "8K", "-b", "1K"]),
}


def build_data(ctx):
    """Re-makes the pre-built exFAT volumes of tests/data (needs FUSE)."""
    why = _fuse_problem()
    if why:
        raise Skip("cannot build exFAT volumes here: " + why)
    os.makedirs(ctx.data, exist_ok=True)
    for base, (size_mb, args) in sorted(DATA_EXFAT.items()):
        with tempfile.TemporaryDirectory() as scratch:
            img = os.path.join(scratch, base + ".img")
            build_exfat(img, scratch, size_mb, args, tree.SMALL_EXFAT)
            dst = os.path.join(ctx.data, base + ".img.zst")
            util.run(["zstd", "-19", "-q", "-f", img, "-o", dst], check=True)
            print("built %s (%d bytes)" % (dst, os.path.getsize(dst)))


def exfat_data(ctx, name):
    util.need("zstd")
    vols = []
    for base in sorted(DATA_EXFAT):
        src = os.path.join(ctx.data, base + ".img.zst")
        if not os.path.exists(src):
            raise Fail("pre-built volume %s is missing" % src)
        path = os.path.join(ctx.cache, "volumes", base + ".img")
        with util.locked(path):
            if not os.path.exists(path) or os.path.getmtime(path) < os.path.getmtime(src):
                util.zstd_decompress(src, path)
        vols.append(Volume(base, "exfat", path, expect=set(tree.generate(tree.SMALL_EXFAT)[1].expect)))
    return vols


def fixtures(ctx, name):
    util.need("zstd")
    vols = []
    for fs in ("fat", "exfat", "ext"):
        for src in sorted(glob.glob(os.path.join(ctx.fixtures, fs, "*.img.zst"))):
            base = os.path.basename(src)[:-len(".img.zst")]
            path = os.path.join(ctx.cache, "volumes", "fixture_" + base + ".img")
            with util.locked(path):
                if not os.path.exists(path):
                    util.zstd_decompress(src, path)
            note = "fixture: the restored verdict must match the original's"
            if base == "fat16_winxp_dftt_undelete":
                note = "boot sector claims 12033 sectors, the image has 12032"
            vols.append(Volume("fixture_" + base, fs, path, checker_must_pass=None, note=note))
    vols += ntfs.fixtures(ctx)
    if not vols:
        raise Skip("no fixtures under %s" % ctx.fixtures)
    return vols


def raw_cases(ctx, name):
    vols = []
    for v in RECIPES["fat16_2k"](ctx, "fat16_2k"):
        vols.append(Volume(v.name + "_raw", v.fs, v.path, raw=True, expect=v.expect, marker=v.marker))
    for v in fixtures(ctx, name):
        if v.fs == "ext":
            vols.append(Volume(v.name + "_raw_stdout", v.fs, v.path, raw=True, to_stdout=True,
                               checker_must_pass=None, note=v.note))
    return vols


RECIPES = {
    "fat16_2k": fat_recipe(16, 512, 2048, 64, tree.FAT),
    "fat16_16k": fat_recipe(16, 512, 16384, 96),
    "fat32_512": fat_recipe(32, 512, 512, 64),
    "fat32_4k": fat_recipe(32, 512, 4096, 300),
    "fat32_s4k": fat_recipe(32, 4096, 4096, 300),
    "fat32_s4k_16k": fat_recipe(32, 4096, 16384, 1100),
    "exfat_4k": exfat_recipe(128, ["-c", "4K"]),
    "exfat_512": exfat_recipe(64, ["-c", "512"]),
    "exfat_128k_unaligned": exfat_recipe(256, ["-c", "128K", "-b", "4K"]),
    "exfat_data": exfat_data,
    "fat16_deleted_trees": deleted_trees_recipe("fat"),
    "exfat_deleted_trees": deleted_trees_recipe("exfat"),
    "ext4": ext_recipe(["-t", "ext4"], 128),
    "ext4_htree": ext_recipe(["-t", "ext4"], 128, htree=20000),
    "ext2": ext_recipe(["-t", "ext2"], 128),
    "ext3_1k": ext_recipe(["-t", "ext3", "-b", "1024"], 96),
    "ext4_inline": ext_recipe(["-t", "ext4", "-O", "inline_data", "-I", "256"], 128),
    # Groups of 256 blocks: the root's indirect block lies among the first
    # blocks after the superblock, which the fixed metadata already keeps.
    "ext2_small_groups": ext_subdirs_recipe(["-t", "ext2", "-b", "1024", "-g", "256", "-O", "^resize_inode"], 32,
                                            600),
    # 3 TiB, sparse: block numbers whose byte offsets need more than 32 bits.
    # Few inodes and no journal keep the image (every table and bitmap) small.
    # No marker: one block per group is kept from block 1 on, 24,576 blocks
    # here, and the marker would land among them.
    "ext4_3tib": ext_recipe(["-t", "ext4", "-N", "4096", "-O", "^has_journal,^resize_inode"], 3 << 20,
                            extended=",lazy_itable_init=1,nodiscard", mark=False),
    "fixtures": fixtures,
    "raw": raw_cases,
}

GROUPS = {
    "fat16": ["fat16_2k", "fat16_16k", "fat16_deleted_trees"],
    "fat32": ["fat32_512", "fat32_4k"],
    "fat32_4k": ["fat32_s4k", "fat32_s4k_16k"],
    "exfat": ["exfat_4k", "exfat_512", "exfat_128k_unaligned", "exfat_data", "exfat_deleted_trees"],
    "ext4": ["ext4"],
    "ext4_htree": ["ext4_htree"],
    "ext2": ["ext2"],
    "ext3_1k": ["ext3_1k"],
    "ext4_inline": ["ext4_inline"],
    "ext_large": ["ext2_small_groups", "ext4_3tib"],
    "fixtures": ["fixtures"],
    "raw": ["raw"],
}


import ntfs  # noqa: E402,F401  (builds on the definitions above and adds itself to them)
import apfs  # noqa: E402,F401  (likewise)
import hfs  # noqa: E402,F401  (likewise)
import btrfs  # noqa: E402,F401  (likewise)


def volumes_for(ctx, group):
    """Volumes of a group; a recipe that cannot run here is skipped visibly
    while the others still run. The group is skipped only when none can."""
    if group not in GROUPS:
        raise Fail("unknown group %s (known: %s)" % (group, ", ".join(sorted(GROUPS) + ["negative"])))
    vols, skipped = [], []
    for r in GROUPS[group]:
        try:
            vols += RECIPES[r](ctx, r)
        except Skip as e:
            print("SKIP recipe %s: %s" % (r, e), flush=True)
            skipped.append(r)
    if not vols:
        raise Skip("every recipe of %s was skipped" % group)
    return vols
