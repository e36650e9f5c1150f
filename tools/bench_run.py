# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Has works done by programs of their own, in blocks, by turns and on one processor."""

import os
import pathlib
import statistics
import subprocess

from command import Problem
from shared_library import asks_for_thread_locals, relocations_beyond_tables

BUILD = pathlib.Path("build/bench/bench")
LIBRARY = BUILD.parent / "libsrc" / "libsorvane-signals.so"
BLOCK = 2_000_000  # nanoseconds


def there(program):
    return (BUILD / program).is_file()


def pin_to_last():
    """Has this process stay on one processor."""
    os.sched_setaffinity(0, {sorted(os.sched_getaffinity(0))[-1]})


class Worker:
    """A program that does a work in blocks."""

    def __init__(self, command, threads):
        program, *arguments = command.split()
        self.command = command
        self._process = subprocess.Popen(
            [str(BUILD / program), *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            text=True, bufsize=1, preexec_fn=None if threads else pin_to_last)

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


def measure(commands, rounds, threads=False):
    """The times of each command, in nanoseconds, block by block."""
    workers = [Worker(command, threads) for command in commands]
    try:
        # Threads that are made for a block must not count.
        sizes = [worker.size(20000 if threads else 40) * (10 if threads else 1)
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


def over_base(kind, times, base):
    pairs = list(zip(times, base))
    if kind == "share":
        return statistics.median(mine - its for mine, its in pairs)
    if kind == "speed":
        return statistics.median(its / mine for mine, its in pairs)
    return statistics.median(mine / its for mine, its in pairs)


def met(kind, value, goal):
    if goal is None:
        return None
    return value >= goal if kind == "speed" else value <= goal


def beside_value(row, name, times, base):
    # Peers do not install themselves again: their whole call is their share.
    if row.kind == "share" and name != "by hand":
        return statistics.median(times)
    return over_base(row.kind, times, base)


def result_of(row, rounds, programs):
    beside = row.beside(programs)
    library, base, *others = measure([row.work, row.base, *(command for _, command in beside)],
                                     rounds, row.threads)
    value = over_base(row.kind, library, base)
    return {
        "name": row.name, "what": row.what, "kind": row.kind, "value": round(value, 3),
        "goal": row.goal, "met": met(row.kind, value, row.goal),
        "library_ns": round(statistics.median(library), 1),
        "base_ns": round(statistics.median(base), 1),
        "quiet_ns": round(statistics.quantiles(library, n=10)[0], 1),
        "peers": {name: round(beside_value(row, name, times, base), 3)
                  for (name, _), times in zip(beside, others)}}


def memory_result(name, what, signals, handlers, goal):
    output = subprocess.run([str(BUILD / "library"), "memory", str(signals), str(handlers)],
                            check=True, capture_output=True, text=True).stdout
    taken, grown = (int(word) for word in output.split())
    return {"name": name, "what": what, "kind": "bytes", "value": taken, "goal": goal,
            "met": taken <= goal and grown == 0, "pages_grown": grown, "peers": {}}


def count_result(name, what, value, kind, goal):
    return {"name": name, "what": what, "kind": kind, "value": value, "goal": goal,
            "met": value <= goal, "peers": {}}


def size_result(name, what, goal):
    stripped = BUILD / "stripped.so"
    subprocess.run(["strip", "-o", str(stripped), str(LIBRARY)], check=True)
    return count_result(name, what, stripped.stat().st_size, "bytes", goal)


def relocations_result(name, what, goal):
    return count_result(name, what, len(relocations_beyond_tables(LIBRARY)), "count", goal)


def thread_locals_result(name, what, goal):
    return count_result(name, what, int(asks_for_thread_locals(LIBRARY)), "count", goal)
