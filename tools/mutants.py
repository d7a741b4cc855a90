#!/usr/bin/env python3
"""mutants.py FOLDER [--count N] [--seed S] [--list]: how many small faults do the tests find?

Changes one place of the sources of FOLDER (src/msg, say) at a time: turns a comparison or a
condition around, moves a bound by one, drops a call. Builds the folder's tests with it and runs
them. A mutant that no test finds has survived and is shown. All of this happens in a copy of the
tree below build/mutants."""

import argparse
import pathlib
import random
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
COPY = ROOT / "build" / "mutants" / "tree"

# What is replaced by what; blanks around an operator keep template brackets out.
OPERATORS = [
    (" < ", " <= "), (" <= ", " < "), (" > ", " >= "), (" >= ", " > "), (" == ", " != "),
    (" != ", " == "), (" && ", " || "), (" || ", " && "), (" + 1", " + 2"), (" + 1", ""),
    (" - 1", ""), (" += ", " -= "),
]
CONDITION = re.compile(r"^(\s*(?:\} else )?(?:if|while) \()(?!const |auto |constexpr )(.*)(\)(?: \{| [^;]*;)?)$")
CALL = re.compile(r"^\s+(?!return|throw|using|delete|co_)[A-Za-z_][\w:.>()\-]*\(.*\);$")


def code_of(line):
    """The part of a line that is code, or nothing where a change would mean nothing."""
    stripped = line.strip()
    if not stripped or stripped.startswith(("//", "#", "*", "/*", "static_assert", "assert(")):
        return ""
    return line.split("  //")[0]


def outside_strings(code, at):
    return code[:at].count('"') % 2 == 0


def mutants_of(path):
    lines = path.read_text().splitlines()
    for number, line in enumerate(lines):
        code = code_of(line)
        rest = line[len(code):]
        for old, new in OPERATORS:
            for found in re.finditer(re.escape(old), code):
                at = found.start()
                follows = code[found.end():found.end() + 1]
                if outside_strings(code, at) and not (old[-1].isdigit() and follows.isdigit()):
                    yield number, code[:at] + new + code[found.end():] + rest
        condition = CONDITION.match(code)
        if condition and condition[2].count("(") == condition[2].count(")") and ";" not in condition[2]:
            yield number, f"{condition[1]}!({condition[2]}){condition[3]}{rest}"
        if CALL.match(code) and " = " not in code.split("(")[0]:
            yield number, code[:len(code) - len(code.lstrip())] + ";" + rest


def tests_of(folder):
    """The test programs of a folder: those of the nearest folder below tests/ that has some."""
    parts = pathlib.PurePath(folder).parts
    mirror = ROOT / "tests" / pathlib.Path(*(parts[1:] if parts[0] == "src" else parts))
    while mirror != ROOT:
        lists = mirror / "CMakeLists.txt"
        names = re.findall(r"^msgapi_test\((\w+)", lists.read_text(), re.M) if lists.exists() else []
        if names:
            return names
        mirror = mirror.parent
    sys.exit(f"mutants: no tests belong to {folder}")


def run(words, timeout=None):
    try:
        return subprocess.run(words, cwd=COPY, capture_output=True, text=True,
                              timeout=timeout).returncode == 0
    except subprocess.TimeoutExpired:
        return False


def copy_tree():
    files = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, capture_output=True, text=True,
                           check=True).stdout.split("\0")
    for name in filter(None, files):
        source, target = ROOT / name, COPY / name
        if not source.is_file():
            continue
        target.parent.mkdir(parents=True, exist_ok=True)
        # A file that is as it was keeps its time, and so what was built of it.
        if not target.exists() or target.read_bytes() != source.read_bytes():
            shutil.copy(source, target)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("folder")
    parser.add_argument("--count", type=int, default=50)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--list", action="store_true", help="only show the mutants")
    options = parser.parse_args()

    folder = options.folder.rstrip("/")
    every = [(path.relative_to(ROOT), number, text)
             for path in sorted((ROOT / folder).rglob("*.cpp"))
             for number, text in mutants_of(path)]
    if not every:
        sys.exit(f"mutants: {folder} has no sources")
    chosen = random.Random(options.seed).sample(every, min(options.count, len(every)))
    if options.list:
        for path, number, text in chosen:
            print(f"{path}:{number + 1}: {text.strip()}")
        return

    tests = tests_of(folder)
    copy_tree()
    build = ["cmake", "--build", "--preset", "debug", "--target", "sandbox", *tests]
    check = ["ctest", "--preset", "debug", "-L", f"^({'|'.join(tests)})$", "--stop-on-failure",
             "--parallel", "2", "--timeout", "60", "--no-tests=error"]
    if not (run(["cmake", "--preset", "debug"]) and run(build) and run(check)):
        sys.exit("mutants: the tests do not pass before anything is changed")

    killed, survivors, broken = 0, [], 0
    for at, (path, number, text) in enumerate(chosen, 1):
        target = COPY / path
        original = target.read_text()
        lines = original.splitlines()
        before, lines[number] = lines[number], text
        target.write_text("\n".join(lines) + "\n")
        try:
            if not run(build, 600):
                broken, outcome = broken + 1, "does not compile"
            elif run(check, 900):
                survivors.append((path, number, before, text))
                outcome = "SURVIVES"
            else:
                killed, outcome = killed + 1, "found"
        finally:
            target.write_text(original)
        print(f"[{at}/{len(chosen)}] {path}:{number + 1}: {text.strip()[:70]}: {outcome}", flush=True)

    print(f"\n{killed} found, {len(survivors)} survive, {broken} do not compile "
          f"({len(every)} mutants in {folder})")
    for path, number, before, text in survivors:
        print(f"{path}:{number + 1}\n  - {before.strip()}\n  + {text.strip()}")


main()
