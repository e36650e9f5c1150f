# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Counts the instructions of the library's most frequent works by callgrind, and compares them with
the committed figures. One that has grown by more than two percent fails, with the functions that it
has grown in. On another system or compiler than that of the figures nothing can be told (77).
"""

import pathlib
import re
import subprocess
import tempfile
import tomllib

from command import OneLineParser, run

FIGURES = pathlib.Path(__file__).parent.parent / "bench" / "instructions.toml"
TIMES = 1000
MOST = 1.02
WORKS = ("dispatch 1", "dispatch 4", "dispatch 16", "replace 1", "pair 1", "pair 16", "hit 1")
CANNOT_TELL = 77


def first_line(*command):
    try:
        return subprocess.run(command, check=True, capture_output=True,
                              text=True).stdout.splitlines()[0]
    except (OSError, subprocess.CalledProcessError, IndexError):
        return "none"


def circumstances():
    return {"compiler": first_line("g++", "--version"), "library": first_line("ldd", "--version"),
            "counter": first_line("valgrind", "--version")}


def count(program, work):
    """The instructions of one time, and those of each function."""
    with tempfile.TemporaryDirectory() as folder:
        output = pathlib.Path(folder) / "callgrind.out"
        subprocess.run(["valgrind", "--tool=callgrind", "--collect-atstart=no", "--quiet",
                        f"--callgrind-out-file={output}", program, *work.split()], check=True)
        text = subprocess.run(["callgrind_annotate", "--auto=no", "--threshold=100",
                               str(output)], check=True,
                              capture_output=True, text=True).stdout
    functions = {}
    total = 0
    for line in text.splitlines():
        found = re.match(r" *([0-9,]+) \([ 0-9.]+%\)  (.*)", line)
        if not found:
            continue
        instructions = int(found[1].replace(",", ""))
        if found[2].strip() == "PROGRAM TOTALS":
            total = instructions
            continue
        name = re.sub(r" \[.*\]$", "", found[2]).split(":", 1)[-1].strip()
        functions[name] = functions.get(name, 0) + instructions
    return (round(total / TIMES, 1),
            {name: round(each / TIMES, 1) for name, each in functions.items() if each >= TIMES})


def quoted(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def write(program):
    lines = ["# Instructions of a work, and of its functions: made by tools/instructions.py --write.",
             "", "[circumstances]"]
    lines += [f"{name} = {quoted(value)}" for name, value in circumstances().items()]
    for work in WORKS:
        total, functions = count(program, work)
        print(f"{work:12} {total:8}")
        lines += ["", f"[{quoted(work)}]", f"total = {total}", "", f"[{quoted(work)}.functions]"]
        lines += [f"{quoted(name)} = {each}" for name, each in sorted(functions.items())]
    FIGURES.write_text("\n".join(lines) + "\n", encoding="utf-8")
    return 0


def compare(program):
    figures = tomllib.loads(FIGURES.read_text(encoding="utf-8"))
    if figures["circumstances"] != circumstances():
        print(f"The figures were made with {figures['circumstances']}, and here is "
              f"{circumstances()}: nothing can be told.")
        return CANNOT_TELL
    status = 0
    for work in WORKS:
        total, functions = count(program, work)
        known = figures[work]
        grown = total > known["total"] * MOST
        print(f"{work:12} {total:8} instructions, {known['total']} known"
              f"{': has grown by more than 2 %' if grown else ''}")
        if grown:
            status = 1
            for name, each in functions.items():
                before = known["functions"].get(name, 0)
                if each > before:
                    print(f"    {name}: {each}, {before} known")
    return status


def main():
    parser = OneLineParser("instructions.py", __doc__)
    parser.add_argument("program", metavar="PROGRAM", help="that does the works")
    parser.add_argument("--write", action="store_true", help="make the committed figures anew")
    arguments = parser.parse_args()
    return write(arguments.program) if arguments.write else compare(arguments.program)


if __name__ == "__main__":
    run("instructions.py", main)
