#!/usr/bin/env python3
"""Plants the mistakes of tests/mutants one at a time, and looks whether a test catches each.

Works in copies of the tree under build/mutants, one for each processor, so that the checkout stays
as it is, also when the run is interrupted. Mistakes of the mechanism that only another order of two
threads would show are planted in the model of it. See tests/mutants/README.md for the lists.
"""

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
import sys
import threading
import time
import tomllib
import xml.etree.ElementTree

LISTS = pathlib.Path("tests/mutants")
DROPPED = LISTS / "dropped.toml"
MODELS = pathlib.Path("model")
WORK = pathlib.Path("build/mutants")
PRESET = "mutants"
LIBRARY = "sorvane-signals-static"
# Headers whose functions are made anew in each program that uses them, and the programs that do.
INLINE_HEADERS = ("libsrc/datastructures/", "libsrc/support/svsignalhandler.h",
                  "libsrc/support/svstdallocator.h")
TESTS_OF_INLINE_HEADERS = "sv"
COPIED = ["CMakeLists.txt", "CMakePresets.json", "README.md", "cmake", "examples", "fuzz", "libsrc",
          "tests"]

# A test that takes this much longer than with the right code hangs.
SLOWDOWN_OF_A_HANG = 10
SHORTEST_HANG = 10.0
# Every planted mistake of the model is found in a few seconds.
LIMIT_OF_THE_MODEL = 120.0
# What a mistake that allocates without end may have.
MOST_ADDRESS_SPACE = 8 << 30


class Problem(Exception):
    """What ends the run, in one line."""


@dataclasses.dataclass
class Mistake:
    promise: str
    name: str
    what: str
    file: str
    old: str
    new: str
    tests: list[str]
    source: str
    variant: str = ""  # of the model, instead of a place in a file
    configuration: tuple[str, ...] = ()
    extra: bool = False  # only planted when all are asked for, or this one
    needs_library: bool = True

    def planted_in(self, text):
        count = text.count(self.old)
        if count != 1:
            raise Problem(f"{self.source}: {self.name} no longer applies: its text occurs "
                          f"{count} times in {self.file}")
        return text.replace(self.old, self.new)

    def check_variant(self, model):
        if not re.search(rf"\b{re.escape(self.variant)}\b", model):
            raise Problem(f"{self.source}: {self.name} no longer applies: {self.file} has no "
                          f"{self.variant}")


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


@dataclasses.dataclass
class Outcome:
    mistake: Mistake
    result: str  # "caught", or why it was not
    by: str = ""
    how: str = ""
    seconds: float = 0.0

    @property
    def caught(self):
        return self.result == "caught"


# ---- The lists ---------------------------------------------------------------------------------


def field(entry, name, kind, source):
    value = entry.get(name)
    if not isinstance(value, kind) or not value:
        raise Problem(f"{source}: an entry ({entry.get('name', 'without a name')}) lacks '{name}'")
    return value


def read_toml(path):
    try:
        return tomllib.loads(path.read_text(encoding="utf-8"))
    except (OSError, UnicodeDecodeError, tomllib.TOMLDecodeError) as error:
        raise Problem(f"{path}: {error}") from error


def read_mistake(entry, path):
    common = {"promise": path.stem, "source": str(path),
              "name": field(entry, "name", str, path), "what": field(entry, "what", str, path),
              "extra": entry.get("extra", False)}
    if "model" in entry:
        model, _, variant = field(entry, "model", str, path).partition(" ")
        if not variant or not (MODELS / f"{model}.pml").is_file():
            raise Problem(f"{path}: {entry['name']} names no model and a mistake in it")
        return Mistake(**common, file=str(MODELS / f"{model}.pml"), old="", new="", tests=[],
                       variant=variant, configuration=tuple(entry.get("configuration", [])))
    if not isinstance(entry.get("to"), str):
        raise Problem(f"{path}: an entry ({entry.get('name')}) lacks 'to'")
    return Mistake(**common, file=field(entry, "file", str, path),
                   old=field(entry, "from", str, path), new=entry["to"],
                   tests=field(entry, "tests", list, path))


def read_mistakes():
    mistakes = []
    for path in sorted(LISTS.glob("*.toml")):
        if path == DROPPED:
            continue
        content = read_toml(path)
        for entry in content.get("mistake", []):
            mistakes.append(read_mistake(entry, path))
    names = [mistake.name for mistake in mistakes]
    for name in names:
        if names.count(name) > 1:
            raise Problem(f"two mistakes have the name {name}")
    return mistakes


def read_dropped():
    return read_toml(DROPPED).get("dropped", []) if DROPPED.exists() else []


def select(mistakes, wanted, everything):
    for name in wanted:
        if not any(name in (mistake.promise, mistake.name) for mistake in mistakes):
            print(f'dev: mutants: no promise or mistake is called "{name}"; '
                  '"./dev mutants --list" lists them', file=sys.stderr)
            sys.exit(2)
    if wanted:
        return [m for m in mistakes if m.promise in wanted or m.name in wanted]
    return [m for m in mistakes if everything or not m.extra]


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
    def __init__(self, number, jobs):
        self.root = (WORK / f"tree{number}").resolve()
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
        log_path = WORK / f"{self.root.name}.log"
        with open(log_path, "w", encoding="utf-8") as log:
            configured = processes.run(["cmake", "--preset", PRESET], log, folder=self.root) == 0
            if not configured or not self.build(targets, log, jobs):
                raise Problem(f"the right code could not be built: see {log_path}")

    def tests(self):
        """The tests that are programs of their own, by name."""
        shown = subprocess.run(["ctest", "--show-only=json-v1"], cwd=self.build_folder, check=True,
                               stdin=subprocess.DEVNULL, capture_output=True)
        tests = {}
        for entry in json.loads(shown.stdout)["tests"]:
            command = entry.get("command", [])
            if any(argument.startswith("--gtest_filter=") for argument in command):
                properties = {p["name"]: p["value"] for p in entry.get("properties", [])}
                folder = properties.get("WORKING_DIRECTORY", str(self.build_folder))
                program = next(os.path.basename(part) for part in command
                               if part.startswith(f"{self.build_folder}/"))
                tests[entry["name"]] = Test(entry["name"], program, command, folder)
        return tests

    def run(self, test, log):
        """Null when the test passes, otherwise how it fails."""
        status = processes.run(test.command, log, folder=test.folder, limit=test.limit,
                               limit_memory=True)
        if status is None:
            return f"hangs, ended after {test.limit:.0f} s"
        return None if status == 0 else "fails"

    def run_all(self, log):
        """The name of the first of all tests that fails, or null."""
        report = self.build_folder / "all.xml"
        report.unlink(missing_ok=True)
        processes.run(["ctest", "--stop-on-failure", "--parallel", str(self.jobs),
                       "--output-junit", str(report)], log, folder=self.build_folder)
        for case in xml.etree.ElementTree.parse(report).iter("testcase"):
            if case.get("status") == "fail":
                return case.get("name")
        return None

    def read(self, file):
        return (self.root / file).read_text(encoding="utf-8")

    def write(self, file, text):
        (self.root / file).write_text(text, encoding="utf-8")


# ---- One mistake -------------------------------------------------------------------------------


def likely_tests(mistake, tests):
    found = []
    for pattern in mistake.tests:
        try:
            matching = [test for test in tests.values() if re.search(pattern, test.name)]
        except re.error as error:
            raise Problem(f"{mistake.source}: {mistake.name}: bad pattern {pattern}: "
                          f"{error}") from error
        if not matching:
            raise Problem(f"{mistake.source}: {mistake.name}: no test is called like {pattern}")
        matching.sort(key=lambda test: test.seconds)
        found += [test for test in matching if test not in found]
    return found


def programs_of(tests):
    return sorted({test.program for test in tests})


def makes_own_instances(mistake, programs):
    """Whether the mistake is in an inline function of which all the programs make instances
    themselves. It is in them then also when the library is built of the right code, because the
    linker takes the first instance that it finds; and building the library takes longest."""
    return (mistake.file.startswith(INLINE_HEADERS)
            and all(program.startswith(TESTS_OF_INLINE_HEADERS) for program in programs))


class Trial:
    """One mistake in one tree."""

    def __init__(self, mistake, tree, tests, likely_only, log):
        self._likely_only = likely_only
        self._mistake = mistake
        self._tree = tree
        self._log = log
        self._likely = likely_tests(mistake, tests)
        self._programs = programs_of(self._likely)
        self._library_stays_right = makes_own_instances(mistake, self._programs)

    def outcome(self):
        right = self._tree.read(self._mistake.file)
        planted = self._mistake.planted_in(right)
        if self._library_stays_right and not self._tree.build_right_library(self._log):
            raise Problem(f"the right library could not be built: see {self._log.name}")
        self._tree.write(self._mistake.file, planted)
        try:
            return self._try_likely() or self._try_all_others()
        finally:
            self._tree.write(self._mistake.file, right)

    def _build(self):
        if self._library_stays_right:
            return self._tree.build_without_library(self._programs, self._log)
        self._tree.library_is_right = False
        return self._tree.build(self._programs, self._log)

    def _try_likely(self):
        if not self._build():
            if self._tree.build([LIBRARY], self._log):
                return Outcome(self._mistake, "caught", " ".join(self._programs),
                               "not compiled any more")
            return Outcome(self._mistake, "does not compile")
        for test in self._likely:
            how = self._tree.run(test, self._log)
            if how is not None:
                return Outcome(self._mistake, "caught", test.name, how)
        return None

    def _try_all_others(self):
        if self._likely_only:
            return Outcome(self._mistake, "NOT CAUGHT by the likely tests")
        self._tree.library_is_right = False
        if not self._tree.build(["all"], self._log):
            return Outcome(self._mistake, "caught", "one of all tests", "not compiled any more")
        name = self._tree.run_all(self._log)
        if name is None:
            return Outcome(self._mistake, "NOT CAUGHT")
        return Outcome(self._mistake, "caught", name, "fails, and is not among the likely ones")


class ModelTrial:
    """One mistake in the model: spin must find an order of steps in which something does not hold.
    That there is none in the right model is not looked at here."""

    def __init__(self, mistake, log):
        self._mistake = mistake
        self._log = log

    def outcome(self):
        model = pathlib.Path(self._mistake.file)
        self._mistake.check_variant(model.read_text(encoding="utf-8"))
        folder = WORK / "model" / self._mistake.name
        folder.mkdir(parents=True, exist_ok=True)
        for command in self._commands(model):
            if processes.run(command, self._log, folder=folder, limit=LIMIT_OF_THE_MODEL) != 0:
                return Outcome(self._mistake, "the model could not be checked to its end")
        self._log.flush()
        if "assertion violated" not in pathlib.Path(self._log.name).read_text(encoding="utf-8"):
            return Outcome(self._mistake, "NOT CAUGHT by the model")
        return Outcome(self._mistake, "caught", f"{model} with {self._mistake.variant}")

    def _commands(self, model):
        definitions = [f"-D{name}" for name in (self._mistake.variant, *self._mistake.configuration)]
        return [["spin", *definitions, "-a", str(model.resolve())],
                ["gcc", "-O1", "-w", "-DSAFETY", "-DCOLLAPSE", "-DMEMLIM=2000", "-o", "pan", "pan.c"],
                ["./pan", "-m2000000"]]


def trial_of(mistake, tree, tests, likely_only, log):
    if mistake.variant:
        return ModelTrial(mistake, log)
    return Trial(mistake, tree, tests, likely_only, log)


def catch(mistake, tree, tests, likely_only):
    started = time.monotonic()
    log_path = WORK / "logs" / f"{mistake.name}.log"
    with open(log_path, "w", encoding="utf-8") as log:
        try:
            outcome = trial_of(mistake, tree, tests, likely_only, log).outcome()
        except (Problem, OSError) as error:
            outcome = Outcome(mistake, str(error))
    outcome.seconds = time.monotonic() - started
    return outcome


# ---- All of them -------------------------------------------------------------------------------


class Run:
    def __init__(self, mistakes, trees):
        self.trees = trees
        self.outcomes = []
        self._mistakes = mistakes
        self._lock = threading.Lock()
        self._errors = []

    def each_tree(self, work, trees=None):
        threads = [threading.Thread(target=self._guarded, args=(work, tree))
                   for tree in trees or self.trees]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if self._errors:
            raise self._errors[0]

    def _guarded(self, work, tree):
        try:
            work(tree)
        except BaseException as error:  # pylint: disable=broad-except ; raised again by each_tree
            self._errors.append(error)

    def _planted_in_files(self):
        return [mistake for mistake in self._mistakes if not mistake.variant]

    def _needs_builds(self):
        return bool(self._planted_in_files())

    def prepare(self):
        """Builds the right code: all in the first tree, and what is surely needed in the others."""
        if not self._needs_builds():
            return
        first, *others = self.trees
        processors = os.cpu_count() or 1
        print("Building the right code", flush=True)
        first.prepare(["all"], processors)
        if others:
            print(f"Building {len(others)} more", flush=True)
            targets = [LIBRARY, *programs_of(self._likely(first.tests()))]
            jobs = max(1, processors // len(others))
            self.each_tree(lambda tree: tree.prepare(targets, jobs), others)
        print("Running the likely tests with the right code", flush=True)

    def _likely(self, tests):
        """The likely tests of all mistakes, each once."""
        found = {}
        for mistake in self._planted_in_files():
            try:
                likely = likely_tests(mistake, tests)
            except Problem:
                continue  # reported with the mistake's outcome
            found |= {test.name: test for test in likely}
            mistake.needs_library = not makes_own_instances(mistake, programs_of(likely))
        return list(found.values())

    def _note(self, outcome):
        with self._lock:
            self.outcomes.append(outcome)
            said = f"caught by {outcome.by}" if outcome.caught else outcome.result
            if outcome.how not in ("", "fails"):
                said += f" ({outcome.how})"
            print(f"[{len(self.outcomes):3}/{len(self._mistakes)}] {outcome.mistake.name}: {said}, "
                  f"{outcome.seconds:.0f} s", flush=True)

    def measure(self):
        """Runs every likely test with the right code: they must pass, and take their time."""
        if not self._needs_builds():
            return {}
        wanted = self._likely(self.trees[0].tests())
        waiting = queue.SimpleQueue()
        for test in wanted:
            waiting.put(test)

        def work(tree):
            own = tree.tests()
            with open(WORK / f"{tree.root.name}-right.log", "w", encoding="utf-8") as log:
                for test in drain(waiting):
                    started = time.monotonic()
                    own[test.name].seconds = 60.0
                    if tree.run(own[test.name], log) is not None:
                        raise Problem(f"{test.name} fails with the right code: see {log.name}")
                    test.seconds = time.monotonic() - started

        self.each_tree(work)
        return {test.name: test.seconds for test in wanted}

    def catch_all(self, seconds, likely_only):
        waiting = queue.SimpleQueue()
        # Neighbours in one file, so that a build seldom has two files to compile.
        for mistake in sorted(self._mistakes, key=lambda m: (m.file, m.needs_library)):
            waiting.put(mistake)

        def work(tree):
            tests = tree.tests() if self._needs_builds() else {}
            for name, taken in seconds.items():
                tests[name].seconds = taken
            for mistake in drain(waiting):
                self._note(catch(mistake, tree, tests, likely_only))

        self.each_tree(work)


def drain(waiting):
    while True:
        try:
            yield waiting.get_nowait()
        except queue.Empty:
            return


def processor_time_of_children():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def report(outcomes, left_out, dropped):
    outcomes.sort(key=lambda outcome: (outcome.mistake.promise, outcome.mistake.name))
    width = max(len(outcome.mistake.name) for outcome in outcomes)
    promise = None
    for outcome in outcomes:
        if outcome.mistake.promise != promise:
            promise = outcome.mistake.promise
            print(f"\n{promise}")
        first = outcome.by if outcome.caught else f"*** {outcome.result}"
        if outcome.how not in ("", "fails"):
            first += f" ({outcome.how})"
        print(f"  {outcome.mistake.name:{width}}  {first}")

    print(f"\n{'promise':28} {'mistakes':>8} {'caught':>8}")
    for promise in sorted({outcome.mistake.promise for outcome in outcomes}):
        of_promise = [o for o in outcomes if o.mistake.promise == promise]
        caught = sum(outcome.caught for outcome in of_promise)
        print(f"{promise:28} {len(of_promise):8} {caught:8}")
    if left_out:
        print(f"\n{left_out} more are planted with --all")
    if dropped:
        print(f"\n{len(dropped)} more were dropped, because no test can tell them from the right "
              f"code: see {DROPPED}")
    caught = sum(outcome.caught for outcome in outcomes)
    print(f"\n{caught} passed, {len(outcomes) - caught} failed")
    return caught == len(outcomes)


class OneLineParser(argparse.ArgumentParser):
    def error(self, message):
        print(f"dev: mutants: {message}", file=sys.stderr)
        sys.exit(2)


def arguments():
    parser = OneLineParser(prog="./dev mutants", description="Plants mistakes one at a time and "
                           "looks whether the tests catch them.")
    parser.add_argument("names", nargs="*", metavar="NAME",
                        help="a promise or a mistake; if none is named, all but those that are "
                        "marked as extra")
    parser.add_argument("--all", action="store_true",
                        help="plant those that are marked as extra, too, which takes long")
    parser.add_argument("--list", action="store_true", help="list the mistakes and plant none")
    parser.add_argument("--likely-only", action="store_true",
                        help="do not run all other tests when the likely ones do not catch a "
                        "mistake")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 1, metavar="N",
                        help="how many mistakes to try at once (one for each processor)")
    parsed = parser.parse_args()
    if not 1 <= parsed.jobs <= 64:
        parser.error("--jobs is a number from 1 to 64")
    return parsed


def still_applies(mistake):
    """Whether the mistake can be planted in the checkout; if not, says why."""
    text = pathlib.Path(mistake.file).read_text(encoding="utf-8")
    try:
        if mistake.variant:
            mistake.check_variant(text)
        else:
            mistake.planted_in(text)
    except Problem as problem:
        print(f"dev: mutants: {problem}", file=sys.stderr)
        return False
    return True


def list_mistakes(mistakes):
    """Whether all of them still apply."""
    promise = None
    for mistake in mistakes:
        if mistake.promise != promise:
            promise = mistake.promise
            print(promise)
        print(f"  {mistake.name}{' (extra)' if mistake.extra else ''}: {mistake.what}")
    print(f"\n{len(mistakes)} mistakes, {sum(mistake.extra for mistake in mistakes)} of them extra",
          flush=True)
    return all([still_applies(mistake) for mistake in mistakes])


def main():
    chosen = arguments()
    every_mistake = read_mistakes()
    mistakes = select(every_mistake, chosen.names, chosen.all or chosen.list)
    if chosen.list:
        return 0 if list_mistakes(mistakes) else 1
    (WORK / "logs").mkdir(parents=True, exist_ok=True)
    count = max(1, min(chosen.jobs, len(mistakes)))
    jobs = max(1, (os.cpu_count() or 1) // count)
    run = Run(mistakes, [Tree(number, jobs) for number in range(1, count + 1)])

    run.prepare()
    seconds = run.measure()
    print(f"Planting {len(mistakes)} mistakes, one at a time", flush=True)
    processor_time_before = processor_time_of_children()
    run.catch_all(seconds, chosen.likely_only)
    taken = processor_time_of_children() - processor_time_before
    print(f"\n{taken / len(mistakes):.1f} s of processor time for each mistake, "
          f"{processor_time_of_children():.0f} s in all")
    left_out = 0 if chosen.names else len(every_mistake) - len(mistakes)
    dropped = [] if chosen.names else read_dropped()
    return 0 if report(run.outcomes, left_out, dropped) else 1


def interrupted(_number, _frame):
    processes.end_all()
    print("dev: mutants: interrupted", file=sys.stderr)
    os._exit(130)


if __name__ == "__main__":
    signal.signal(signal.SIGINT, interrupted)
    signal.signal(signal.SIGTERM, interrupted)
    try:
        sys.exit(main())
    except Problem as problem:
        print(f"dev: mutants: {problem}", file=sys.stderr)
        sys.exit(1)
