#!/usr/bin/env python3
"""counts.py DIRECTORY [--accept]: counts the instructions and the system calls of each piece of
fixed work in DIRECTORY/counts and compares them with bench/counts.txt, or renews that file.

Fails when a count is more than 3 % above the table's. Compares nothing when the compiler, the C
library or the processor is not the table's. Runs in the sandbox."""

import concurrent.futures
import os
import pathlib
import platform
import re
import subprocess
import sys

TABLE = pathlib.Path(__file__).with_name("counts.txt")
TOLERANCE = 1.03
HEAD = """# Instructions and system calls for one operation, those of the harness included; counted by
# ./dev bench --counts, renewed by ./dev bench --counts --accept.
"""
FOR = "# With "


# What the numbers depend on besides the sources. The C library has some functions in several forms,
# one for each kind of processor.
def surroundings():
    compiler = run(["c++", "-dumpfullversion", "-dumpversion"]).stdout.strip()
    flags = pathlib.Path("/proc/cpuinfo").read_text()
    kind = "with AVX2" if " avx2 " in flags else "without AVX2"
    return f"g++ {compiler}, {' '.join(platform.libc_ver())}, {platform.machine()} {kind}"


def run(words):
    done = subprocess.run(words, capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"counts: {' '.join(words)}: {done.stderr.strip()}")
    return done


def count(program, name):
    counted = run(["valgrind", "--tool=callgrind", "--collect-atstart=no",
                   "--callgrind-out-file=/dev/null", program, name])
    collected = re.search(r"Collected : (\d+)", counted.stderr)
    if not collected:
        sys.exit(f"counts: {name}: callgrind has counted nothing")
    # The last line is the program's answer. The library may print lines before it.
    calls = int(run([program, "--calls", name]).stdout.split()[-1])
    return round(int(collected[1]) / int(counted.stdout.split()[-1])), calls


def read_table():
    rows, made_with = {}, None
    for line in TABLE.read_text().splitlines() if TABLE.exists() else []:
        if line.startswith(FOR):
            made_with = line[len(FOR):]
        elif line and not line.startswith("#"):
            name, instructions, calls = line.split()
            rows[name] = (int(instructions), int(calls))
    return rows, made_with


def main():
    program, accept = os.path.join(sys.argv[1], "counts"), "--accept" in sys.argv[2:]
    names = run([program, "--list"]).stdout.split()
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        now = dict(zip(names, pool.map(lambda name: count(program, name), names)))
    before, made_with = read_table()
    here = surroundings()
    comparable = made_with == here
    grown = []
    print(f"{'operation':<24}{'instructions':>14}{'before':>10}{'calls':>7}{'before':>8}")
    for name, (instructions, calls) in now.items():
        was = before.get(name)
        worse = was and (instructions > was[0] * TOLERANCE or calls > was[1])
        if comparable and (worse or not was):
            grown.append(name)
        print(f"{name:<24}{instructions:>14}{was[0] if was else '-':>10}{calls:>7}"
              f"{was[1] if was else '-':>8}{'  more' if worse else ''}")
    if accept:
        TABLE.write_text(HEAD + f"{FOR}{here}\n" + "".join(f"{name:<24}{row[0]:>10}{row[1]:>6}\n"
                                        for name, row in now.items()))
    elif not comparable:
        print(f"counts: nothing is compared: the table was made with {made_with}, this is {here}")
    elif grown:
        sys.exit(f"counts: more than before, or new: {', '.join(grown)}. If that is meant, run "
                 "./dev bench --counts --accept and commit the table with the change.")


main()
