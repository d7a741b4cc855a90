#!/usr/bin/env python3
"""check_includes.py [SOURCES]: fails when files include each other in a circle, or when a folder of
src/ includes one above it.

A source file and its header count as one. Faults that are known but not yet mended are listed in
check_includes.known beside this script, one a line; a circle is named by its folders. A line that is
no longer true fails, too."""

import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parents[1]).resolve()
PLACES = ["src", "servers", "catalogue", "kit", "tools", "examples", "platform"]
# The public headers are one interface: only circles among themselves count.
SEARCHED = [ROOT / "src", ROOT / "servers", ROOT / "include", ROOT]
ORDER = ["base", "os", "util", "uv", "log", "notify", "msg", "device"]
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def sources():
    for place in PLACES + ["include"]:
        for path in sorted((ROOT / place).rglob("*")):
            if path.suffix in (".h", ".hpp", ".c", ".cpp"):
                yield path


def unit(path):
    return str(path.relative_to(ROOT).with_suffix(""))


def included(path):
    for name in INCLUDE.findall(path.read_text()):
        for folder in [path.parent, *SEARCHED]:
            if (folder / name).is_file():
                yield (folder / name).resolve()
                break


def folder_of(name):
    parts = name.split("/")
    return parts[1] if parts[0] == "src" and len(parts) > 2 else None


def circles(graph):
    """Tarjan's strongly connected components of more than one unit."""
    index, low, stack, found = {}, {}, [], []

    def visit(node):
        index[node] = low[node] = len(index)
        stack.append(node)
        for other in sorted(graph[node]):
            if other not in index:
                visit(other)
                low[node] = min(low[node], low[other])
            elif other in stack:
                low[node] = min(low[node], index[other])
        if low[node] == index[node]:
            members = stack[stack.index(node):]
            del stack[stack.index(node):]
            if len(members) > 1:
                found.append(sorted(members))

    for node in sorted(graph):
        if node not in index:
            visit(node)
    return found


def main():
    sys.setrecursionlimit(10000)
    graph, faults = {}, {}  # faults: the line of the list, and what is printed
    for path in sources():
        name = unit(path)
        targets = graph.setdefault(name, set())
        for target in map(unit, included(path)):
            graph.setdefault(target, set())
            if target != name:
                targets.add(target)
            lower, upper = folder_of(name), folder_of(target)
            if lower in ORDER and upper in ORDER and ORDER.index(lower) < ORDER.index(upper):
                line = f"upwards: {name} includes {target}"
                faults[line] = line
    for members in circles(graph):
        folders = sorted({member.rpartition("/")[0] for member in members})
        line = "circle in " + " ".join(folders)
        faults[line] = line + ": " + " ".join(members)

    listed = pathlib.Path(__file__).with_suffix(".known")
    known = set(listed.read_text().splitlines()) if listed.exists() else set()
    for line in sorted(faults.keys() - known):
        print(faults[line], file=sys.stderr)
    for line in sorted(known - faults.keys()):
        print(f"no longer so, remove it from {listed.name}: {line}", file=sys.stderr)
    return 1 if faults.keys() != known else 0


sys.exit(main())
