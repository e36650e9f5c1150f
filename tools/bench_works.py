# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""What ./dev bench measures, against what, and with which goals."""

import dataclasses

# Others that have signals handled: their program, what they are called, and their package.
PEERS = {
    "ace": ("ACE", "libace-dev"),
    "asio": ("Boost.Asio", "libboost1.81-dev"),
    "glib": ("GLib", "libglib2.0-dev"),
    "libuv": ("libuv", "libuv1-dev"),
    "signal_hook": ("signal-hook-registry", "librust-signal-hook-registry-dev"),
}
# Those that call a signal's handlers inside its own, and those whose event loop does it.
AT_ONCE = ("ace", "signal_hook")
LOOPS = ("asio", "glib", "libuv")
# ACE has room for twenty handlers of a signal.
MOST_OF_ACE = 16


def can(program, work, size):
    return program != "ace" or size <= MOST_OF_ACE or work not in ("delivered", "direct", "pair")


def several(count, what):
    return f"{count} {what}" if count == 1 else f"{count} {what}s"


@dataclasses.dataclass
class Row:
    """A work: what the library needs for it, what it is measured against, and the goal."""

    name: str
    what: str
    work: str
    base: str
    goal: float | None = None
    kind: str = "ratio"
    by_hand: str | None = None
    peers: tuple = ()
    size: int = 1
    threads: bool = False

    def beside(self, there):
        """What is measured as well: the names and the commands."""
        made = [("by hand", self.by_hand)] if self.by_hand else []
        work = self.work.split()[1]
        return made + [(PEERS[peer][0], f"{peer} {work} {self.size}") for peer in self.peers
                       if peer in there and can(peer, work, self.size)]


def of_one_signal():
    for count, goal in ((1, 1.025), (4, 1.03), (16, 1.06)):
        yield Row(f"delivered/{count}", f"a delivered signal, {several(count, 'record')}",
                  f"library delivered {count}", "bare delivered", goal,
                  by_hand=f"bare delivered-ideal {count}", peers=AT_ONCE, size=count)
    for count, goal in ((1, 25.0), (4, 30.0), (16, 55.0)):
        yield Row(f"direct/{count}", f"own share of a call by hand, {several(count, 'record')}",
                  f"library direct {count}", "bare installation", goal, kind="share",
                  by_hand=f"bare direct-ideal {count}", peers=AT_ONCE, size=count)
    for count in (1, 4, 16):
        yield Row(f"looped/{count}",
                  f"a signal, and its {several(count, 'handler')} called by a loop",
                  f"library looped {count}", f"bare looped {count}", peers=LOOPS, size=count)
    for others in (0, 1, 16, 64, 256):
        yield Row(f"pair/{others}", f"register and clear beside {several(others, 'other')}",
                  f"library pair {others}", "bare pair", 1.6, peers=AT_ONCE + LOOPS, size=others)


def of_several():
    for work in ("start", "stop"):
        for count, goal in ((1, 3.0), (10, None), (50, 1.3)):
            yield Row(f"{work}/{count}", f"{work} for {several(count, 'signal')}",
                      f"library {work} {count}", f"bare {work} {count}", goal,
                      peers=("ace", "asio", "libuv"), size=count)
    yield Row("calling", "two threads in callHandlers, sum over one thread's",
              "library calling 2", "library calling 1", 1.6, kind="speed", threads=True)
    yield Row("raising", "two threads raising, over two bare handlers",
              "library raising 2", "bare raising 2", 0.95, kind="speed", peers=AT_ONCE, size=2,
              threads=True)


def rows():
    return [*of_one_signal(), *of_several()]


# The bytes that the tables may take: for how many signals, with how many handlers each.
MEMORY = (("memory/1", "tables of 1 signal with 1 handler", 1, 1, 2200),
          ("memory/56", "tables of 56 signals with 4 handlers each", 56, 4, 74700))

SIZE = ("library/size", "shared library, stripped", 90000)
RELOCATIONS = ("library/relocations", "its relocations beyond virtual tables", 0)
THREAD_LOCALS = ("library/thread_locals", "its references to __tls_get_addr", 0)


# --- Tables --------------------------------------------------------------------------------------

TABLE_GOAL = 1.1
TABLE_SIZES = (5, 20, 100, 1000)
TABLES = {
    "std": ("std::unordered_map", "libstdc++-12-dev"),
    "boost": ("boost::unordered_flat_map", "libboost1.81-dev"),
    "absl": ("absl::flat_hash_map", "libabsl-dev"),
    "tsl": ("tsl::robin_map", "robin-map-dev"),
}


def table_rows():
    """The names of the benchmarks, without the number of keys and the table, and what they do."""
    return [(f"{work}/{key}/{size}", f"table of {key} to {size} bytes: {work}")
            for key in ("int", "pointer") for size in (8, 176)
            for work in ("build", "hit", "miss", "erase", "insert")]


# --- Pictures ------------------------------------------------------------------------------------


@dataclasses.dataclass
class Panel:
    """A diagram: what the works cost as something grows."""

    title: str
    across: str
    sizes: tuple
    works: dict  # the program of a line, and its work
    bare: str    # what the program without the library stands for
    threads: bool = False
    scale: str = "log"

    def commands(self, size, there):
        """Those of one size, by their line."""
        return {program: f"{program} {work} {size}" for program, work in self.works.items()
                if program in there and can(program, work, size)}


def same(programs, work):
    return {program: work for program in programs}


def pictures(processors):
    """The panels of each picture, by the name of its file."""
    threads = tuple(n for n in (1, 2, 4, 8, 16, 32) if n <= max(2, processors))
    signals = (1, 2, 5, 10, 20, 50)
    starting = ("bare", "library", "ace", "asio", "libuv")
    return {
        "dispatch": (
            Panel("A call of what is installed", "records of the signal", (1, 2, 4, 8, 16, 32, 64),
                  {"bare": "direct-ideal"} | same(("library", *AT_ONCE), "direct"),
                  "by hand, installing itself again", scale="linear"),),
        "registration": (
            Panel("Register and clear", "others on the signal", (0, 1, 4, 16, 64, 256),
                  same(("bare", "library", *AT_ONCE, *LOOPS), "pair"), "the bare system calls"),),
        "start_and_stop": (
            Panel("Start", "signals", signals, same(starting, "start"), "the bare system calls"),
            Panel("Stop", "signals", signals, same(starting, "stop"), "the bare system calls")),
        "threads": (
            Panel("Raising", "threads", threads, same(("bare", "library", *AT_ONCE), "raising"),
                  "a bare handler, installing itself again", threads=True, scale="linear"),
            Panel("callHandlers", "threads", threads, {"library": "calling"}, "", threads=True,
                  scale="linear")),
    }
