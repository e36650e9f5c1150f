# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Measures what the library costs, beside what its works cost without it, in one run.

Each work is done by programs of their own, in blocks of a few milliseconds, by turns and on one
processor; ratios are formed block by block, so that what disturbs one of them disturbs the others.
The programs check what every block has done.
"""

import argparse
import json
import os
import pathlib

import bench_run
import bench_tables
import bench_text
import bench_works
from command import Misuse, OneLineParser, run
from machine_use import OthersUse

ROUNDS = 150
QUICK_ROUNDS = 40
REPETITIONS = 25
QUICK_REPETITIONS = 9
DOCUMENTATION = pathlib.Path("docs/performance")


class Work:
    """A row of the table: its name, what it is, and how it is measured."""

    def __init__(self, name, what, measure):
        self.name, self.what, self.measure = name, what, measure

    def called(self, name):
        return self.name == name or self.name.startswith(name.rstrip("/") + "/")


def programs_there():
    """The programs that were built; which peers were is their business."""
    return {name for name in ("bare", "library", *bench_works.PEERS) if bench_run.there(name)}


def works(rounds, repetitions):
    programs = programs_there()
    made = [Work(row.name, row.what,
                 lambda row=row: bench_run.result_of(row, rounds, programs))
            for row in bench_works.rows()]
    made += [Work(name, what, lambda rest=(name, what, *rest): bench_run.memory_result(*rest))
             for name, what, *rest in bench_works.MEMORY]
    made += [Work(name, what, lambda rest=(name, what, goal), measure=measure: measure(*rest))
             for (name, what, goal), measure in (
                 (bench_works.SIZE, bench_run.size_result),
                 (bench_works.RELOCATIONS, bench_run.relocations_result),
                 (bench_works.THREAD_LOCALS, bench_run.thread_locals_result))]
    made += [Work(f"tables/{name}", what,
                  lambda name=name, what=what: bench_tables.table_result(name, what, repetitions))
             for name, what in bench_works.table_rows()]
    return made


def chosen_of(all_works, names):
    for name in names:
        if not any(work.called(name) for work in all_works):
            raise Misuse(f'no work is called "{name}"; --list names them')
    return [work for work in all_works
            if not names or any(work.called(name) for name in names)]


def name_the_missing():
    there = programs_there() | bench_tables.tables_there()
    for name, (called, package) in (bench_works.PEERS | bench_works.TABLES).items():
        if name not in there:
            print(f"Without {called}: {package} is missing, and --peers installs it")


def measure(chosen):
    results = []
    for number, work in enumerate(chosen, start=1):
        print(f"[{number}/{len(chosen)}] {work.name}", flush=True)
        results.append(work.measure())
    return results


def make_documentation(results, rounds, others):
    # Only here, because it has to be installed for that.
    import bench_pictures
    DOCUMENTATION.mkdir(exist_ok=True)
    for name, panels in bench_works.pictures(len(os.sched_getaffinity(0))).items():
        file = f"{name}.svg"
        print(f"Making {DOCUMENTATION / file}", flush=True)
        bench_pictures.make_picture(name, panels, DOCUMENTATION, rounds, programs_there())
    (DOCUMENTATION / "measured.md").write_text(
        bench_text.for_documentation(results, rounds, others.percent()), encoding="utf-8")


def parse():
    parser = OneLineParser("./dev bench", __doc__.split("\n")[0])
    parser.add_argument("names", nargs="*", metavar="NAME",
                        help="a work, or the beginning of the names of several")
    parser.add_argument("--list", action="store_true", help="list the works and measure nothing")
    parser.add_argument("--quick", action="store_true", help="fewer blocks")
    parser.add_argument("--json", metavar="FILE", type=pathlib.Path,
                        help="write the results there as well")
    parser.add_argument("--peers", action="store_true",
                        help="install what the library can be measured beside first")
    parser.add_argument("--pictures", action="store_true",
                        help=f"do so, and make the table and the pictures in {DOCUMENTATION} again")
    parser.add_argument("--check", action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    if arguments.pictures and arguments.names:
        parser.error("--pictures measures everything, so it takes no names")
    if arguments.json and not arguments.json.absolute().parent.is_dir():
        parser.error(f"there is no folder for {arguments.json}")
    return arguments


def main():
    arguments = parse()
    rounds = QUICK_ROUNDS if arguments.quick else ROUNDS
    chosen = chosen_of(works(rounds, QUICK_REPETITIONS if arguments.quick else REPETITIONS),
                       arguments.names)
    if arguments.check:
        return 0
    if arguments.list:
        for work in chosen:
            print(f"{work.name:26} {work.what}")
        return 0
    name_the_missing()
    others = OthersUse()
    results = measure(chosen)
    if arguments.pictures:
        make_documentation(results, rounds, others)
    if arguments.json:
        arguments.json.write_text(json.dumps(results, indent=2) + "\n", encoding="utf-8")
    print()
    print(bench_text.for_terminal(results))
    print(bench_text.others_use(others.percent()))
    return 0


if __name__ == "__main__":
    run("dev: bench", main)
