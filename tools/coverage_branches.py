#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Gives gcovr's trace of the coverage the branches that the source code writes.

gcovr takes the branches of a line from wherever the line was compiled, by their
number. But a line of a template, or of a constructor, is compiled into several
functions, whose branches differ in number and order, and of a template that a
source instantiates more than once gcovr sees none. This takes them from gcov
itself, function by function:

- The functions that come from the same place in the source are variants of one.
  Those that have alike branches on a line are counted together.
- Any variant holds every branch that the source writes there, so the line has
  the branches of the variant of which the most ran.
- Branches into the handling of exceptions, and those of a lone brace, catch or
  delete, are the compiler's and are left out. So are those of a line that is
  marked with GCOVR_EXCL_BR_LINE, with its reason behind it.
"""

import collections
import json
import os
import re
import subprocess

from command import OneLineParser, Problem, run

EXCLUDED = re.compile(r"GCOVR_EXCL_BR_LINE: \S")
COMMENT = re.compile(r"//.*")
NOTHING_WRITTEN = re.compile(r"[{}]*|delete(\[\])? \w+;|} catch \(.*\) {")


def counters(folder):
    for parent, _, names in os.walk(folder):
        for name in names:
            if name.endswith(".gcda"):
                yield os.path.join(parent, name)


def gcov(paths):
    """What gcov says on each source of each object."""
    command = ["gcov", "--branch-counts", "--branch-probabilities", "--json-format", "--stdout"]
    output = subprocess.run(command + paths, check=True, capture_output=True, text=True).stdout
    for report in map(json.loads, output.splitlines()):
        for source in report["files"]:
            path = os.path.join(report["current_working_directory"], source["file"])
            yield os.path.realpath(path), source


def written_branches(paths):
    """By source and line: the counts of the branches of each place, of each variant."""
    found = collections.defaultdict(lambda: collections.defaultdict(dict))
    for path, source in gcov(paths):
        places = {f["name"]: (f["start_line"], f["start_column"]) for f in source["functions"]}
        for line in source["lines"]:
            branches = [branch for branch in line["branches"] if not branch["throw"]]
            if not branches:
                continue
            kind = tuple(branch["fallthrough"] for branch in branches)
            variants = found[path, line["line_number"]][places.get(line.get("function_name"))]
            counts = variants.setdefault(kind, [0] * len(branches))
            # A process that ends while its threads count can leave less than nothing.
            variants[kind] = [a + max(b["count"], 0) for a, b in zip(counts, branches)]
    return found


def most_covered(variants):
    def share(counts):
        return sum(map(bool, counts)) / len(counts), len(counts)

    return max(variants.values(), key=share)


def correct(trace, root, found):
    for source in trace["files"]:
        path = os.path.realpath(os.path.join(root, source["file"]))
        with open(path, encoding="utf-8") as file:
            code = file.read().splitlines()
        for line in source["lines"]:
            number = line["line_number"]
            text = code[number - 1]
            counts = []
            if not (
                line.get("gcovr/noncode")
                or line.get("gcovr/excluded")
                or EXCLUDED.search(text)
                or NOTHING_WRITTEN.fullmatch(COMMENT.sub("", text).strip())
            ):
                for variants in found.get((path, number), {}).values():
                    counts += most_covered(variants)
            line["branches"] = [
                {"branchno": i, "count": count, "fallthrough": False, "throw": False}
                for i, count in enumerate(counts)
            ]


def correct_file(build, root, path):
    objects = [os.path.abspath(name) for name in sorted(counters(build))]
    if not objects:
        raise OSError(f"no counters in {build}")
    with open(path, encoding="utf-8") as file:
        trace = json.load(file)
    correct(trace, root, written_branches(objects))
    with open(path, "w", encoding="utf-8") as file:
        json.dump(trace, file)


def main():
    parser = OneLineParser("coverage_branches.py", __doc__)
    parser.add_argument("build", metavar="BUILD_FOLDER")
    parser.add_argument("root", metavar="SOURCE_FOLDER")
    parser.add_argument("trace", metavar="TRACE")
    arguments = parser.parse_args()
    try:
        correct_file(arguments.build, arguments.root, arguments.trace)
    except (KeyError, ValueError) as error:
        raise Problem(f"{arguments.trace} can't be understood: {error}") from error
    return 0


if __name__ == "__main__":
    run("coverage_branches.py", main)
