#!/usr/bin/env python3
"""Round trips of real volumes through mdsnap.

For every volume of a group: dump (metadata mode, or raw for the raw group),
restore into a fresh sparse file with --restore -c, then
  1. the file system's checker must accept the restored file read-only
     (fixtures: same verdict as on the original),
  2. an independent lister must show the same tree, names and sizes, on both,
  3. every stored block must equal the source at its offset, and the tail the
     source's last bytes,
  4. the image size is reported as a share of the volume.
Exit status: 0 pass, 1 fail, 77 skipped (reason printed)."""
import argparse
import hashlib
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import image   # noqa: E402
import recipes  # noqa: E402
import util  # noqa: E402
from util import Fail, Skip  # noqa: E402


def summary(name, vol_size, img_size, verdict, listing, blocks):
    ratio = 100.0 * img_size / vol_size if vol_size else 0.0
    print("SUMMARY %-34s volume %11d  image %10d  ratio %7.3f%%  checker %-24s listing %-6s blocks %s"
          % (name, vol_size, img_size, ratio, verdict, listing, blocks), flush=True)


def sha256(path):
    """Digest of every non-zero 1 MiB chunk and its offset. Only the parts
    the file system reports as data are read (holes read as zeros), so a
    sparse multi-TiB volume is hashed by what it holds, however its extents
    happen to be laid out at the moment."""
    chunk_size = 1 << 20
    h = hashlib.sha256()
    with open(path, "rb") as f:
        size = os.fstat(f.fileno()).st_size
        pos = 0
        while pos < size:
            try:
                start = os.lseek(f.fileno(), pos, os.SEEK_DATA)
                end = os.lseek(f.fileno(), start, os.SEEK_HOLE)
            except OSError:   # no data after pos
                break
            off = max(pos, start - start % chunk_size)
            while off < end:
                f.seek(off)
                chunk = f.read(chunk_size - off % chunk_size)
                if not chunk:
                    break
                if chunk.count(0) != len(chunk):
                    h.update(b"@%d" % off)
                    h.update(chunk)
                off += len(chunk)
            pos = off
        h.update(b"#%d" % size)
    return h.hexdigest()


def mode_args(ctx, raw, data, fork=False):
    mode = ["-dd"] if raw else ["--head"] if ctx.force == "head" else ["-data"] if data else []
    return mode + ["-fork"] if fork and not raw and ctx.force != "head" else mode


def dump(ctx, src, img, raw=False, expect_scanner=None, to_stdout=False, data=False, fork=False):
    """Dumps src into img and returns the mdsnap output. A refusal in metadata
    mode names the scanner as the one at fault."""
    util.remove(img)   # a dump does not truncate an existing image
    args = [ctx.mdsnap, "--dump", "--nopercents"] + mode_args(ctx, raw, data, fork)
    if to_stdout:
        with open(img, "wb") as f:
            r = util.run(args + [src], timeout=300, stdout=f)
    else:
        r = util.run(args + ["-f:" + img, src], timeout=300)
    if r.returncode != 0:
        hint = ""
        if r.returncode == 6 or "failed to recognize" in r.out:
            hint = ("\n  -> status 6 'failed to recognize': the %s scanner is missing or refused a real "
                    "volume of its file system; this is the scanner's fault, not the harness's"
                    % (expect_scanner or "?"))
        raise Fail("dump of %s failed with exit status %d%s\n%s" % (src, r.returncode, hint, r.out))
    return r.out


def restore(ctx, img, target):
    util.remove(target)
    r = util.run([ctx.mdsnap, "--restore", "-c", "--nopercents", "-f:" + img, target], timeout=300)
    if r.returncode != 0:
        raise Fail("restore of %s failed with exit status %d\n%s" % (img, r.returncode, r.out))
    return r.out


def round_trip(ctx, vol):
    """vol: recipes.Volume. Returns nothing; raises Fail."""
    src = vol.path
    fs = recipes.FILESYSTEMS[vol.fs]
    work = os.path.join(ctx.work, vol.name)
    os.makedirs(work, exist_ok=True)
    img = os.path.join(work, "img.mds")
    dst = os.path.join(work, "restored.img")
    vol_size = os.path.getsize(src)
    before = sha256(src)
    raw = vol.raw or ctx.force == "dd"
    fork = getattr(vol, "fork", False)   # HFS+ volumes may be dumped with -fork
    how = " raw" if raw else " --head" if ctx.force == "head" else " -data" if vol.data else ""
    how += " -fork" if "-fork" in mode_args(ctx, raw, vol.data, fork) else ""
    print("== %s (%s, %d bytes)%s" % (vol.name, vol.fs, vol_size, how), flush=True)
    out = dump(ctx, src, img, raw=raw, expect_scanner=vol.fs, to_stdout=vol.to_stdout, data=vol.data, fork=fork)
    if sha256(src) != before:
        raise Fail("%s: the source volume changed during the dump" % vol.name)
    print("  " + out.strip().replace("\n", "\n  "))
    # Without the overlay (-nojnl) the drivers see the volume itself, marked
    # read-only: the source must come through that run untouched as well.
    nojnl = os.path.join(work, "nojnl.mds")
    util.remove(nojnl)
    r = util.run([ctx.mdsnap, "--dump", "--silent", "-nojnl"] + mode_args(ctx, raw, vol.data, fork) + ["-f:" + nojnl, src],
                 timeout=300)
    util.remove(nojnl)
    if r.returncode != 0:
        raise Fail("%s: the dump with -nojnl failed with exit status %d\n%s" % (vol.name, r.returncode, r.out))
    if sha256(src) != before:
        raise Fail("%s: the source volume changed during the dump with -nojnl" % vol.name)
    restore(ctx, img, dst)
    if os.path.getsize(dst) != vol_size:
        raise Fail("%s: restored size %d, source %d" % (vol.name, os.path.getsize(dst), vol_size))

    problems = []
    stats = image.verify(img, src, dst)
    for n in stats.notes:
        print("  note: " + n)
    for p in stats.problems:
        problems.append("image: " + p)
    blocks = "%d/%d ok%s" % (stats.ok, stats.stored, " +tail" if stats.tail else "")
    if stats.problems:
        blocks = "BAD(%d)" % len(stats.problems)
    if vol.raw and stats.stored * stats.block < vol_size - 1024:
        problems.append("raw dump stored only %d blocks of %d bytes" % (stats.stored, stats.block))

    # Checker verdicts.
    src_rc, src_out = fs.check(src)
    dst_rc, dst_out = fs.check(dst)
    must_pass = vol.checker_must_pass
    if must_pass is None:
        must_pass = src_rc == 0
        if not must_pass:
            print("  NOTE %s: the checker already rejects the ORIGINAL (exit %d); comparing verdicts instead of "
                  "demanding exit 0 (%s)\n%s"
                  % (vol.name, src_rc, vol.note or "known oddity", util.tail_lines(src_out, 6)))
    if must_pass:
        verdict = "pass" if dst_rc == 0 else "FAIL(%d)" % dst_rc
        if src_rc != 0:
            problems.append("checker rejects the ORIGINAL (exit %d): the recipe made a bad volume\n%s"
                            % (src_rc, util.tail_lines(src_out)))
        if dst_rc != 0:
            problems.append("checker rejects the restored image (exit %d)\n%s"
                            % (dst_rc, util.tail_lines(dst_out)))
    else:
        same = src_rc == dst_rc
        verdict = "orig=%d restored=%d %s" % (src_rc, dst_rc, "same" if same else "DIFFER")
        if not same:
            problems.append("checker verdict differs: original %d, restored %d\n"
                            "--- original:\n%s\n--- restored:\n%s"
                            % (src_rc, dst_rc, util.tail_lines(src_out), util.tail_lines(dst_out)))

    # Listings: equal on both sides, and the source lists what the recipe made.
    listing = "equal"
    for lister in fs.listers:
        (a, names), (b, _) = lister(src), lister(dst)
        if a != b:
            listing = "DIFFER"
            problems.append("%s differs:\n%s" % (lister.__name__, util.diff(a, b)))
        if names is not None and vol.expect:
            missing = sorted({recipes.short_components(p) for p in vol.expect} - names)
            if missing:
                listing = "INCOMPLETE"
                problems.append("%s does not show %d generated entries on the SOURCE (recipe or harness fault), "
                                "e.g. %r" % (lister.__name__, len(missing), missing[:3]))
        elif names is not None and len(names) < 3:
            problems.append("%s lists almost nothing (%d entries)" % (lister.__name__, len(names)))
    if fs.extra:
        problems += fs.extra(vol, src, dst, vol.data or raw)
    summary(vol.name, vol_size, os.path.getsize(img), verdict, listing, blocks)
    if problems:
        raise Fail("%s:\n  %s" % (vol.name, "\n  ".join(problems)))
    if not ctx.keep:
        util.remove(img)
        util.remove(dst)


def run_group(ctx, group):
    if group == "negative":
        import negative
        return negative.run(ctx)
    if group == "corpus":
        import corpus
        return corpus.run(ctx)
    vols = recipes.volumes_for(ctx, group)
    failures = []
    skipped = 0
    for vol in vols:
        if not vol.raw and not ctx.force and not util.scanner_built(ctx.mdsnap, vol.fs):
            print("SKIP %s: this mdsnap has no %s scanner yet" % (vol.name, vol.fs), flush=True)
            skipped += 1
            continue
        try:
            round_trip(ctx, vol)
        except Skip as e:
            print("SKIP %s: %s" % (vol.name, e), flush=True)
            skipped += 1
        except Fail as e:
            print("FAIL " + str(e), flush=True)
            failures.append(vol.name)
    if failures:
        print("FAILED: %s" % ", ".join(failures))
        return 1
    if skipped == len(vols):
        raise Skip("every volume of %s was skipped" % group)
    print("all %d volumes of %s passed (%d skipped)" % (len(vols) - skipped, group, skipped))
    return 0


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--mdsnap", required=True)
    ap.add_argument("--cache", required=True)
    ap.add_argument("--fixtures", required=True)
    ap.add_argument("--data", required=True)
    ap.add_argument("--corpus", help="damaged volumes from other projects (default: beside --fixtures)")
    ap.add_argument("--keep", action="store_true", help="keep images and restored files")
    ap.add_argument("--force", choices=["dd", "head"],
                    help="dump every volume with -dd (the checks must pass) or --head (they must fail), "
                         "scanner or not")
    ap.add_argument("--build-data", action="store_true", help="re-make the pre-built volumes of --data")
    ap.add_argument("group", nargs="?", default="")
    ctx = ap.parse_args()
    ctx.cache = os.path.abspath(ctx.cache)
    ctx.corpus = ctx.corpus or os.path.join(os.path.dirname(os.path.abspath(ctx.fixtures)), "corpus")
    ctx.work = os.path.join(ctx.cache, "work", ctx.group)
    os.makedirs(ctx.work, exist_ok=True)
    try:
        if ctx.build_data:
            recipes.build_data(ctx)
            return 0
        if not os.access(ctx.mdsnap, os.X_OK):
            raise Skip("mdsnap binary %s not built" % ctx.mdsnap)
        rc = run_group(ctx, ctx.group)
    except Skip as e:
        print("SKIP %s: %s" % (ctx.group, e), flush=True)
        return 77
    except Fail as e:
        print("FAIL " + str(e), flush=True)
        return 1
    return rc


if __name__ == "__main__":
    sys.exit(main())
