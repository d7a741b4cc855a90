#!/usr/bin/env python3
"""check_unused_includes.py [SOURCES]: fails when a file includes a header of the project and mentions
none of the names that the header declares.

A name counts wherever it is mentioned, except in a comment, so what is reported is certainly unused.
Headers that are included only through another header are not checked."""

import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parents[1]).resolve()
PLACES = ["src", "platform", "catalogue", "kit", "servers", "tools", "examples", "tests", "fuzz", "bench"]
SEARCHED = [ROOT / "src", ROOT / "servers", ROOT / "include", ROOT / "tests", ROOT,
            *sorted(ROOT.glob("platform/*/include"))]
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"(.*)$', re.M)
# Literals are matched as well, because "/*" and "//" inside a literal begin no comment.
COMMENT = re.compile(r'''(R"(\w*)\(.*?\)\2"|"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])')'''
                     r"|//[^\n]*|/\*.*?\*/", re.S)
WORD = re.compile(r"\b[A-Za-z_]\w*\b")
# What a header declares: functions, types, macros, constants, variables.
DECLARED = re.compile(
    r"\b(\w+)\s*\(|\b(?:enum class|enum|struct|class|union)\s+(?:\[\[\w+\]\]\s*)?(\w+)|\}\s*(\w+)\s*;"
    r"|\busing\s+(\w+)\s*=|#\s*define\s+(\w+)|\b(k[A-Z]\w*|[gm]_\w+|[A-Z][A-Z0-9_]+)\b"
)
NO_NAMES = set("if for while switch return sizeof static_assert defined class struct explicit operator "
               "const auto void char int bool size get std MSGAPI_EXPORT MSGAPI_PRINTF".split())
# Headers that only include others: they are included for what those declare.
INTERFACES = {"msgapi.h"}


def without_comments(text):
    return COMMENT.sub(lambda match: match.group(1) or " ", text)


def find(path, name):
    for folder in [path.parent, *SEARCHED]:
        if (folder / name).is_file():
            return (folder / name).resolve()
    return None


def declared(header, known={}):
    if header not in known:
        text = without_comments(header.read_text())
        known[header] = {name for names in DECLARED.findall(text) for name in names
                         if name} - NO_NAMES
    return known[header]


def main():
    unused = []
    for place in PLACES:
        for path in sorted((ROOT / place).rglob("*")):
            if path.suffix not in (".h", ".c", ".cpp"):
                continue
            text = path.read_text()
            mentioned = set(WORD.findall(INCLUDE.sub("", without_comments(text))))
            for name, rest in INCLUDE.findall(text):
                header = find(path, name)
                own = header is not None and header.stem == path.stem.removesuffix("_test")
                if header is None or own or name in INTERFACES or "IWYU pragma: export" in rest:
                    continue
                if not declared(header) & mentioned:
                    unused.append(f"{path.relative_to(ROOT)}: {name}")
    for each in unused:
        print(f"check_unused_includes.py: nothing of it is used: {each}", file=sys.stderr)
    return 1 if unused else 0


if __name__ == "__main__":
    sys.exit(main())
