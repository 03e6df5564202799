#!/usr/bin/env python3
"""Writes a deterministic, realistic-looking file tree for the benchmarks:
many directories of uneven width and depth, mostly small files, a few large
ones, names both short and long.

Usage: gentree.py ROOT FILES PROFILE   (PROFILE: ext, fat or exfat)
"""
import os
import random
import sys

# (share, smallest, largest) bytes per size class, then (count, smallest,
# largest) for a handful of big files. Shares add up to 1.
PROFILES = {
    "ext": dict(files_per_dir=20, max_depth=9,
                sizes=[(0.30, 0, 1024), (0.60, 1024, 6 << 10), (0.095, 6 << 10, 48 << 10),
                       (0.005, 48 << 10, 512 << 10)],
                big=(8, 4 << 20, 24 << 20)),
    "fat": dict(files_per_dir=20, max_depth=7,
                sizes=[(0.40, 0, 2048), (0.55, 2048, 8 << 10), (0.045, 8 << 10, 64 << 10),
                       (0.005, 64 << 10, 1 << 20)],
                big=(4, 4 << 20, 16 << 20)),
    "exfat": dict(files_per_dir=33, max_depth=7,
                  sizes=[(0.20, 0, 0), (0.70, 1, 4096), (0.10, 4096, 32 << 10)],
                  big=(4, 4 << 20, 16 << 20)),
}

WORDS = ("report draft notes photo invoice backup config data scan music track lecture summary budget "
         "letter project archive export log readme thumbnail chapter figure table meeting holiday").split()
EXTS = (".txt", ".jpg", ".pdf", ".docx", ".c", ".h", ".json", ".log", ".png", ".mp3", ".csv", ".bin", "")


def file_name(rnd, i):
    style = rnd.random()
    ext = rnd.choice(EXTS)
    if style < 0.35:
        return "F%06d%s" % (i, ext[:4])                       # fits a short name
    if style < 0.85:
        return "%s_%d%s" % (rnd.choice(WORDS), i, ext)
    words = " ".join(rnd.choice(WORDS).capitalize() for _ in range(rnd.randint(2, 6)))
    return "%s (%d)%s" % (words, i, ext)                      # long, with blanks


def dir_name(rnd, i):
    if rnd.random() < 0.5:
        return "D%05d" % i
    return "%s %s %d" % (rnd.choice(WORDS).capitalize(), rnd.choice(WORDS), i)


def make_dirs(rnd, root, count, max_depth):
    """Each new directory hangs below a recent one more often than an old one,
    which gives deep chains next to wide, shallow parts."""
    dirs = [(root, 0)]
    for i in range(1, count):
        pick = len(dirs) - 1 - int(rnd.expovariate(1 / 30)) % len(dirs)
        parent, depth = dirs[pick]
        if depth >= max_depth:
            parent, depth = dirs[rnd.randrange(min(len(dirs), 50))]
        path = os.path.join(parent, dir_name(rnd, i))
        os.mkdir(path)
        dirs.append((path, depth + 1))
    return [d for d, _ in dirs]


def pick_size(rnd, sizes):
    x = rnd.random()
    for share, lo, hi in sizes:
        if x < share:
            return rnd.randint(lo, hi)
        x -= share
    return sizes[-1][2]


def main():
    if len(sys.argv) != 4 or sys.argv[3] not in PROFILES:
        sys.exit(__doc__.strip())
    root, files, prof = sys.argv[1], int(sys.argv[2]), PROFILES[sys.argv[3]]
    rnd = random.Random(20261123)
    noise = rnd.randbytes(1 << 20)   # file contents: incompressible, never all zero
    os.makedirs(root)
    dirs = make_dirs(rnd, root, max(1, files // prof["files_per_dir"]), prof["max_depth"])
    # Uneven widths: a few directories take many files.
    weights = [rnd.paretovariate(1.2) for _ in dirs]
    targets = rnd.choices(dirs, weights, k=files)
    big_count, big_lo, big_hi = prof["big"]
    total = 0
    for i, d in enumerate(targets):
        size = rnd.randint(big_lo, big_hi) if i < big_count else pick_size(rnd, prof["sizes"])
        with open(os.path.join(d, file_name(rnd, i)), "wb") as f:
            start = rnd.randrange(len(noise))
            left = size
            while left:
                piece = noise[start:start + left]
                f.write(piece)
                left -= len(piece)
                start = 0
        total += size
        if (i + 1) % 20000 == 0:
            print("  %d of %d files" % (i + 1, files), file=sys.stderr, flush=True)
    print("%d files, %d directories, %d MiB of file data" % (files, len(dirs), total >> 20))


if __name__ == "__main__":
    main()
