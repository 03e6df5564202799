"""Small helpers shared by the round-trip scripts."""
import difflib
import fcntl
import os
import shutil
import subprocess
from contextlib import contextmanager


class Fail(Exception):
    pass


class Skip(Exception):
    pass


class Result:
    def __init__(self, returncode, out, timed_out=False):
        self.returncode = returncode
        self.out = out
        self.timed_out = timed_out


ENV = dict(os.environ, LC_ALL="C.UTF-8", LANG="C.UTF-8", MTOOLS_SKIP_CHECK="1")


def run(args, timeout=120, stdin=None, stdout=None, check=False, cwd=None):
    """Runs a command; stdout and stderr merged into .out (unless stdout is a
    file). A timeout is reported, never raised, so a hang is a visible failure."""
    try:
        p = subprocess.run(args, stdin=stdin or subprocess.DEVNULL, stdout=stdout or subprocess.PIPE,
                           stderr=subprocess.STDOUT if stdout is None else subprocess.PIPE, timeout=timeout,
                           env=ENV, cwd=cwd)
    except subprocess.TimeoutExpired as e:
        out = e.output or b""
        return Result(-999, out.decode("utf-8", "replace") + "\n[timed out after %ds]" % timeout, True)
    except FileNotFoundError:
        if shutil.which(str(args[0])):
            raise
        # A checker or lister that is not installed skips the case, visibly.
        raise Skip("tool %s is not installed" % args[0])
    out = p.stdout if stdout is None else p.stderr
    r = Result(p.returncode, (out or b"").decode("utf-8", "replace"))
    if check and r.returncode != 0:
        raise Fail("%s failed (%d):\n%s" % (" ".join(map(str, args)), r.returncode, tail_lines(r.out)))
    return r


def need(*tools):
    for t in tools:
        if not shutil.which(t):
            raise Skip("tool %s is not installed" % t)


def remove(path):
    try:
        os.unlink(path)
    except FileNotFoundError:
        pass


def tail_lines(text, n=25):
    lines = text.strip().splitlines()
    return "\n".join(("    " + l) for l in lines[-n:])


def diff(a, b, n=30):
    d = list(difflib.unified_diff(a.splitlines(), b.splitlines(), "source", "restored", lineterm="", n=1))
    more = "" if len(d) <= n else "\n    ... %d more diff lines" % (len(d) - n)
    return "\n".join("    " + l for l in d[:n]) + more


def zstd_decompress(src, dst, sparse=False):
    tmp = dst + ".part"
    if sparse:   # volumes of several GiB that are mostly zero
        run(["zstd", "-d", "-q", "-f", "--sparse", src, "-o", tmp], check=True, timeout=600)
    else:
        with open(tmp, "wb") as f:
            run(["zstd", "-dc", src], stdout=f, check=True)
    os.replace(tmp, dst)


@contextmanager
def locked(path):
    """Serialises volume creation between tests that run in parallel."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path + ".lock", "w") as f:
        fcntl.flock(f, fcntl.LOCK_EX)
        try:
            yield
        finally:
            fcntl.flock(f, fcntl.LOCK_UN)


# The scanner component each file system needs, as the tool's library
# version text lists it.
SCANNER_COMPONENT = {"fat": "Mdsnap Fat included", "exfat": "Mdsnap Exfat included", "ext": "Mdsnap Ext included",
                     "ntfs": "Mdsnap Ntfs included", "apfs": "Mdsnap Apfs included",
                     "hfs": "Mdsnap Hfs included"}
_components = {}


def scanner_built(mdsnap, fs):
    """Whether this mdsnap was built with the scanner of fs (raw dumps need none)."""
    if mdsnap not in _components:
        import subprocess
        r = subprocess.run([mdsnap, "--qorvversion"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        _components[mdsnap] = r.stdout
    want = SCANNER_COMPONENT.get(fs)
    return want is None or want in _components[mdsnap]
