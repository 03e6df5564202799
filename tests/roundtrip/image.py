"""Independent reader of metadata images, to check a dump byte by byte."""
import os
import re

HEADER_V1 = re.compile(rb"clusters ([0-9a-fA-F]+), cluster ([0-9a-fA-F]+)")
HEADER_V2 = re.compile(rb"V: ([0-9a-fA-F]+), (\d+)\.(\d+) Gb, C: ([0-9a-fA-F]+) x ([0-9a-fA-F]+), w: ")


class Stats:
    def __init__(self):
        self.problems = []
        self.stored = 0
        self.ok = 0
        self.block = 0
        self.tail = 0
        self.notes = []


def parse_header(hdr):
    """Returns (n, k)."""
    m = HEADER_V1.match(hdr)
    if m:
        return int(m.group(1), 16) + 1, int(m.group(2), 16)
    m = HEADER_V2.match(hdr)
    if not m:
        raise ValueError("unparsable header %r" % hdr)
    return int(m.group(4), 16), int(m.group(5), 16)


_NONZERO = re.compile(rb"[^\x00]")
_NOT_FULL = re.compile(rb"[^\xff]")


def runs(bitmap, n):
    """Yields (first, count) runs of set bits among the first n bits. Whole
    empty and whole full bytes are skipped at C speed (bitmaps of multi-TiB
    volumes run to hundreds of megabytes)."""
    i = 0
    while i < n:
        if (i & 7) == 0:
            m = _NONZERO.search(bitmap, i >> 3)
            if not m:
                return
            i = max(i, m.start() << 3)
            if i >= n:
                return
        if not (bitmap[i >> 3] >> (i & 7)) & 1:
            i += 1
            continue
        start = i
        while i < n and (bitmap[i >> 3] >> (i & 7)) & 1:
            if (i & 7) == 0:
                m = _NOT_FULL.search(bitmap, i >> 3)
                full_end = (m.start() if m else len(bitmap)) << 3
                if full_end > i:
                    i = min(full_end, n)
                    continue
            i += 1
        yield start, i - start


def verify(img_path, src_path, dst_path=None):
    """Every stored block equals the source at its offset (and, when given, the
    restored file there); the tail, when the dump rule asks for one, equals the
    source's last bytes."""
    st = Stats()
    vol_size = os.path.getsize(src_path)
    img_size = os.path.getsize(img_path)
    with open(img_path, "rb") as img, open(src_path, "rb") as src:
        dst = open(dst_path, "rb") if dst_path else None
        try:
            hdr = img.read(64)
            n, k = parse_header(hdr)
            st.block = 1 << k
            bsize = (n + 7) // 8
            bitmap = img.read(bsize)
            if len(bitmap) != bsize:
                st.problems.append("bitmap cut short")
                return st
            data_off = (bsize + 4159) & ~4095
            pad = img.read(data_off - 64 - bsize)
            if pad.strip(b"\0"):
                st.problems.append("padding before the data is not zero")
            last_end = 0
            for first, count in runs(bitmap, n):
                off = first << k
                length = count << k
                data = img.read(length)
                st.stored += count
                if len(data) != length:
                    st.problems.append("image data cut short at block %d" % first)
                    return st
                src.seek(off)
                want = src.read(length)
                if len(want) < length:
                    # Blocks beyond the source's end: the volume claims more than it has.
                    st.notes.append("blocks %d..%d reach past the source's end (%d bytes)"
                                    % (first, first + count - 1, vol_size))
                    data_cmp = data[:len(want)]
                else:
                    data_cmp = data
                bad = data_cmp != want
                if not bad and dst:
                    dst.seek(off)
                    bad = dst.read(len(data_cmp)) != data_cmp
                if bad:
                    for j in range(count):
                        a = data_cmp[j << k:(j + 1) << k]
                        if a != want[j << k:(j + 1) << k]:
                            b = first + j
                            st.problems.append("block %d differs from the source at 0x%x" % (b, b << k))
                            break
                        if dst:
                            dst.seek((first + j) << k)
                            if dst.read(len(a)) != a:
                                st.problems.append("block %d not restored at 0x%x" % (first + j, (first + j) << k))
                                break
                else:
                    st.ok += count
                last_end = off + length
            rest = img.read()
            want_tail = (n << k) < vol_size and last_end + 512 <= vol_size
            if want_tail:
                if not 512 <= len(rest) <= 1024:
                    st.problems.append("expected a tail of 512..1024 bytes, found %d" % len(rest))
                else:
                    src.seek(vol_size - len(rest))
                    if src.read(len(rest)) != rest:
                        st.problems.append("tail differs from the source's last %d bytes" % len(rest))
                    elif dst:
                        dst.seek(os.path.getsize(dst_path) - len(rest))
                        if dst.read(len(rest)) != rest:
                            st.problems.append("tail not restored at the end of the target")
                    st.tail = len(rest)
            elif rest:
                st.problems.append("%d unexpected bytes after the stored blocks" % len(rest))
            expected_size = data_off + (st.stored << k) + st.tail
            if img_size != expected_size:
                st.problems.append("image size %d, expected %d" % (img_size, expected_size))
        finally:
            if dst:
                dst.close()
    return st
