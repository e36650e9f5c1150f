#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Plants the mistakes of tests/mutants one at a time, and looks whether a test catches each.

Works in copies of the tree under build/mutants, one for each processor, so that the checkout stays
as it is, also when the run is interrupted. Mistakes of the mechanism that only another order of two
threads would show are planted in the model of it. See tests/mutants/README.md for the lists.
"""

import dataclasses
import os
import pathlib
import queue
import re
import resource
import threading
import time

from command import Misuse, OneLineParser, Problem, say
from mutation import (DROPPED, LIBRARY, LIKELY_TESTS, LISTS, SAME_PROGRAM, SHOWN_BY_MODEL, SPEAKER,
                      WORK, Tree, add_common, check_jobs, drain, each_tree, field, in_model,
                      makes_own_instances, measure, programs_of, read_model, read_toml, run_command,
                      shown_by_model)

NO_PROMISES = (DROPPED, SAME_PROGRAM, SHOWN_BY_MODEL, LIKELY_TESTS)


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

    def check_variant(self):
        if not in_model(pathlib.Path(self.file), self.variant):
            raise Problem(f"{self.source}: {self.name} no longer applies: {self.file} has no "
                          f"{self.variant}")


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


def read_mistake(entry, path):
    common = {"promise": path.stem, "source": str(path),
              "name": field(entry, "name", str, path), "what": field(entry, "what", str, path),
              "extra": entry.get("extra", False)}
    if "model" in entry:
        model, variant, configuration = read_model(entry, path)
        return Mistake(**common, file=str(model), old="", new="", tests=[], variant=variant,
                       configuration=configuration)
    if not isinstance(entry.get("to"), str):
        raise Problem(f"{path}: an entry ({entry.get('name')}) lacks 'to'")
    return Mistake(**common, file=field(entry, "file", str, path),
                   old=field(entry, "from", str, path), new=entry["to"],
                   tests=field(entry, "tests", list, path))


def read_mistakes():
    mistakes = []
    for path in sorted(LISTS.glob("*.toml")):
        if path in NO_PROMISES:
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
            raise Misuse(f'no promise or mistake is called "{name}"; "./dev mutants --list" lists '
                         "them")
    if wanted:
        return [m for m in mistakes if m.promise in wanted or m.name in wanted]
    return [m for m in mistakes if everything or not m.extra]


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


class Trial:
    """One mistake in one tree."""

    def __init__(self, mistake, tree, tests, likely_only, log):
        self._likely_only = likely_only
        self._mistake = mistake
        self._tree = tree
        self._log = log
        self._likely = likely_tests(mistake, tests)
        self._programs = programs_of(self._likely)
        self._library_stays_right = makes_own_instances(mistake.file, self._programs)

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
        self._mistake.check_variant()
        shown = shown_by_model(pathlib.Path(self._mistake.file), self._mistake.variant,
                               self._mistake.configuration, WORK / "model" / self._mistake.name,
                               self._log)
        if shown is None:
            return Outcome(self._mistake, "the model could not be checked to its end")
        if not shown:
            return Outcome(self._mistake, "NOT CAUGHT by the model")
        return Outcome(self._mistake, "caught",
                       f"{self._mistake.file} with {self._mistake.variant}")


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
            each_tree(lambda tree: tree.prepare(targets, jobs), others)
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
            mistake.needs_library = not makes_own_instances(mistake.file, programs_of(likely))
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
        return measure(self.trees, self._likely(self.trees[0].tests()))

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

        each_tree(work, self.trees)


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


def arguments():
    parser = OneLineParser("./dev mutants", "Plants mistakes one at a time and looks whether the "
                           "tests catch them.")
    parser.add_argument("names", nargs="*", metavar="NAME",
                        help="a promise or a mistake; if none is named, all but those that are "
                        "marked as extra")
    parser.add_argument("--all", action="store_true",
                        help="plant those that are marked as extra, too, which takes long")
    parser.add_argument("--list", action="store_true", help="list the mistakes and plant none")
    parser.add_argument("--likely-only", action="store_true",
                        help="do not run all other tests when the likely ones do not catch a "
                        "mistake")
    parser.add_argument("--search", action="store_true",
                        help="make every automatic change instead: see --search --help")
    add_common(parser, "mistakes")
    parsed = parser.parse_args()
    check_jobs(parser, parsed.jobs)
    return parsed


def still_applies(mistake):
    """Whether the mistake can be planted in the checkout; if not, says why."""
    try:
        if mistake.variant:
            mistake.check_variant()
        else:
            mistake.planted_in(pathlib.Path(mistake.file).read_text(encoding="utf-8"))
    except Problem as problem:
        say(SPEAKER, problem)
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
    if chosen.check:
        return 0
    if chosen.list:
        return 0 if list_mistakes(mistakes) else 1
    (WORK / "logs").mkdir(parents=True, exist_ok=True)
    count = max(1, min(chosen.jobs, len(mistakes)))
    jobs = max(1, (os.cpu_count() or 1) // count)
    run = Run(mistakes, [Tree(WORK / f"tree{number}", jobs)
                         for number in range(1, count + 1)])

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


if __name__ == "__main__":
    run_command(main)
