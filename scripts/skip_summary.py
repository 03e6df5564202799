#!/usr/bin/env python3
"""Names every skipped test of a ctest run with the reason it gave.

Reads the JUnit file of `ctest --output-junit FILE`. A skipped test is one
ctest did not count as run (exit 77, or GoogleTest's SKIPPED line); its
reason is the `SKIP ...` line it printed, or the text after GoogleTest's
"Skipped" line. Parts of a test that ran but skipped some of its cases
(`SKIP recipe: reason` lines of a round-trip group) are listed apart.
Usage: skip_summary.py LABEL JUNIT.xml   (prints nothing when nothing was skipped)"""
import re
import sys
import xml.etree.ElementTree as ET

SKIP_LINE = re.compile(r"^\s*SKIP\b:?\s*(.*)$")
GTEST_SKIP = re.compile(r"^\S+:\d+: Skipped$")


def reasons(output):
    """The skip reasons a test printed, in order, without repeats."""
    found = []
    lines = output.splitlines()
    for i, line in enumerate(lines):
        m = SKIP_LINE.match(line)
        if m:
            found.append(m.group(1).strip())
        elif GTEST_SKIP.match(line.strip()):
            text = []
            for follow in lines[i + 1:]:
                if not follow.strip() or follow.startswith(("[", "Google Test trace:")):
                    break
                text.append(follow.strip())
            found.append(" ".join(text) or "(no reason given)")
    return list(dict.fromkeys(r for r in found if r))


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    label, path = sys.argv[1], sys.argv[2]
    try:
        cases = ET.parse(path).getroot().iter("testcase")
    except (OSError, ET.ParseError) as e:
        print("skipped tests (%s): cannot read %s: %s" % (label, path, e))
        return 0
    skipped, partial = [], []
    for case in cases:
        name = case.get("name")
        out = case.findtext("system-out") or ""
        found = reasons(out)
        if case.get("status") == "notrun":
            if not found:
                tag = case.find("skipped")
                found = [(tag.get("message") if tag is not None else "") or "(no reason given)"]
            skipped.append((name, found))
        elif found and case.find("failure") is None:
            partial.append((name, found))
    if skipped:
        print("== %d skipped test%s (%s), with their reasons:" % (len(skipped), "" if len(skipped) == 1 else "s",
                                                                   label))
        # The last reason is the test's own; those before it are its cases'.
        for name, found in sorted(skipped):
            print("   %-44s %s" % (name, found[-1]))
            for why in found[:-1]:
                print("   %-44s   %s" % ("", why))
    if partial:
        print("== tests that ran but skipped some cases (%s):" % label)
        for name, found in sorted(partial):
            for why in found:
                print("   %-44s %s" % (name, why))
    return 0


if __name__ == "__main__":
    sys.exit(main())
