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
import statistics
import subprocess
import sys

BUILD = pathlib.Path("build/bench/bench")
BLOCK = 2_000_000  # nanoseconds
ROUNDS = 200
QUICK_ROUNDS = 40


class Problem(Exception):
    """What is wrong, in one line."""


class Row:
    """A work: what the library needs for it, what it is measured against, and the goal."""

    def __init__(self, name, what, work, base, goal, kind="ratio", peers=(), threads=False):
        self.name, self.what, self.work, self.base = name, what, work, base
        self.goal, self.kind, self.peers, self.threads = goal, kind, peers, threads


def rows():
    made = []
    for count, goal in ((1, 1.025), (4, 1.03), (16, 1.06)):
        made.append(Row(f"delivered/{count}", f"a delivered signal, {count} records",
                        f"library delivered {count}", "bare delivered", goal,
                        peers=((f"bare delivered-ideal {count}", "by hand"),)))
    for count, goal in ((1, 25.0), (4, 30.0), (16, 55.0)):
        made.append(Row(f"direct/{count}", f"own share of a call by hand, {count} records",
                        f"library direct {count}", "bare installation", goal, kind="share",
                        peers=((f"bare direct-ideal {count}", "by hand"),)))
    for others in (0, 1, 16, 64, 256):
        made.append(Row(f"pair/{others}", f"register and clear beside {others} others",
                        f"library pair {others}", "bare pair", 1.6))
    for work in ("start", "stop"):
        for count, goal in ((1, 3.0), (10, None), (50, 1.3)):
            made.append(Row(f"{work}/{count}", f"{work} for {count} signals",
                            f"library {work} {count}", f"bare {work} {count}", goal))
    made.append(Row("calling", "two threads in callHandlers, sum over one thread's",
                    "library calling 2", "library calling 1", 1.6, kind="speed", threads=True))
    made.append(Row("raising", "two threads raising, over two bare handlers",
                    "library raising 2", "bare raising 2", 0.95, kind="speed", threads=True))
    return made


class Worker:
    """A program that does a work in blocks."""

    def __init__(self, command, processor):
        program, *arguments = command.split()
        self.command = command
        pin = None if processor is None else lambda: os.sched_setaffinity(0, {processor})
        self._process = subprocess.Popen(
            [str(BUILD / program), *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            text=True, bufsize=1, preexec_fn=pin)

    def block(self, times):
        try:
            self._process.stdin.write(f"{times}\n")
            self._process.stdin.flush()
        except BrokenPipeError:
            pass
        answer = self._process.stdout.readline()
        if not answer:
            raise Problem(f"{self.command}: ended with status {self._process.wait()}")
        return float(answer)

    def size(self, first):
        """How many times make a block."""
        self.block(first)
        return max(2, 2 * round(BLOCK / max(1.0, self.block(first)) / 2))

    def end(self):
        self._process.stdin.close()
        self._process.wait()


def measure(row, rounds):
    """The times of all that take part, a list for each, block by block."""
    processor = None if row.threads else sorted(os.sched_getaffinity(0))[-1]
    commands = [row.work, row.base, *(command for command, _ in row.peers)]
    workers = [Worker(command, processor) for command in commands]
    try:
        # Threads that are made for a block must not count.
        sizes = [worker.size(20000 if row.threads else 40) * (10 if row.threads else 1)
                 for worker in workers]
        times = [[] for _ in workers]
        for turn in range(rounds):
            for step in range(len(workers)):
                index = (turn + step) % len(workers)
                times[index].append(workers[index].block(sizes[index]))
        return times
    finally:
        for worker in workers:
            worker.end()


def over_base(row, times, base):
    pairs = list(zip(times, base))
    if row.kind == "share":
        return statistics.median(mine - its for mine, its in pairs)
    if row.kind == "speed":
        return statistics.median(its / mine for mine, its in pairs)
    return statistics.median(mine / its for mine, its in pairs)


def result_of(row, rounds):
    library, base, *peers = measure(row, rounds)
    value = over_base(row, library, base)
    if row.goal is None:
        met = None
    else:
        met = value >= row.goal if row.kind == "speed" else value <= row.goal
    return {
        "name": row.name, "what": row.what, "kind": row.kind, "value": round(value, 3),
        "goal": row.goal, "met": met, "library_ns": round(statistics.median(library), 1),
        "base_ns": round(statistics.median(base), 1),
        "quiet_ns": round(statistics.quantiles(library, n=10)[0], 1),
        "peers": {name: round(over_base(row, times, base), 3)
                  for (_, name), times in zip(row.peers, peers)}}


def memory_results():
    made = []
    for name, what, arguments, goal in (
            ("memory/1", "tables of 1 signal with 1 handler", ["1", "1"], 2200),
            ("memory/56", "tables of 56 signals with 4 handlers each", ["56", "4"], 74700)):
        output = subprocess.run([str(BUILD / "library"), "memory", *arguments], check=True,
                                capture_output=True, text=True).stdout
        taken, grown = (int(word) for word in output.split())
        made.append({"name": name, "what": what, "kind": "bytes", "value": taken, "goal": goal,
                     "met": taken <= goal and grown == 0, "pages_grown": grown, "peers": {}})
    return made


def text_of(result):
    unit = {"ratio": "x", "speed": "x", "share": " ns", "bytes": " bytes"}[result["kind"]]
    bound = "least" if result["kind"] == "speed" else "most"
    goal = "-" if result["goal"] is None else f"at {bound} {result['goal']:g}{unit}"
    met = {None: "", True: "met", False: "not met"}[result["met"]]
    peers = ", ".join(f"{name} {value:g}{unit}" for name, value in result["peers"].items())
    return f"{result['what']:52} {result['value']:>10g}{unit:6} {goal:20} {met:8} {peers}".rstrip()


def main():
    parser = argparse.ArgumentParser(prog="./dev bench", description=__doc__.split("\n")[0])
    parser.add_argument("names", nargs="*", metavar="NAME",
                        help="a work, or the beginning of the names of several")
    parser.add_argument("--list", action="store_true", help="list the works and measure nothing")
    parser.add_argument("--quick", action="store_true", help="fewer blocks")
    parser.add_argument("--json", metavar="FILE", help="write the results there as well")
    parser.add_argument("--check", action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    chosen = [row for row in rows()
              if not arguments.names or any(row.name == n or row.name.startswith(n + "/")
                                           for n in arguments.names)]
    memory = not arguments.names or "memory" in arguments.names
    if not chosen and not memory:
        raise Problem(f"bench: no work is called {' or '.join(arguments.names)}")
    if arguments.check:
        return
    if arguments.list:
        for row in chosen:
            print(f"{row.name:14} {row.what}")
        return
    results = []
    for number, row in enumerate(chosen, start=1):
        print(f"[{number}/{len(chosen)}] {row.name}", flush=True)
        results.append(result_of(row, QUICK_ROUNDS if arguments.quick else ROUNDS))
    results += memory_results() if memory else []
    print()
    for result in results:
        print(text_of(result))
    if arguments.json:
        pathlib.Path(arguments.json).write_text(json.dumps(results, indent=2) + "\n",
                                                encoding="utf-8")


if __name__ == "__main__":
    try:
        main()
    except (Problem, OSError) as problem:
        print(f"dev: {problem}", file=sys.stderr)
        sys.exit(1)
