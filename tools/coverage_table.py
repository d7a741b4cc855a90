#!/usr/bin/env python3
"""coverage_table.py SUMMARY: gcovr's summary of files as a table of folders, and the files with most
lines that no test reaches."""

import collections
import json
import pathlib
import sys

KEYS = ("line_covered", "line_total", "branch_covered", "branch_total")
FILES = 12


def share(covered, total):
    return f"{100 * covered / total:6.1f} %" if total else "       -"


def main():
    files = json.loads(pathlib.Path(sys.argv[1]).read_text())["files"]
    if not files:
        sys.exit("coverage_table: there is no file in the summary; did anything run?")
    folders = collections.defaultdict(lambda: [0, 0, 0, 0])
    for each in files:
        parts = pathlib.PurePath(each["filename"]).parts
        folder = "/".join(parts[:2]) if len(parts) > 2 else parts[0]
        for name in {folder, parts[0] + " in all"}:
            for at, key in enumerate(KEYS):
                folders[name][at] += each[key]
    print(f"{'folder':<24}{'lines':>8}{'reached':>10}{'branches':>10}{'reached':>10}")
    for name, (lines, all_lines, branches, all_branches) in sorted(folders.items()):
        print(f"{name:<24}{all_lines:>8}{share(lines, all_lines):>10}"
              f"{all_branches:>10}{share(branches, all_branches):>10}")

    def missed(each):
        return each["line_total"] - each["line_covered"]

    print(f"\n{'most lines not reached':<46}{'of':>6}{'not':>6}")
    for each in sorted(files, key=missed, reverse=True)[:FILES]:
        if missed(each):
            print(f"{each['filename']:<46}{each['line_total']:>6}{missed(each):>6}")


main()
