#!/usr/bin/env python3
"""Measures event loops and prints the table of the integration guide:
    event_loops.py [--check GUIDE] [--file FILE] PROGRAM...
--check fails when the guide does not have the very same rows. --file measures with another file than
this one, such as a block device."""

import argparse
import concurrent.futures
import pathlib
import subprocess
import sys

HEAD = ("library", "regular file", "others' children", "others' children, with one of its own",
        "timer set after blocking")


def measure(program, file):
    output = subprocess.run([program, file], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            check=True, text=True, timeout=250).stdout
    return [line.split("|") for line in output.splitlines()]


def row(cells):
    return "| " + " | ".join(cells) + " |"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--check", type=pathlib.Path)
    parser.add_argument("--file", default=__file__)
    parser.add_argument("programs", nargs="+")
    arguments = parser.parse_args()

    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        results = pool.map(lambda program: measure(program, arguments.file), arguments.programs)
        table = [row(cells) for cells in (HEAD, ["---"] * len(HEAD))]
        table += [row(cells) for rows in results for cells in rows]
    print("\n".join(table))
    if arguments.check and "\n".join(table) not in arguments.check.read_text():
        print(f"{arguments.check.name} does not have this table", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
