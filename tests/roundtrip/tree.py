"""Deterministic test tree: a staging directory copied in bulk, then a list of
operations replayed on the mounted or offline volume so that directories grow
interleaved with file data (fragmented directories) and some entries are
deleted again (deleted directory entries stay behind on disk)."""
import os
import random
from dataclasses import dataclass, field


@dataclass
class Profile:
    name_max: int = 255          # longest name the file system takes (characters)
    name_bytes: bool = False     # name_max counts UTF-8 bytes (ext), not characters
    emoji: bool = True           # characters outside the BMP allowed
    depth: int = 20
    wide: int = 2500
    big: int = 24 << 20          # one large, mostly-zero file
    rounds: int = 8              # interleaving rounds
    per_round: int = 40          # entries added to each fragmented directory per round


FAT = Profile(emoji=False, wide=2000)
# The offline FAT tools slow down quadratically in a wide directory, so only
# one FAT recipe gets the wide one.
FAT_LIGHT = Profile(emoji=False, wide=400)
EXFAT = Profile()
EXT = Profile(name_bytes=True)
SMALL_EXFAT = Profile(depth=20, wide=600, big=3 << 20, rounds=4, per_round=30)

SIZES = [0, 1, 511, 512, 513, 4095, 4096, 4097, 65536, 1 << 20, (1 << 20) + 1]


@dataclass
class Tree:
    ops: list = field(default_factory=list)      # ("mkdir"|"put"|"rm"|"rmdir", path[, size])
    expect: set = field(default_factory=set)      # paths that must be listed at the end


def content(path, size):
    # Compressible but path-dependent, so misplaced blocks would show.
    if size == 0:
        return b""
    seed = (path.encode() + b"|")
    return (seed * (size // len(seed) + 1))[:size]


def write_host_file(dst, path, size):
    with open(dst, "wb") as f:
        if size > (4 << 20):
            # Mostly holes: data at the start, in the middle and at the end.
            for off in (0, size // 2, size - 4096):
                f.seek(off)
                f.write(content(path, 4096))
            f.truncate(size)
        else:
            f.write(content(path, size))


def _long_name(prof, stem, fill):
    limit = prof.name_max
    name = stem
    while True:
        cand = name + fill
        # The staging directory's own limit is 255 bytes too.
        if len(cand) > limit or len(cand.encode()) > 255:
            return name
        name = cand


def generate(prof, seed=1234):
    """Returns (bulk, tree): bulk is a list of (path, size|None) to stage before
    the volume is populated (None = directory), tree the later operations."""
    rnd = random.Random(seed)
    bulk = []
    tree = Tree()

    def d(p):
        bulk.append((p, None))
        tree.expect.add(p)

    def f(p, size):
        bulk.append((p, size))
        tree.expect.add(p)

    # Files of many sizes, non-ASCII names.
    d("sizes")
    for i, s in enumerate(SIZES):
        f("sizes/size_%02d_%d.bin" % (i, s), s)
    f("big_sparse.bin", prof.big)
    d("intl")
    names = ["caf\u00e9_name_%d.txt", "gr\u00fc\u00dfe_name_%d.txt", "\u65e5\u672c_%d.txt", "\u00c5ngstr\u00f6m_%d"]
    if prof.emoji:
        names += ["\U0001F600_smile_%d.txt", "mix_\u00e9\U0001F680\u65e5_%d"]
    for i, n in enumerate(names):
        f("intl/" + (n % i), rnd.choice(SIZES))
    d("intl/\u00fcber_directory")
    f("intl/\u00fcber_directory/inner.txt", 100)
    # Long names, at the limit and one step below.
    d("long")
    f("long/" + _long_name(prof, "L1_", "x"), 10)
    f("long/" + _long_name(prof, "L2_", "\u00e9"), 20)
    f("long/" + _long_name(prof, "L3_", "y")[:-1], 0)
    # Deep nesting.
    p = "deep"
    d(p)
    for lvl in range(prof.depth):
        p += "/lvl%02d" % lvl
        d(p)
    f(p + "/bottom.txt", 4097)
    # One wide directory.
    d("wide")
    for i in range(prof.wide):
        f("wide/wide_%05d_%s.dat" % (i, "\u00e9" if i % 7 == 0 else "e"), 0 if i % 3 else (i % 900))
    # Empty files and an empty directory.
    d("empty_dir")
    for i in range(5):
        f("empty_%d" % i, 0)

    # Fragmented directories: both grow, interleaved with file data.
    tree.ops += [("mkdir", "fragA"), ("mkdir", "fragB"), ("mkdir", "doomed")]
    tree.expect |= {"fragA", "fragB"}
    for r in range(prof.rounds):
        for i in range(prof.per_round):
            tree.ops.append(("put", "fragA/a%02d_%03d_fragment_name.txt" % (r, i), 1 + (i % 3) * 700))
        tree.ops.append(("put", "pad%02d.bin" % r, 9000 + r))
        for i in range(prof.per_round):
            tree.ops.append(("put", "fragB/b%02d_%03d_fragment_name.txt" % (r, i), 1 + (i % 5) * 300))
        tree.ops.append(("put", "doomed/d%02d.bin" % r, 5000))
    for op in tree.ops:
        if op[0] == "put":
            tree.expect.add(op[1])
    # Deletions: some pads, every fourth fragA entry, a whole directory.
    dels = []
    for r in range(0, prof.rounds, 2):
        dels.append(("rm", "pad%02d.bin" % r))
    for r in range(prof.rounds):
        for i in range(0, prof.per_round, 4):
            dels.append(("rm", "fragA/a%02d_%03d_fragment_name.txt" % (r, i)))
    for r in range(prof.rounds):
        dels.append(("rm", "doomed/d%02d.bin" % r))
    dels.append(("rmdir", "doomed"))
    tree.ops += dels
    for op in dels:
        tree.expect.discard(op[1])
    return bulk, tree


def stage(bulk, root):
    for path, size in bulk:
        host = os.path.join(root, path)
        if size is None:
            os.makedirs(host, exist_ok=True)
        else:
            write_host_file(host, path, size)


def deleted_trees():
    """Operations that delete whole directory trees (files, sub-directories,
    four levels) beside a kept tree of the same shape, then make a new
    directory that may reuse their clusters. Returns (ops, expect)."""
    ops, expect = [], set()
    for top in ("kept", "gone", "gone_too"):
        p = top
        ops.append(("mkdir", p))
        for lvl in range(4):
            for i in range(3):
                ops.append(("put", "%s/file_%d_%d_with_a_long_name.txt" % (p, lvl, i), 100 + 700 * i))
            p += "/level%d" % lvl
            ops.append(("mkdir", p))
    expect = {op[1] for op in ops if op[1].startswith("kept")}
    ops += [("rmtree", "gone"), ("rmtree", "gone_too"), ("mkdir", "after"), ("put", "after/new.bin", 5000)]
    expect |= {"after", "after/new.bin"}
    return ops, expect
