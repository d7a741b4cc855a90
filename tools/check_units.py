#!/usr/bin/env python3
"""check_units.py BUILD [FOLDER]: do the large units of a build (CMAKE_UNITY_BUILD) compile, or those of one
of its folders? They do not when two files of a library or program have different things of their own by the
same name."""

import concurrent.futures
import json
import os
import pathlib
import shlex
import subprocess
import sys


def check(entry):
    command = shlex.split(entry["command"]) + ["-fsyntax-only"]
    return subprocess.run(command, cwd=entry["directory"], capture_output=True, text=True, check=False)


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    folder = str(build.joinpath(*sys.argv[2:])) + "/"
    commands = json.loads((build / "compile_commands.json").read_text())
    units = [each for each in commands if each["file"].startswith(folder) and "/Unity/" in each["file"]]
    if not units:
        sys.exit(f"check_units: {folder} has no units")
    failed = False
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for result in pool.map(check, units):
            if result.returncode:
                failed = True
                sys.stderr.write(result.stderr)
    if failed:
        sys.exit("check_units: these do not compile; things of a file's own need a name of their own")


main()
