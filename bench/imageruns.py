#!/usr/bin/env python3
"""Helpers for the benchmarks, built on the round-trip tests' image reader.

  imageruns.py runs IMAGE             byte runs the image stores: "offset length" lines
  imageruns.py read VOLUME RUNS OUT   reads those runs from VOLUME into OUT, 2 MiB at a time
  imageruns.py check IMAGE VOLUME     every stored block equals the volume; prints a summary
                                      and how much of the stored data is zero
"""
import os
import sys

PIECE = 2 << 20


def image_module():
    here = os.path.dirname(os.path.abspath(__file__))
    sys.path.insert(0, os.path.join(here, "..", "tests", "roundtrip"))
    import image
    return image


def list_runs(img_path):
    image = image_module()
    with open(img_path, "rb") as img:
        n, k = image.parse_header(img.read(64))
        bitmap = img.read((n + 7) // 8)
    for first, count in image.runs(bitmap, n):
        print(first << k, count << k)


def read_runs(vol_path, runs_path, out_path):
    # The baseline: nothing but positioned reads of the given runs and
    # sequential writes of what they returned.
    with open(runs_path) as f:
        runs = [tuple(map(int, line.split())) for line in f]
    src = os.open(vol_path, os.O_RDONLY)
    dst = os.open(out_path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
    for off, length in runs:
        end = off + length
        while off < end:
            data = os.pread(src, min(PIECE, end - off), off)
            if not data:
                sys.exit("%s: short read at %d" % (vol_path, off))
            os.write(dst, data)
            off += len(data)
    os.close(dst)
    os.close(src)


def check(img_path, vol_path):
    st = image_module().verify(img_path, vol_path)
    for p in st.problems:
        print("image problem:", p)
    if st.problems:
        sys.exit(1)
    # Whole zero blocks, and the data a sparse copy would keep: the 4 KiB
    # pieces that are not all zero.
    zeros = dense = 0
    page = 4096 if st.block % 4096 == 0 else st.block
    empty = bytes(st.block)
    with open(img_path, "rb") as img:
        n, _ = image_module().parse_header(img.read(64))
        img.seek(((n + 7) // 8 + 4159) & ~4095)
        for _ in range(st.stored):
            data = img.read(st.block)
            if data == empty:
                zeros += 1
                continue
            dense += sum(page for i in range(0, st.block, page) if data[i:i + page] != empty[:page])
    print("image check: %d blocks of %d bytes stored, all equal to the volume; %d of them all zero (%d bytes);"
          " %d bytes in %d-byte pieces not all zero" % (st.stored, st.block, zeros, zeros * st.block, dense, page))


def main():
    args = sys.argv[1:]
    if args[:1] == ["runs"] and len(args) == 2:
        list_runs(args[1])
    elif args[:1] == ["read"] and len(args) == 4:
        read_runs(*args[1:])
    elif args[:1] == ["check"] and len(args) == 3:
        check(*args[1:])
    else:
        sys.exit(__doc__.strip())


if __name__ == "__main__":
    main()
