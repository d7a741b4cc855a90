#!/usr/bin/env python3
"""mutants.py FOLDER [--count N] [--seed S] [--minutes M] [--list]: shows how many small faults the
tests find.

Changes one place in the sources of FOLDER (for example src/msg) at a time: reverses a comparison or
a condition, moves a bound by one, drops a call. Builds the folder's test programs with the change
and runs their cases one by one until one fails: first those that have found a mutant of the same
file, then those of the test file with the same name, then the others, quick ones first. A mutant
that no case finds has survived and is shown. All of this happens in a copy of the tree below
build/mutants, without debug information, so a mutant costs one compilation and one link."""

import argparse
import contextlib
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
COPY = ROOT / "build" / "mutants" / "tree"
BIN = COPY / "build" / "debug" / "bin"

# A case counts as endless after this many times its usual time, plus some seconds.
SLOWER, GRACE_S = 10, 10

# What is replaced by what. The blanks around an operator exclude template brackets.
OPERATORS = [
    (" < ", " <= "), (" <= ", " < "), (" > ", " >= "), (" >= ", " > "), (" == ", " != "),
    (" != ", " == "), (" && ", " || "), (" || ", " && "), (" + 1", " + 2"), (" + 1", ""),
    (" - 1", ""), (" += ", " -= "),
]
CONDITION = re.compile(r"^(\s*(?:\} else )?(?:if|while) \()(?!const |auto |constexpr )(.*)(\)(?: \{| [^;]*;)?)$")
CALL = re.compile(r"^\s+(?!return|throw|using|delete|co_)[A-Za-z_][\w:.>()\-]*\(.*\);$")


def code_of(line):
    """The part of a line that is code; empty where a change would mean nothing."""
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
    """The test programs of a folder and the folder of their sources: the nearest one below tests/ that
    has some."""
    parts = pathlib.PurePath(folder).parts
    mirror = ROOT / "tests" / pathlib.Path(*(parts[1:] if parts[0] == "src" else parts))
    while mirror != ROOT:
        lists = mirror / "CMakeLists.txt"
        names = re.findall(r"^msgapi_test\((\w+)", lists.read_text(), re.M) if lists.exists() else []
        if names:
            return names, mirror
        mirror = mirror.parent
    sys.exit(f"mutants: no tests belong to {folder}")


def run(words, timeout=None):
    """Whether the program succeeds in time. Its children end with it."""
    with subprocess.Popen(words, cwd=COPY, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          stdin=subprocess.DEVNULL, start_new_session=True,
                          env={**os.environ, "MSGAPI_BIN": str(BIN)}) as process:
        try:
            return process.wait(timeout) == 0
        except subprocess.TimeoutExpired:
            return False
        finally:
            # Also after an interrupt: nobody else can end the processes of that session.
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)


class Cases:
    """The cases of some test programs. Each case runs in a process of its own in the sandbox."""

    def __init__(self, programs, sources):
        self.usual_s = {}   # by (program, case), without a change
        self.file_of = {}   # the test file of a case
        self.killed = {}    # by source file: the cases that have found its mutants, the latest first
        stands_in = {}
        for path in sorted(sources.rglob("*.cpp")):
            for suite, name in re.findall(r"^(?:TYPED_)?TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", path.read_text(),
                                          re.M):
                stands_in[f"{suite}.{name}"] = path.stem
        for program in programs:
            listing = subprocess.run([BIN / "sandbox", "--", BIN / program, "--gtest_list_tests"],
                                     capture_output=True, text=True, check=True).stdout
            suite = ""
            for line in listing.splitlines():
                word = line.split("#")[0].rstrip()
                if word.endswith(".") and not line.startswith(" "):
                    suite = word
                elif line.startswith("  ") and "DISABLED_" not in line:
                    case = (program, suite + word.strip())
                    plain = re.sub(r"/\w+$", "", re.sub(r"^\w+/", "", case[1]))
                    self.file_of[case] = stands_in.get(plain, "")
                    self.usual_s[case] = 0.0

    def passes(self, case, limit_s=None):
        return run([str(BIN / "sandbox"), "--", str(BIN / case[0]), f"--gtest_filter={case[1]}"],
                   limit_s)

    def measure(self):
        for case in list(self.usual_s):
            begin = time.monotonic()
            if not self.passes(case, 300):
                sys.exit(f"mutants: {case[1]} fails before anything is changed")
            self.usual_s[case] = time.monotonic() - begin

    def find(self, source):
        """The first case that fails, if any does."""
        found_before = self.killed.setdefault(source, [])
        own = f"{source.stem}_test"
        others = sorted((case for case in self.usual_s if case not in found_before),
                        key=lambda case: (self.file_of[case] != own, self.usual_s[case]))
        for case in [*found_before, *others]:
            if not self.passes(case, GRACE_S + SLOWER * self.usual_s[case]):
                if case in found_before:
                    found_before.remove(case)
                found_before.insert(0, case)
                return case
        return None


def copy_tree():
    files = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, capture_output=True, text=True,
                           check=True).stdout.split("\0")
    for name in filter(None, files):
        source, target = ROOT / name, COPY / name
        if not source.is_file():
            continue
        target.parent.mkdir(parents=True, exist_ok=True)
        # An unchanged file keeps its time, so that nothing is built again for it.
        if not target.exists() or target.read_bytes() != source.read_bytes():
            shutil.copy(source, target)


def configure():
    """Without debug information, and with the quicker linker if it is there."""
    options = [f"-DCMAKE_{language}_FLAGS_DEBUG=-g0" for language in ("C", "CXX")]
    if shutil.which("ld.lld"):
        options.append("-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld")
    return run(["cmake", "--preset", "debug", *options])


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("folder")
    parser.add_argument("--count", type=int, default=50)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--minutes", type=float, default=0, help="begin no mutant after so many")
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

    programs, sources = tests_of(folder)
    copy_tree()
    build = ["ninja", "-C", "build/debug", *programs]
    if not (configure() and run(["ninja", "-C", "build/debug", "sandbox"]) and run(build)):
        sys.exit("mutants: the tests do not compile before anything is changed")
    cases = Cases(programs, sources)
    cases.measure()

    killed, survivors, broken = 0, [], 0
    begin = time.monotonic()
    for at, (path, number, text) in enumerate(chosen, 1):
        if options.minutes and time.monotonic() - begin > options.minutes * 60:
            break
        target = COPY / path
        original = target.read_text()
        lines = original.splitlines()
        before, lines[number] = lines[number], text
        started = time.monotonic()
        target.write_text("\n".join(lines) + "\n")
        try:
            if not run(build, 600):
                broken, outcome = broken + 1, "does not compile"
            elif (case := cases.find(path)) is None:
                survivors.append((path, number, before, text))
                outcome = "SURVIVES"
            else:
                killed, outcome = killed + 1, f"found by {case[1]}"
        finally:
            target.write_text(original)
        print(f"[{at}/{len(chosen)}] {path}:{number + 1}: {text.strip()[:70]}: {outcome} "
              f"({time.monotonic() - started:.1f} s)", flush=True)

    print(f"\n{killed} found, {len(survivors)} survive, {broken} do not compile "
          f"({len(every)} mutants in {folder})")
    for path, number, before, text in survivors:
        print(f"{path}:{number + 1}\n  - {before.strip()}\n  + {text.strip()}")


def end(*_):
    raise KeyboardInterrupt


signal.signal(signal.SIGTERM, end)
signal.signal(signal.SIGHUP, end)
try:
    main()
except KeyboardInterrupt:
    sys.exit("mutants: interrupted; the copy's sources are as they were")
