#!/usr/bin/env python3
"""The user's documents against the program: the manual page renders without
a warning, names every option the parser accepts, and its exit-status table
equals the README's; the README names the release; no example in either runs
mdsnap on a device without saying --dump or --restore.
Exit status: 0 pass, 1 fail, 77 skipped (reason printed)."""
import argparse
import os
import re
import shutil
import subprocess
import sys

# The one example that leaves the direction out on purpose: the warning.
DANGER_EXAMPLE = "mdsnap -f:img.mds /dev/sdb1 < /dev/null"


def roff_text(s):
    """A roff line as plain text: escapes and font changes undone."""
    s = re.sub(r"\\f[BIRP]|\\f\[[A-Z]*\]|\\c", "", s)
    return s.replace(r"\-", "-").replace(r"\(em", "-").replace(r"\e", "\\").replace(r"\ ", " ")


def readme_exit_table(readme):
    rows, inside = [], False
    for line in readme.splitlines():
        if line.startswith("### Exit status"):
            inside = True
        elif inside and line.startswith("#"):
            break
        elif inside and line.startswith("|") and not line.startswith("|---"):
            cells = [c.strip().replace("`", "") for c in line.strip("|").split(" | ")]
            rows.append(tuple(cells))
    return rows


def man_exit_table(man):
    body = man.split(".TS\n", 1)[1].split(".TE\n", 1)[0]
    # Drop the format lines (up to the one ending in "."), join T{ ... T} blocks.
    lines = body.splitlines()
    while not lines.pop(0).endswith("."):
        pass
    text = re.sub(r"T\{\n(.*?)\nT\}", lambda m: m.group(1).replace("\n", " "), "\n".join(lines), flags=re.S)
    return [tuple(roff_text(c).strip() for c in line.split("@")) for line in text.splitlines() if line.strip()]


def parser_options(source):
    """Every option text mdsnap/options.cpp matches, and the -fs: names."""
    opts = set(re.findall(r'(?:is|prefixed)\("([^"]+)"\)', source))
    names = re.findall(r'\{"([a-z]+)", api::FS_', source)
    return opts, names


def examples(text):
    """mdsnap command lines in code: code spans, indented or fenced lines, and
    the manual page's example blocks."""
    found = re.findall(r"`(mdsnap [^`]*)`", text)
    found += [l.strip() for l in text.splitlines() if re.match(r"^\s*mdsnap -\S", l)]
    found += [c.strip() for l in text.splitlines() for c in re.findall(r"\|\s*(mdsnap [^|]*)$", l)]
    return found


def main():
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--source", required=True)
    ap.add_argument("--version", required=True, help="the release number project() sets")
    a = ap.parse_args()
    read = lambda rel: open(os.path.join(a.source, rel), encoding="utf-8").read()
    readme, man_src, options = read("README.md"), read("doc/mdsnap.1"), read("mdsnap/options.cpp")
    man = roff_text(man_src)
    problems = []

    readme_rows, man_rows = readme_exit_table(readme), man_exit_table(man_src)
    if len(readme_rows) < 10:
        problems.append("README exit-status table not found (%d rows)" % len(readme_rows))
    elif readme_rows != man_rows:
        for r, m in zip(readme_rows + [()] * len(man_rows), man_rows + [()] * len(readme_rows)):
            if r != m:
                problems.append("exit-status tables differ:\n  README: %s\n  man:    %s" % (r, m))
                break

    opts, names = parser_options(options)
    if len(opts) < 15:
        problems.append("options.cpp: only %d options found; has the parser changed shape?" % len(opts))
    for o in sorted(opts):
        if not re.search(r"(^|[\s(])" + re.escape(o) + r"($|[\s,.)a-z])", man, re.M):
            problems.append("the manual page does not describe %s" % o)
    for n in names:
        if not re.search(r"\b%s\b" % n, man.split("SH OPTIONS", 1)[-1].split(".SH", 1)[0]):
            problems.append("the manual page's -fs: list lacks %s" % n)

    for want in ("mdsnap **%s**" % a.version, "mdsnap_%s_amd64.deb" % a.version):
        if want not in readme:
            problems.append("README does not name the release: %r missing" % want)

    for where, text in (("README.md", readme), ("doc/mdsnap.1", man)):
        for ex in examples(text):
            words = ex.split()
            if ex == DANGER_EXAMPLE or "[options]" in ex or "..." in ex:
                continue
            if {"-info", "--help", "-h", "--version", "--qorvversion"} & set(words):
                continue
            if "--dump" not in words and "--restore" not in words:
                problems.append("%s: example without --dump or --restore: %s" % (where, ex))

    if not shutil.which("man"):
        print("SKIP doc: man is not installed (apt-get install man-db groff-base); rendering not checked")
    else:
        env = dict(os.environ, MANWIDTH="80", LC_ALL="C.UTF-8")
        r = subprocess.run(["man", "--warnings", "-l", os.path.join(a.source, "doc/mdsnap.1")],
                           stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, env=env)
        if r.returncode != 0 or r.stderr.strip():
            problems.append("man --warnings (exit %d):\n%s" % (r.returncode, r.stderr))

    for p in problems:
        print("FAIL " + p)
    if problems:
        return 1
    print("manual page: %d options, %d -fs: names, %d exit statuses, renders quietly; README names %s"
          % (len(opts), len(names), len(man_rows), a.version))
    return 0


if __name__ == "__main__":
    sys.exit(main())
