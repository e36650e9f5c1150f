# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""What ./dev mutants and its --search share: copies of the tree that mistakes are made in, what is
built and run there, and the models."""

import argparse
import dataclasses
import filecmp
import json
import os
import pathlib
import queue
import re
import resource
import shutil
import signal
import subprocess
import threading
import time
import tomllib
import xml.etree.ElementTree

from command import Problem, run, say

LISTS = pathlib.Path("tests/mutants")
DROPPED = LISTS / "dropped.toml"
# Those of --search.
SAME_PROGRAM = LISTS / "same-program.toml"
SHOWN_BY_MODEL = LISTS / "shown-by-model.toml"
LIKELY_TESTS = LISTS / "likely-tests.toml"
MODELS = pathlib.Path("model")
WORK = pathlib.Path("build/mutants")
PRESET = "mutants"
LIBRARY = "sorvane-signals-static"
# Headers whose functions are made anew in each program that uses them, and the programs that do.
INLINE_HEADERS = ("libsrc/datastructures/", "libsrc/support/svsignalhandler.h",
                  "libsrc/support/svstdallocator.h")
TESTS_OF_INLINE_HEADERS = "sv"
COPIED = ["CMakeLists.txt", "CMakePresets.json", "README.md", "bench", "cmake", "examples", "fuzz",
          "libsrc", "tests"]

# A test that takes this much longer than with the right code hangs.
SLOWDOWN_OF_A_HANG = 10
SHORTEST_HANG = 10.0
# Every planted mistake of the model is found in a few seconds.
LIMIT_OF_THE_MODEL = 120.0
# What a mistake that allocates without end may have.
MOST_ADDRESS_SPACE = 8 << 30


@dataclasses.dataclass
class Test:
    name: str
    program: str
    command: list[str]
    folder: str
    seconds: float = 0.0

    @property
    def limit(self):
        return max(SHORTEST_HANG, SLOWDOWN_OF_A_HANG * self.seconds)


# ---- The lists ---------------------------------------------------------------------------------


def field(entry, name, kind, source):
    value = entry.get(name)
    if not isinstance(value, kind) or not value:
        called = entry.get("name") or entry.get("from") or "without a name"
        raise Problem(f"{source}: an entry ({called}) lacks '{name}'")
    return value


def read_toml(path):
    try:
        return tomllib.loads(path.read_text(encoding="utf-8"))
    except (OSError, UnicodeDecodeError, tomllib.TOMLDecodeError) as error:
        raise Problem(f"{path}: {error}") from error


# ---- Processes ---------------------------------------------------------------------------------


class Processes:
    """Runs processes in groups of their own, so that each can be ended with its children."""

    def __init__(self):
        self._lock = threading.Lock()
        self._running = set()
        self.ending = False

    @staticmethod
    def _limit_memory():
        resource.setrlimit(resource.RLIMIT_AS, (MOST_ADDRESS_SPACE, MOST_ADDRESS_SPACE))

    def run(self, command, log, folder=None, limit=None, limit_memory=False):
        """The exit status (negative for a signal), or None after the limit."""
        with self._lock:
            if self.ending:
                raise KeyboardInterrupt
            process = subprocess.Popen(
                command, cwd=folder, stdin=subprocess.DEVNULL, stdout=log,
                stderr=subprocess.STDOUT, start_new_session=True,
                preexec_fn=self._limit_memory if limit_memory else None)
            self._running.add(process)
        try:
            return process.wait(timeout=limit)
        except subprocess.TimeoutExpired:
            return None
        finally:
            self._end(process)
            with self._lock:
                self._running.discard(process)

    @staticmethod
    def _end(process):
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()

    def end_all(self):
        with self._lock:
            self.ending = True
            for process in self._running:
                try:
                    os.killpg(process.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass


processes = Processes()


# ---- A copy of the tree ------------------------------------------------------------------------


def same_file(left, right):
    return right.is_file() and filecmp.cmp(left, right, shallow=False)


def refresh(source, target):
    """Makes the target like the source, and leaves the times of what is alike, for the builds."""
    if source.is_dir():
        target.mkdir(parents=True, exist_ok=True)
        wanted = {child.name for child in source.iterdir() if child.name != "__pycache__"}
        for child in target.iterdir():
            if child.name not in wanted:
                shutil.rmtree(child) if child.is_dir() else child.unlink()
        for name in wanted:
            refresh(source / name, target / name)
    elif not same_file(source, target):
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, target)


class Tree:
    """A copy in a folder, and its build."""

    def __init__(self, root, jobs):
        self.root = root.resolve()
        self.build_folder = self.root / "build" / PRESET
        self.jobs = jobs
        self.library_is_right = True

    def refresh(self):
        for name in COPIED:
            refresh(pathlib.Path(name), self.root / name)

    def build(self, targets, log, jobs=None):
        return processes.run(["ninja", "-j", str(jobs or self.jobs), *targets], log,
                             folder=self.build_folder) == 0

    def build_right_library(self, log):
        if not self.library_is_right:
            self.library_is_right = self.build([LIBRARY], log)
        return self.library_is_right

    def build_without_library(self, programs, log):
        """Compiles the programs, and links them to the library as it is."""
        for program in programs:
            source = f"tests/CMakeFiles/{program}.dir/{program}.cpp.o"
            shown = subprocess.run(["ninja", "-t", "commands", program], cwd=self.build_folder,
                                   check=True, stdin=subprocess.DEVNULL, capture_output=True,
                                   text=True)
            link = shown.stdout.splitlines()[-1]
            if not self.build([source], log):
                return False
            if processes.run(["sh", "-c", link], log, folder=self.build_folder) != 0:
                return False
        return True

    def prepare(self, targets, jobs):
        self.refresh()
        log_path = self.root.with_name(f"{self.root.name}.log")
        with open(log_path, "w", encoding="utf-8") as log:
            configured = processes.run(["cmake", "--preset", PRESET], log, folder=self.root)
            if configured != 0 or not self.build(targets, log, jobs):
                raise Problem(f"the right code could not be built: see {log_path}")

    def _all_tests(self):
        shown = subprocess.run(["ctest", "--show-only=json-v1"], cwd=self.build_folder, check=True,
                               stdin=subprocess.DEVNULL, capture_output=True)
        return json.loads(shown.stdout)["tests"]

    def tests(self):
        """The tests that are programs of their own, by name."""
        tests = {}
        for entry in self._all_tests():
            command = entry.get("command", [])
            if any(argument.startswith("--gtest_filter=") for argument in command):
                properties = {p["name"]: p["value"] for p in entry.get("properties", [])}
                folder = properties.get("WORKING_DIRECTORY", str(self.build_folder))
                program = next(os.path.basename(part) for part in command
                               if part.startswith(f"{self.build_folder}/"))
                tests[entry["name"]] = Test(entry["name"], program, command, folder)
        return tests

    def names_of_other_tests(self):
        own = self.tests()
        return [entry["name"] for entry in self._all_tests() if entry["name"] not in own]

    def run(self, test, log):
        """Null when the test passes, otherwise how it fails."""
        status = processes.run(test.command, log, folder=test.folder, limit=test.limit,
                               limit_memory=True)
        if status is None:
            return f"hangs, ended after {test.limit:.0f} s"
        return None if status == 0 else "fails"

    def run_all(self, log, only=None):
        """The name of the first of all tests that fails, or of those that are named, or null."""
        report = self.build_folder / "all.xml"
        report.unlink(missing_ok=True)
        # A mistake that costs instructions is none for that.
        command = ["ctest", "--exclude-regex", "^instructions$", "--stop-on-failure", "--parallel",
                   str(self.jobs), "--output-junit", str(report)]
        if only is not None:
            command += ["--tests-regex", f"^({'|'.join(map(re.escape, only))})$"]
        processes.run(command, log, folder=self.build_folder)
        try:
            cases = list(xml.etree.ElementTree.parse(report).iter("testcase"))
        except (OSError, xml.etree.ElementTree.ParseError) as error:
            raise Problem(f"the tests were not run to their end: see {log.name}") from error
        for case in cases:
            if case.get("status") == "fail":
                return case.get("name")
        return None

    def read(self, file):
        return (self.root / file).read_text(encoding="utf-8")

    def write(self, file, text):
        (self.root / file).write_text(text, encoding="utf-8")


def programs_of(tests):
    return sorted({test.program for test in tests})


def makes_own_instances(file, programs):
    """Whether a mistake in the file is in an inline function of which all the programs make
    instances themselves. It is in them then also when the library is built of the right code,
    because the linker takes the first instance that it finds; and building the library takes
    longest."""
    return (file.startswith(INLINE_HEADERS)
            and all(program.startswith(TESTS_OF_INLINE_HEADERS) for program in programs))


# ---- The models --------------------------------------------------------------------------------


def read_model(entry, path):
    """The model that an entry names, and the mistake in it."""
    name, _, variant = field(entry, "model", str, path).partition(" ")
    model = MODELS / f"{name}.pml"
    if not variant or not model.is_file():
        raise Problem(f"{path}: {entry.get('name', 'an entry')} names no model and a mistake in it")
    return model, variant, tuple(entry.get("configuration", []))


def in_model(model, variant):
    return re.search(rf"\b{re.escape(variant)}\b", model.read_text(encoding="utf-8")) is not None


def shown_by_model(model, variant, configuration, folder, log):
    """Whether spin finds an order of steps in which something does not hold that must; null if it
    did not come to its end."""
    definitions = [f"-D{name}" for name in (variant, *configuration)]
    commands = [["spin", *definitions, "-a", str(model.resolve())],
                ["gcc", "-O1", "-w", "-DSAFETY", "-DCOLLAPSE", "-DMEMLIM=2000", "-o", "pan", "pan.c"],
                ["./pan", "-m2000000"]]
    folder.mkdir(parents=True, exist_ok=True)
    log.flush()
    start = pathlib.Path(log.name).stat().st_size
    for command in commands:
        if processes.run(command, log, folder=folder, limit=LIMIT_OF_THE_MODEL) != 0:
            return None
    return b"assertion violated" in pathlib.Path(log.name).read_bytes()[start:]


# ---- All trees at once -------------------------------------------------------------------------


def each_tree(work, trees):
    """Does the work for each tree in a thread of its own."""
    errors = []

    def guarded(tree):
        try:
            work(tree)
        except BaseException as error:  # pylint: disable=broad-except ; raised again below
            errors.append(error)

    threads = [threading.Thread(target=guarded, args=(tree,)) for tree in trees]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if errors:
        raise errors[0]


def drain(waiting):
    while True:
        try:
            yield waiting.get_nowait()
        except queue.Empty:
            return


def measure(trees, wanted):
    """Runs tests with the right code: they must pass, and take their time. Result: the seconds of
    each, by name."""
    waiting = queue.SimpleQueue()
    for test in wanted:
        waiting.put(test)
    seconds = {}

    def work(tree):
        own = tree.tests()
        log_path = tree.root.with_name(f"{tree.root.name}-right.log")
        with open(log_path, "w", encoding="utf-8") as log:
            for test in drain(waiting):
                started = time.monotonic()
                own[test.name].seconds = 60.0
                if tree.run(own[test.name], log) is not None:
                    raise Problem(f"{test.name} fails with the right code: see {log_path}")
                seconds[test.name] = time.monotonic() - started

    each_tree(work, trees)
    return seconds


# ---- The command -------------------------------------------------------------------------------


def add_common(parser, what):
    parser.add_argument("--check", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 1, metavar="N",
                        help=f"how many {what} to try at once (one for each processor)")


def check_jobs(parser, jobs):
    if not 1 <= jobs <= 64:
        parser.error("--jobs is a number from 1 to 64")


SPEAKER = "dev: mutants"


def run_command(main):
    """Runs a command to its end. An interruption ends all that it has started, too."""
    def interrupted(_number, _frame):
        processes.end_all()
        say(SPEAKER, "interrupted")
        os._exit(130)

    signal.signal(signal.SIGINT, interrupted)
    signal.signal(signal.SIGTERM, interrupted)
    run(SPEAKER, main)
