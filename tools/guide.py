# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Takes the programs out of a page of the guide, or runs what the page shows of them.

  extract   writes the page's files into a folder, with a CMakeLists.txt
  run       runs the page's commands there, and compares what they print

A block of code whose first line is a comment with a file's name is that file. The blocks of CMake
make the CMakeLists.txt. In a block of the language "console" a line that begins with "$ " is a
command for bash, one shell for the whole page, and the lines below it are what it prints; "..."
stands for anything there, several lines included.
"""

import ctypes
import pathlib
import re
import resource
import subprocess

from command import OneLineParser, Problem
from command import run as run_script

FENCE = re.compile(r"^```(\w+)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
NAME = re.compile(r"^(?://|#) (\w+\.(?:cpp|h|py))\n")
SECONDS = 50
ADDR_NO_RANDOMIZE = 0x0040000
SEPARATOR = "--- end of the output ---"
# What stands between two commands leaves the status of the first one to the second.
PREPARATION = f"end_output() {{ local status=$?; echo '{SEPARATOR}'; return $status; }}\n"


def blocks(page):
    """The language and the text of each block."""
    return FENCE.findall(pathlib.Path(page).read_text(encoding="utf-8"))


def write_if_changed(path, text):
    if not path.exists() or path.read_text(encoding="utf-8") != text:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")


def extract(page, folder):
    build = []
    for language, text in blocks(page):
        name = NAME.match(text)
        if language == "cmake":
            build.append(text)
        elif name:
            write_if_changed(folder / name[1], text)
        elif language in ("cpp", "python"):
            raise Problem(f"{page}: a block of {language} does not begin with its file's name")
    write_if_changed(folder / "CMakeLists.txt", "\n".join(build))


def session(page):
    """The commands of a page, each with the lines that it is to print."""
    commands = []
    for language, text in blocks(page):
        for line in text.splitlines() if language == "console" else ():
            if line.startswith("$ "):
                commands.append((line[2:], []))
            else:
                commands[-1][1].append(line)
    return commands


def prepare_shell():
    # No core files: a limit of one byte keeps the system's own collector from taking one, too.
    resource.setrlimit(resource.RLIMIT_CORE, (1, 1))
    # Older sanitizers can't set up their memory where the kernel randomises addresses strongly. If
    # it refuses to leave that out, they have to try.
    ctypes.CDLL(None).personality(ADDR_NO_RANDOMIZE)


def outputs(commands, folder):
    """What each command prints, as lines."""
    script = PREPARATION + "".join(f"{command}\nend_output\n" for command, _ in commands)
    shell = subprocess.run(["bash", "-c", script, "bash"], cwd=folder, text=True, check=False,
                           stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, timeout=SECONDS, preexec_fn=prepare_shell)
    return [each.splitlines() for each in shell.stdout.split(SEPARATOR + "\n")]


def as_pattern(lines):
    return "\n".join(".*".join(map(re.escape, line.split("..."))) for line in lines)


def run(page, folder):
    commands = session(page)
    if not commands:
        raise Problem(f"{page}: shows no command")
    status = 0
    printed = outputs(commands, folder) + [["(the shell has ended)"]] * len(commands)
    for (command, expected), lines in zip(commands, printed):
        if not re.fullmatch(as_pattern(expected), "\n".join(lines), re.DOTALL):
            status = 1
            print(f"$ {command}\nprinted:", *lines, "but the page says:", *expected, "", sep="\n")
    return status


def main():
    parser = OneLineParser("guide.py", __doc__)
    parser.add_argument("work", metavar="extract|run", choices=("extract", "run"))
    parser.add_argument("page", metavar="PAGE")
    parser.add_argument("folder", metavar="FOLDER", type=pathlib.Path)
    arguments = parser.parse_args()
    return (extract if arguments.work == "extract" else run)(arguments.page, arguments.folder)


if __name__ == "__main__":
    run_script("guide.py", main)
