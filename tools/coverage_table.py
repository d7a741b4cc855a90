#!/usr/bin/env python3
"""coverage_table.py SUMMARY: gcovr's summary of files as a table of folders."""

import collections
import json
import pathlib
import sys


def share(covered, total):
    return f"{100 * covered / total:6.1f} %" if total else "       -"


def main():
    folders = collections.defaultdict(lambda: [0, 0, 0, 0])
    for each in json.loads(pathlib.Path(sys.argv[1]).read_text())["files"]:
        parts = pathlib.PurePath(each["filename"]).parts
        for name in ("/".join(parts[:2]), parts[0] + " in all"):
            for at, key in enumerate(("line_covered", "line_total", "branch_covered", "branch_total")):
                folders[name][at] += each[key]
    print(f"{'folder':<24}{'lines':>8}{'reached':>10}{'branches':>10}{'reached':>10}")
    for name, (lines, all_lines, branches, all_branches) in sorted(folders.items()):
        print(f"{name:<24}{all_lines:>8}{share(lines, all_lines):>10}"
              f"{all_branches:>10}{share(branches, all_branches):>10}")


main()
