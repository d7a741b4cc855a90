#!/usr/bin/env python3
"""check_doors.py [SOURCES]: fails when the library's own code calls an exported function.

Exported functions are doors for programs: they check arguments and turn C codes into types and back.
Code inside namespace msgapi calls the typed function behind the door. A door may call another one
when it is only a second name for it."""

import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parents[1]).resolve()
# Takes the trace records: a program may replace it with a function of its own.
ALLOWED = {"ORP_TRACE_PrintInfo"}

NOT_CODE = re.compile(r'//[^\n]*|"(?:\\.|[^"\\\n])*"')
CALL = re.compile(r"\b(\w+)\(")
END = "}  // namespace msgapi"


def main():
    lines = (ROOT / "abi/exports.txt").read_text().splitlines()
    exported = {line for line in lines if not line.startswith("#")} - ALLOWED
    found = []
    for path in sorted((ROOT / "src").rglob("*")):
        if path.suffix not in (".h", ".cpp"):
            continue
        text = path.read_text()
        own = text[: max(text.rfind(END), 0)]  # the doors follow
        for number, line in enumerate(NOT_CODE.sub("", own).split("\n"), 1):
            for name in CALL.findall(line):
                if name in exported and not name.startswith("g_"):
                    found.append(f"{path.relative_to(ROOT)}:{number}: {name}")
    for place in found:
        print(f"check_doors.py: an exported function is called from inside: {place}", file=sys.stderr)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
