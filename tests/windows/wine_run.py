#!/usr/bin/env python3
"""The Windows executables, cross-built with mingw-w64 and run under wine.

  wine_run.py [options] build x64|x86   cross-build (warnings are errors) and
                                        check that only system DLLs are imported
  wine_run.py [options] cli             command-line runs, beside the Linux build's
  wine_run.py [options] images          dumps, -info and restores of sample and
                                        fresh volumes, beside the Linux build's
  wine_run.py [options] all             all of the above

The Linux build is the oracle: the same command line in the same folder must
give the same status, the same messages (the Windows program's text streams
end lines with CR LF, which is all that may differ) and byte-identical image
and restored files. Exit status 77 (with the reason printed) when mingw-w64
or wine is missing.
"""
import argparse
import fcntl
import glob
import hashlib
import os
import random
import re
import shutil
import subprocess
import sys
import time

SKIP = 77
BUILD_TIME = re.compile(r"[A-Z][a-z]{2} [ \d]\d \d{4},? \d\d:\d\d:\d\d")
TRIPLES = {"x64": "x86_64-w64-mingw32", "x86": "i686-w64-mingw32"}
# Imports a static build may have: the system's own DLLs.
SYSTEM_DLLS = {"kernel32.dll", "msvcrt.dll", "advapi32.dll", "user32.dll", "ntdll.dll"}
# Restores of volumes larger than this are not compared (reading the holes
# of a multi-gigabyte sparse file costs more than it proves).
RESTORE_LIMIT = 512 << 20
# Dumps with -data of volumes up to this size.
DATA_LIMIT = 64 << 20


class Skip(Exception):
    pass


class Failed(Exception):
    pass


def log(text):
    print(text, flush=True)


def run(args, cwd=None, stdin=None, env=None, timeout=300):
    try:
        with open(stdin, "rb") if stdin else open(os.devnull, "rb") as f:
            p = subprocess.run(args, cwd=cwd, stdin=f, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=env,
                               timeout=timeout)
    except subprocess.TimeoutExpired:
        raise Failed("timed out after %ds: %s" % (timeout, " ".join(args)))
    return p.returncode, p.stdout, p.stderr


class Tools:
    def __init__(self, opts):
        self.source = os.path.abspath(opts.source)
        self.work = os.path.abspath(opts.work)
        self.linux = os.path.abspath(opts.linux_mdsnap) if opts.linux_mdsnap else None
        self.jobs = str(opts.jobs)
        os.makedirs(self.work, exist_ok=True)

    def exe(self, arch):
        return os.path.join(self.work, "windows-" + arch, "mdsnap.exe")

    def wine(self):
        for name in ("wine64", "/usr/lib/wine/wine64", "wine"):
            path = shutil.which(name) or (name if os.access(name, os.X_OK) else None)
            if path:
                return path
        raise Skip("wine64 is not installed (apt-get install wine64)")

    def wine_env(self):
        env = dict(os.environ, WINEDEBUG="-all", WINEPREFIX=os.path.join(self.work, "wine-prefix"),
                   WINEDLLOVERRIDES="mscoree,mshtml=", LC_ALL="C.UTF-8")
        env.pop("DISPLAY", None)
        return env


def build(t, arch):
    cxx = TRIPLES[arch] + "-g++"
    if not shutil.which(cxx):
        raise Skip("%s is not installed (apt-get install mingw-w64)" % cxx)
    folder = os.path.join(t.work, "windows-" + arch)
    rc, out, err = run(["cmake", "-S", t.source, "-B", folder, "-G", "Ninja",
                        "-DCMAKE_TOOLCHAIN_FILE=%s/cmake/mingw-%s.cmake" % (t.source, arch),
                        "-DCMAKE_BUILD_TYPE=Release", "-DMDSNAP_TESTS=OFF", "-DMDSNAP_WERROR=ON"])
    if rc != 0:
        raise Failed("configure failed:\n" + (out + err).decode(errors="replace"))
    rc, out, err = run(["cmake", "--build", folder, "-j", t.jobs, "--target", "mdsnap"], timeout=1800)
    text = (out + err).decode(errors="replace")
    if rc != 0 or "warning:" in text:
        raise Failed("build failed or warned:\n" + text[-6000:])
    rc, out, _ = run([TRIPLES[arch] + "-objdump", "-p", t.exe(arch)])
    dlls = sorted({l.split(":", 1)[1].strip() for l in out.decode().splitlines() if "DLL Name:" in l})
    foreign = [d for d in dlls if d.lower() not in SYSTEM_DLLS]
    if rc != 0 or foreign:
        raise Failed("mdsnap.exe imports DLLs beyond the system's: %s" % ", ".join(foreign))
    log("ok   %s build: %s (%d bytes), imports %s" % (arch, t.exe(arch), os.path.getsize(t.exe(arch)),
                                                    ", ".join(dlls)))


class Pair:
    """Runs the same command line with the Linux build and under wine, in one
    folder, and compares what they did."""

    def __init__(self, t):
        if not t.linux or not os.access(t.linux, os.X_OK):
            raise Skip("no Linux build of mdsnap to compare with (--linux-mdsnap)")
        if not os.path.exists(t.exe("x64")):
            raise Skip("%s is not built (wine_run.py build x64)" % t.exe("x64"))
        self.t = t
        self.wine = t.wine()
        self.env = t.wine_env()
        self.dir = os.path.join(t.work, "scratch")
        os.makedirs(self.dir, exist_ok=True)
        self.failures = []
        self.cases = 0
        self.keeper = None
        self.wine_seconds = 0.0
        self.wine_runs = 0
        self.warm_up()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def warm_up(self):
        # The first start makes the prefix (slow); tests running side by side
        # wait for it instead of making it twice.
        with open(os.path.join(self.t.work, "wine-prefix.lock"), "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            started = time.time()
            # The server is started here, on no pipe of ours: one that a run
            # started would hold that run's output open. One console that
            # waits on its input for the whole test keeps the prefix's own
            # processes up: a run then starts in a tenth of a second instead
            # of several.
            quiet = dict(stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=self.env)
            server = shutil.which("wineserver") or "/usr/lib/wine/wineserver64"
            if os.access(server, os.X_OK):
                subprocess.run([server], **quiet)
            self.keeper = subprocess.Popen([self.wine, "cmd"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                           stderr=subprocess.DEVNULL, env=self.env)
            try:
                rc = subprocess.run([self.wine, self.t.exe("x64"), "--qorvversion"], timeout=600, **quiet).returncode
            except subprocess.TimeoutExpired:
                rc = -1
            if rc != 1:
                raise Failed("wine could not run mdsnap.exe (status %d)" % rc)
            log("wine ready in %.1f s" % (time.time() - started))

    def linux(self, args, stdin=None):
        return run([self.t.linux] + args, cwd=self.dir, stdin=stdin)

    def windows(self, args, stdin=None):
        started = time.time()
        try:
            return run([self.wine, self.t.exe("x64")] + args, cwd=self.dir, stdin=stdin, env=self.env)
        finally:
            self.wine_seconds += time.time() - started
            self.wine_runs += 1

    def check(self, name, ok, detail=""):
        self.cases += 1
        if ok:
            return True
        self.failures.append(name)
        log("FAIL %s %s" % (name, detail))
        return False

    def same(self, name, args, stdin=None, outputs=()):
        """Both builds run args; status, messages and the named output files
        must agree. Outputs are removed first, and kept as <file>.linux and
        <file>.windows."""
        results = {}
        for side, runner in (("linux", self.linux), ("windows", self.windows)):
            for o in outputs:
                remove(os.path.join(self.dir, o))
            rc, out, err = runner(args, stdin)
            out, err = normal(out), normal(err)
            results[side] = (rc, out, err)
            for o in outputs:
                path = os.path.join(self.dir, o)
                if os.path.exists(path):
                    os.replace(path, path + "." + side)
        (lrc, lout, lerr), (wrc, wout, werr) = results["linux"], results["windows"]
        ok = self.check(name + " status", lrc == wrc, "linux %d, windows %d" % (lrc, wrc))
        ok &= self.check(name + " stdout", lout == wout, "\n  linux:   %r\n  windows: %r" % (lout[-400:], wout[-400:]))
        ok &= self.check(name + " stderr", lerr == werr, "\n  linux:   %r\n  windows: %r" % (lerr[-400:], werr[-400:]))
        for o in outputs:
            a, b = os.path.join(self.dir, o + ".linux"), os.path.join(self.dir, o + ".windows")
            ok &= self.check(name + " " + o, files_equal(a, b), "differs between the builds")
        return lrc if ok else None

    def close(self):
        if self.keeper:
            self.keeper.stdin.close()
            try:
                self.keeper.wait(timeout=60)
            except subprocess.TimeoutExpired:
                self.keeper.kill()
            self.keeper = None

    def finish(self, what, started):
        self.close()
        log("%s: %d checks, %d failed, %.0f s (%d runs under wine: %.0f s)" %
            (what, self.cases, len(self.failures), time.time() - started, self.wine_runs, self.wine_seconds))
        if self.failures:
            raise Failed("%d failed: %s" % (len(self.failures), ", ".join(self.failures)))


def normal(text):
    """Messages as both builds must print them: lines ended by LF, and the
    build's own date and time left out."""
    text = text.replace(b"\r\n", b"\n").decode(errors="replace")
    return BUILD_TIME.sub("<built>", text)


def remove(path):
    try:
        os.unlink(path)
    except FileNotFoundError:
        pass


def digest(path):
    """SHA-256 of a file, reading its data extents only (holes hash as zeros)."""
    h = hashlib.sha256()
    size = os.path.getsize(path)
    zeros = bytes(1 << 20)
    with open(path, "rb") as f:
        fd = f.fileno()
        at = 0
        while at < size:
            try:
                data = os.lseek(fd, at, os.SEEK_DATA)
            except OSError:
                data = size
            while at < data:
                n = min(len(zeros), data - at)
                h.update(zeros[:n])
                at += n
            if at >= size:
                break
            end = os.lseek(fd, at, os.SEEK_HOLE)
            f.seek(at)
            while at < end:
                chunk = f.read(min(1 << 20, end - at))
                h.update(chunk)
                at += len(chunk)
    return size, h.hexdigest()


def files_equal(a, b):
    if not (os.path.exists(a) and os.path.exists(b)):
        return os.path.exists(a) == os.path.exists(b)
    return digest(a) == digest(b)


def cli(t):
    started = time.time()
    with Pair(t) as p:
        cli_cases(p, started)


def cli_cases(p, started):
    t = p.t
    d = p.dir
    with open(os.path.join(d, "small.img"), "wb") as f:
        f.write(bytes(range(256)) * 4096)  # 1 MiB that no scanner recognises
    os.makedirs(os.path.join(d, "folder"), exist_ok=True)
    cases = [
        ("no arguments", []),
        ("--help", ["--help"]),
        ("-h", ["-h"]),
        ("unknown file system", ["-fs:xfs", "small.img"]),
        ("block size 3000", ["--dump", "-b:3000", "small.img"]),
        ("block size 8192", ["--dump", "-b:8192", "small.img"]),
        ("two devices", ["--dump", "small.img", "other.img"]),
        ("-dd on a restore", ["-dd", "--restore", "small.img"]),
        ("-dd with input redirected", ["-dd", "small.img"]),
        ("-info without an image", ["-info", "--dump"]),
        ("no device", ["--dump", "-f:x.mds"]),
        ("missing volume", ["--dump", "-f:x.mds", "missing.img"]),
        ("missing restore target", ["--restore", "-f:x.mds", "missing.img"]),
        ("unrecognised volume", ["--dump", "-f:x.mds", "small.img"]),
        ("forced file system", ["--dump", "-fs:ntfs", "-f:x.mds", "small.img"]),
        ("-info of a missing image", ["-info", "missing.mds"]),
        ("-info of a non-image", ["-info", "small.img"]),
        ("-c target in a missing folder", ["--restore", "-c", "-f:small.img", "nofolder/x.img"]),
    ]
    for name, args in cases:
        p.same(name, args)
    # --trace: an empty log beside the executable, named after it.
    for side, runner, exe in (("linux", p.linux, t.linux), ("windows", p.windows, t.exe("x64"))):
        log_path = os.path.splitext(exe)[0] + ".log"
        remove(log_path)
        rc, _, _ = runner(["--trace", "--dump", "-f:x.mds", "small.img"])
        p.check("--trace log beside the executable (%s)" % side,
                os.path.exists(log_path) and os.path.getsize(log_path) == 0, log_path)
        remove(log_path)
    p.same("--version", ["--version"])
    p.same("--qorvversion", ["--qorvversion"])
    # Images from standard input: a folder named by -f: falls back to it silently.
    p.same("head dump to a file", ["--dump", "--head", "-f:small.mds", "small.img"], outputs=["small.mds"])
    os.replace(os.path.join(d, "small.mds.linux"), os.path.join(d, "small.mds"))
    p.same("-f: naming a folder", ["--restore", "-c", "-f:folder", "r.img"], stdin=os.path.join(d, "small.mds"),
           outputs=["r.img"])
    p.same("-info from standard input", ["-info"], stdin=os.path.join(d, "small.mds"))
    # A target too small, and a truncated image.
    with open(os.path.join(d, "tiny.img"), "wb") as f:
        f.write(bytes(4096))
    p.same("target too small", ["--restore", "-f:small.mds", "tiny.img"])
    with open(os.path.join(d, "small.mds"), "rb") as f:
        head = f.read(4096 + 3000)
    with open(os.path.join(d, "cut.mds"), "wb") as f:
        f.write(head)
    p.same("truncated image", ["--restore", "-c", "-f:cut.mds", "r.img"], outputs=["r.img"])
    p.finish("cli", started)


def make_fresh_volumes(folder):
    """Small volumes made by each file system's own Linux tools, where installed."""
    made = []
    tree = os.path.join(folder, "tree")
    if not os.path.isdir(tree):
        os.makedirs(os.path.join(tree, "a", "b"))
        rnd = random.Random(15)
        for i in range(40):
            sub = ("", "a", os.path.join("a", "b"))[i % 3]
            with open(os.path.join(tree, sub, "f%02d.bin" % i), "wb") as f:
                f.write(rnd.randbytes(rnd.randrange(1, 20000)))
    recipes = [
        ("fresh_ext4.img", 64, "mke2fs", ["mke2fs", "-q", "-F", "-t", "ext4", "-d", tree]),
        ("fresh_ext2.img", 32, "mke2fs", ["mke2fs", "-q", "-F", "-t", "ext2", "-b", "1024", "-d", tree]),
        ("fresh_fat32.img", 64, "mkfs.fat", ["mkfs.fat", "-F", "32"]),
        ("fresh_fat16.img", 32, "mkfs.fat", ["mkfs.fat", "-F", "16"]),
        ("fresh_exfat.img", 64, "mkfs.exfat", ["mkfs.exfat"]),
        ("fresh_ntfs.img", 64, "mkntfs", ["mkntfs", "-q", "-F", "-f"]),
    ]
    for name, mib, tool, command in recipes:
        path = os.path.join(folder, name)
        if not shutil.which(tool):
            log("SKIP %s: %s is not installed" % (name, tool))
            continue
        if not os.path.exists(path):
            with open(path, "wb") as f:
                f.truncate(mib << 20)
            rc, out, err = run(command + [path])
            if rc != 0:
                remove(path)
                raise Failed("%s failed: %s" % (" ".join(command), (out + err).decode(errors="replace")))
            if tool == "mkfs.fat" and shutil.which("mcopy"):
                env = dict(os.environ, MTOOLS_SKIP_CHECK="1")
                subprocess.run(["mcopy", "-s", "-i", path, os.path.join(tree, "a"), "::"], env=env,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        made.append(path)
    return made


def sample_volumes(t, folder):
    """The shared samples and the test tree's volumes, decompressed once."""
    sources = sorted(glob.glob(os.path.join(t.fixtures, "**", "*.img.zst"), recursive=True))
    sources += sorted(glob.glob(os.path.join(t.source, "tests", "data", "*.img.zst")))
    if sources and not shutil.which("zstd"):
        raise Skip("zstd is not installed")
    volumes = []
    for src in sources:
        name = os.path.basename(src)[:-4]
        dst = os.path.join(folder, name)
        if not os.path.exists(dst):
            rc, out, err = run(["zstd", "-q", "-d", "-f", "-o", dst + ".part", src])
            if rc != 0:
                raise Failed("zstd -d %s: %s" % (src, err.decode(errors="replace")))
            os.replace(dst + ".part", dst)
        volumes.append(dst)
    return volumes


def images(t):
    started = time.time()
    with Pair(t) as p:
        image_cases(p, started)


def image_cases(p, started):
    t = p.t
    vols = os.path.join(t.work, "volumes")
    os.makedirs(vols, exist_ok=True)
    volumes = sample_volumes(t, vols) + make_fresh_volumes(vols)
    if not volumes:
        raise Skip("no sample volumes found under %s" % t.fixtures)
    d = p.dir
    recognised = 0
    for path in volumes:
        name = os.path.basename(path)
        link = os.path.join(d, name)
        remove(link)
        os.symlink(path, link)
        rc = p.same(name + " dump", ["--dump", "-f:img.mds", name], outputs=["img.mds"])
        if rc != 0:
            continue
        recognised += 1
        os.replace(os.path.join(d, "img.mds.linux"), os.path.join(d, "img.mds"))
        p.same(name + " -info", ["-info", "img.mds"])
        if os.path.getsize(path) <= RESTORE_LIMIT:
            p.same(name + " restore", ["--restore", "-c", "-f:img.mds", "restored.img"], outputs=["restored.img"])
        if os.path.getsize(path) <= DATA_LIMIT:
            # With file contents (or the scanner's refusal of them).
            p.same(name + " -data dump", ["--dump", "-data", "-f:data.mds", name], outputs=["data.mds"])
    log("%d of %d volumes recognised by today's scanners" % (recognised, len(volumes)))

    # Raw and head-only round trips, through files and through the standard
    # streams (bytes 0x0A and 0x1A would be mangled in text mode).
    rnd = random.Random(2024)
    for name, size in (("raw_odd.img", (1 << 20) + 512), ("raw_3m.img", 3 * (1 << 20) + 1536)):
        with open(os.path.join(d, name), "wb") as f:
            f.write(rnd.randbytes(size))
        p.same(name + " -dd to a file", ["-dd", "--dump", "-f:raw.mds", name], outputs=["raw.mds"])
        os.replace(os.path.join(d, "raw.mds.linux"), os.path.join(d, "raw.mds"))
        p.same(name + " -dd restore", ["--restore", "-c", "-f:raw.mds", "back.img"], outputs=["back.img"])
        p.check(name + " -dd restores the volume", files_equal(os.path.join(d, "back.img.windows"),
                                                               os.path.join(d, name)))
        rc, out, err = p.windows(["-dd", "--dump", name])
        p.check(name + " -dd to standard output", rc == 0 and out == open(os.path.join(d, "raw.mds"), "rb").read(),
                "status %d, %d bytes" % (rc, len(out)))
        p.same(name + " restore from standard input", ["--restore", "-c", "piped.img"],
               stdin=os.path.join(d, "raw.mds"), outputs=["piped.img"])
        p.check(name + " piped restore is the volume", files_equal(os.path.join(d, "piped.img.windows"),
                                                                   os.path.join(d, name)))
    head = os.path.join(d, "head.img")
    with open(head, "wb") as f:
        f.truncate(24 << 20)
        for at in (0, 5 << 20, 19 << 20, (24 << 20) - 8192):
            f.seek(at)
            f.write(rnd.randbytes(8192))
    p.same("--head dump", ["--head", "--dump", "-f:head.mds", "head.img"], outputs=["head.mds"])
    os.replace(os.path.join(d, "head.mds.linux"), os.path.join(d, "head.mds"))
    p.same("--head restore", ["--restore", "-c", "-f:head.mds", "headback.img"], outputs=["headback.img"])
    # A restore onto an existing target of the volume's size, without -c.
    shutil.copyfile(head, os.path.join(d, "target.img"))
    for side, runner in (("linux", p.linux), ("windows", p.windows)):
        with open(os.path.join(d, "target.img"), "r+b") as f:
            f.write(bytes(1 << 20))
        rc, _, _ = runner(["--restore", "-f:head.mds", "target.img"])
        p.check("--head restore onto a target (%s)" % side, rc == 0 and files_equal(os.path.join(d, "target.img"), head))
    p.finish("images", started)


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    here = os.path.dirname(os.path.abspath(__file__))
    ap.add_argument("--source", default=os.path.dirname(os.path.dirname(here)), help="the source tree")
    ap.add_argument("--work", default=None, help="build and scratch folder (default <source>/build/windows)")
    ap.add_argument("--linux-mdsnap", default=None, help="the Linux build of mdsnap (the oracle)")
    ap.add_argument("--fixtures", default=None, help="the shared sample volumes")
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("step", choices=["build", "cli", "images", "all"])
    ap.add_argument("arch", nargs="?", choices=sorted(TRIPLES))
    opts = ap.parse_args()
    opts.work = opts.work or os.path.join(opts.source, "build", "windows")
    t = Tools(opts)
    t.fixtures = os.path.abspath(opts.fixtures or os.path.join(opts.source, "..", "shared", "fixtures"))
    try:
        if opts.step in ("build", "all"):
            for arch in ([opts.arch] if opts.arch else ["x64", "x86"]):
                build(t, arch)
        if opts.step in ("cli", "all"):
            cli(t)
        if opts.step in ("images", "all"):
            images(t)
    except Skip as e:
        log("SKIP: %s" % e)
        return SKIP
    except Failed as e:
        log("FAILED: %s" % e)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
