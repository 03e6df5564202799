"""Real volumes damaged on purpose. Each case states the exit status it
expects; a dump that should succeed must also finish in time (no hang) and
leave an image whose stored blocks match the damaged source."""
import os
import shutil
import struct

import image
import ntfs
import recipes
import util
from util import Fail, Skip

TIMEOUT = 60
STRUCTURE_BAD = 0x1C      # low byte of the "inconsistent structure" status
NOT_RECOGNIZED = 6


def patch(path, offset, data):
    with open(path, "r+b") as f:
        f.seek(offset)
        f.write(data)


def read(path, offset, n):
    with open(path, "rb") as f:
        f.seek(offset)
        return f.read(n)


# ---------------------------------------------------------------- FAT32

class Fat32:
    def __init__(self, path):
        b = read(path, 0, 512)
        self.bps = struct.unpack_from("<H", b, 0x0B)[0]
        self.spc = b[0x0D]
        self.reserved = struct.unpack_from("<H", b, 0x0E)[0]
        self.nfats = b[0x10]
        self.fatsz = struct.unpack_from("<I", b, 0x24)[0]
        self.root = struct.unpack_from("<I", b, 0x2C)[0]
        self.backup = struct.unpack_from("<H", b, 0x32)[0]
        self.data = (self.reserved + self.nfats * self.fatsz) * self.bps
        self.path = path

    def cluster_off(self, c):
        return self.data + (c - 2) * self.spc * self.bps

    def fat_get(self, c):
        return struct.unpack("<I", read(self.path, self.reserved * self.bps + 4 * c, 4))[0] & 0x0FFFFFFF

    def fat_set(self, c, v):
        for i in range(self.nfats):
            patch(self.path, (self.reserved + i * self.fatsz) * self.bps + 4 * c, struct.pack("<I", v))

    def subdir_entry(self):
        """Offset of the first live sub-directory entry in the root's first cluster."""
        buf = read(self.path, self.cluster_off(self.root), self.spc * self.bps)
        for off in range(0, len(buf), 32):
            e = buf[off:off + 32]
            if e[0] == 0:
                break
            if e[0] == 0xE5 or e[11] == 0x0F or not e[11] & 0x10 or e[0] == ord("."):
                continue
            return self.cluster_off(self.root) + off
        raise Fail("no sub-directory in the FAT32 root (recipe changed?)")

    def set_entry_cluster(self, entry_off, c):
        patch(self.path, entry_off + 0x14, struct.pack("<H", c >> 16))
        patch(self.path, entry_off + 0x1A, struct.pack("<H", c & 0xFFFF))


def fat_backup_bpb_differs(p):
    v = Fat32(p)
    off = v.backup * v.bps + 0x18          # sectors per track, inside the compared BPB
    patch(p, off, bytes([read(p, off, 1)[0] ^ 0x3F]))


def fat_chain_loop(p):
    v = Fat32(p)
    nxt = v.fat_get(v.root)
    if 2 <= nxt < 0x0FFFFFF0:
        v.fat_set(nxt, v.root)               # root -> next -> root
    else:
        v.fat_set(v.root, v.root)


def fat_dir_out_of_range(p):
    v = Fat32(p)
    v.set_entry_cluster(v.subdir_entry(), 0x0FFFFF00)


def fat_dir_cycle(p):
    v = Fat32(p)
    v.set_entry_cluster(v.subdir_entry(), v.root)


# ---------------------------------------------------------------- exFAT

def _sector_size(p):
    return 1 << read(p, 0, 512)[108]


def exfat_bad_main(p):
    ss = _sector_size(p)
    patch(p, 2 * ss + 17, b"\x5A")           # an extended boot sector: checksum now wrong


def exfat_bad_backup(p):
    ss = _sector_size(p)
    patch(p, 14 * ss + 17, b"\x5A")


# ---------------------------------------------------------------- ext

def debugfs_w(p, cmd):
    r = util.run(["debugfs", "-w", "-R", cmd, p], timeout=60)
    if r.returncode != 0 or "rror" in r.out or "not found" in r.out:
        raise Fail("debugfs %r failed:\n%s" % (cmd, util.tail_lines(r.out)))


def ext_bad_extent_header(p):
    debugfs_w(p, "sif /fragB block[0] 0x1234")


def ext_dir_loop(p):
    debugfs_w(p, "ln /deep /deep/lvl00/lvl01/back_to_deep")


def ext_bad_extent_file(p):
    debugfs_w(p, "sif /sizes/size_10_1048577.bin block[0] 0xdeadbeef")


# ---------------------------------------------------------------- NTFS

def _ntfs_boot(p):
    """(bytes per sector, cluster size, record size, $MFT and $MFTMirr
    clusters, total sectors)."""
    bps, cluster, total = ntfs.geometry(p)
    b = read(p, 0, 512)
    v = struct.unpack_from("<b", b, ntfs.BOOT_RECORD_SIZE)[0]
    record_size = 1 << -v if v < 0 else v * cluster
    mft, mirr = struct.unpack_from("<QQ", b, ntfs.BOOT_MFT_CLUSTERS)
    return bps, cluster, record_size, mft, mirr, total


def ntfs_bad_main(p):
    patch(p, ntfs.BOOT_OEM.start, b"NOTNTFS ")


def ntfs_both_bad(p):
    bps, _, _, _, _, total = _ntfs_boot(p)
    patch(p, ntfs.BOOT_OEM.start, b"NOTNTFS ")
    patch(p, total * bps + ntfs.BOOT_OEM.start, b"NOTNTFS ")   # the backup, past the last cluster


def ntfs_mft_compressed(p):
    """Flags the unnamed $DATA of record 0 compressed, in $MFT and in its
    mirror alike, so that neither copy is usable."""
    _, cluster, record_size, mft, mirr, _ = _ntfs_boot(p)
    for start in (mft * cluster, mirr * cluster):
        rec = read(p, start, record_size)
        if rec[:4] != b"FILE":
            raise Fail("record 0 at 0x%x has no FILE magic (recipe changed?)" % start)
        off = struct.unpack_from("<H", rec, 0x14)[0]
        while off + 16 <= len(rec):
            kind, length = struct.unpack_from("<II", rec, off)
            if kind == 0xFFFFFFFF or length == 0:
                raise Fail("record 0 at 0x%x has no unnamed $DATA" % start)
            if kind == 0x80 and rec[off + 9] == 0:
                flags = off + 0x0C
                if flags % 512 >= 510:
                    raise Fail("$DATA flags of record 0 lie under an update sequence number")
                patch(p, start + flags, struct.pack("<H", struct.unpack_from("<H", rec, flags)[0] | 0x0001))
                break
            off += length


# (name, recipe of the base volume, damage, expected exit status, words expected in the output)
CASES = [
    ("fat32_backup_bpb_differs", "fat32_512", fat_backup_bpb_differs, STRUCTURE_BAD, None),
    ("fat32_fat_chain_loop", "fat32_512", fat_chain_loop, 0, None),
    ("fat32_dir_cluster_out_of_range", "fat32_512", fat_dir_out_of_range, 0, None),
    ("fat32_dir_cycle", "fat32_512", fat_dir_cycle, 0, None),
    ("exfat_bad_main_good_backup", "exfat_data", exfat_bad_main, 0, None),
    ("exfat_good_main_bad_backup", "exfat_data", exfat_bad_backup, NOT_RECOGNIZED, "failed to recognize"),
    ("ext4_bad_extent_header_dir", "ext4", ext_bad_extent_header, 0, None),
    ("ext4_bad_extent_header_file", "ext4", ext_bad_extent_file, 0, None),
    ("ext4_dir_loop", "ext4", ext_dir_loop, 0, None),
    ("ntfs_bad_main_good_backup", "ntfs_4k", ntfs_bad_main, 0,
     "The first NTFS boot sector is unreadable or corrupt. Reading second NTFS boot sector instead."),
    ("ntfs_both_boot_sectors_bad", "ntfs_4k", ntfs_both_bad, NOT_RECOGNIZED, "failed to recognize"),
    ("ntfs_mft_data_compressed", "ntfs_4k", ntfs_mft_compressed, STRUCTURE_BAD, None),
]


def run_case(ctx, name, base_path, damage, want_rc, want_text):
    work = os.path.join(ctx.work, name)
    os.makedirs(work, exist_ok=True)
    vol = os.path.join(work, "damaged.img")
    img = os.path.join(work, "img.mds")
    shutil.copyfile(base_path, vol)
    damage(vol)
    util.remove(img)
    r = util.run([ctx.mdsnap, "--dump", "--nopercents", "-f:" + img, vol], timeout=TIMEOUT)
    got = r.returncode & 0xFF if r.returncode >= 0 else r.returncode
    print("  %s: exit %s (want %d)" % (name, "TIMEOUT" if r.timed_out else got, want_rc))
    if r.timed_out:
        raise Fail("%s: dump hung (no exit within %ds)\n%s" % (name, TIMEOUT, util.tail_lines(r.out)))
    if got != want_rc:
        hint = ""
        if got == NOT_RECOGNIZED:
            hint = "\n  -> status 6: this file system's scanner is missing or refused the volume (scanner fault)"
        raise Fail("%s: exit status %d, expected %d%s\n%s" % (name, got, want_rc, hint, util.tail_lines(r.out)))
    if want_text and want_text not in r.out:
        raise Fail("%s: output lacks %r:\n%s" % (name, want_text, util.tail_lines(r.out)))
    if want_rc == 0:
        st = image.verify(img, vol)
        if st.problems:
            raise Fail("%s: image check: %s" % (name, "; ".join(st.problems[:5])))
        print("  %s: image %d bytes, %d blocks verified" % (name, os.path.getsize(img), st.ok))
    if not ctx.keep:
        shutil.rmtree(work, ignore_errors=True)


def control(ctx, recipe, path):
    """The undamaged volume must dump, or a refusal of the damaged copy would
    prove nothing."""
    img = os.path.join(ctx.work, recipe + "_control.mds")
    util.remove(img)
    r = util.run([ctx.mdsnap, "--dump", "--nopercents", "-f:" + img, path], timeout=TIMEOUT)
    util.remove(img)
    print("  control %s (undamaged): exit %d" % (recipe, r.returncode))
    return r.returncode == 0


def run(ctx):
    bases, controls, failures, skipped = {}, {}, [], []
    for name, recipe, damage, want_rc, want_text in CASES:
        try:
            fs = recipe.split("_")[0].rstrip("0123456789")
            if not util.scanner_built(ctx.mdsnap, fs):
                raise Skip("this mdsnap has no %s scanner yet" % fs)
            if recipe not in bases:
                bases[recipe] = recipes.RECIPES[recipe](ctx, recipe)[0].path
                controls[recipe] = control(ctx, recipe, bases[recipe])
            if not controls[recipe]:
                raise Fail("%s: the UNDAMAGED %s volume does not dump either, so this case proves nothing "
                           "(scanner missing?)" % (name, recipe))
            run_case(ctx, name, bases[recipe], damage, want_rc, want_text)
        except Skip as e:
            print("SKIP %s: %s" % (name, e))
            skipped.append(name)
        except Fail as e:
            print("FAIL " + str(e), flush=True)
            failures.append(name)
    if failures:
        print("FAILED: %s" % ", ".join(failures))
        return 1
    if len(skipped) == len(CASES):
        raise Skip("every negative case was skipped")
    print("all %d negative cases passed (%d skipped)" % (len(CASES) - len(skipped), len(skipped)))
    return 0
