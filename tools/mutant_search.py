#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Makes every small change of a kind in the given sources, one at a time, and shows those that no
test and no model notices.

Each of these asks for a test, or for an entry in the list of changes that are the same program. The
changes are made in copies of the tree under build/mutants/search, one for each processor. See
tests/mutants/README.md.
"""

import argparse
import collections
import dataclasses
import fcntl
import fnmatch
import glob
import hashlib
import itertools
import json
import os
import pathlib
import queue
import re
import shutil
import subprocess
import threading
import time

from command import OneLineParser, Problem, say
from cpp_changes import KINDS, changes_in, in_one_line
from mutation import (COPIED, LIBRARY, LIKELY_TESTS, LISTS, MODELS, SAME_PROGRAM, SHOWN_BY_MODEL,
                      SPEAKER, WORK, Tree, add_common, check_jobs, drain, each_tree, field, in_model,
                      makes_own_instances, measure, read_model, read_toml, run_command,
                      shown_by_model)

# Where changes are made if no file is named.
DEFAULT_FILES = ("libsrc/registry/*", "libsrc/utilities/svarrival.*",
                 "libsrc/utilities/svsystemactions.h", "libsrc/utilities/svsharedstate.h",
                 "libsrc/utilities/svsignalhandlermanager*.cpp",
                 "libsrc/datastructures/svhashtable*.h")
SOURCES = (".cpp", ".h")
PLACE = WORK / "search"
UNNOTICED_LIST = PLACE / "unnoticed.toml"
# Those that step through an unoptimised library take long, and notice nothing that those do not that
# step through an optimised one: they are left out.
LEFT_OUT = "unoptimised."

# What can come of a change, and how it is counted.
NOTICED = "noticed by a test"
SHOWN = "shown by a model"
NOT_COMPILED = "not compiled"
SAME_CODE = "the same machine code"
LISTED = "listed as the same program"
UNNOTICED = "UNNOTICED"
UNLIKELY = "UNNOTICED BY THE LIKELY"
NOT_TRIED = "NOT TRIED TO THE END"
WRONGLY_LISTED = "LISTED, BUT NOTICED"
GOOD = (NOTICED, SHOWN)
BAD = (UNNOTICED, UNLIKELY, NOT_TRIED, WRONGLY_LISTED)
RESULTS = (*GOOD, NOT_COMPILED, SAME_CODE, LISTED, *BAD)


@dataclasses.dataclass
class Outcome:
    change: object
    result: str
    by: str = ""
    how: str = ""
    seconds: float = 0.0

    def __str__(self):
        said = f"{self.result}: {self.by}" if self.by else self.result
        return f"{said} ({self.how})" if self.how not in ("", "fails") else said


# ---- What is changed ---------------------------------------------------------------------------


class Sources:
    """The changes of each file, found once."""

    def __init__(self):
        self._changes = {}

    def changes(self, file):
        if file not in self._changes:
            try:
                text = pathlib.Path(file).read_text(encoding="utf-8")
                self._changes[file] = changes_in(file, text)
            except (OSError, UnicodeDecodeError, ValueError, KeyError) as error:
                raise Problem(f"{file} can't be read: {error}") from error
        return self._changes[file]


def default_files():
    found = itertools.chain.from_iterable(sorted(glob.glob(each)) for each in DEFAULT_FILES)
    return [file for file in found if file.endswith(SOURCES)]


def named_file(name, parser):
    path = pathlib.Path(os.path.relpath(name))
    if not path.is_file():
        parser.error(f'there is no file "{name}"')
    if path.parts[0] != "libsrc" or path.suffix not in SOURCES:
        parser.error(f'"{name}" is no source in libsrc')
    return str(path)


# ---- The lists ---------------------------------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class Entry:
    """What a list says about one change, whose lines it names."""

    source: str
    file: str
    before: str
    after: str
    function: str | None
    nth: int | None
    model: tuple | None = None

    def __str__(self):
        return f"{self.source}: the change of '{self.before}' to '{self.after}' in {self.file}"

    def matches(self, change):
        return ((self.before, self.after) == (change.before, change.after)
                and self.function in (None, change.function))

    def change_among(self, changes):
        found = [change for change in changes if self.matches(change)]
        if self.nth is None and len(found) > 1:
            raise Problem(f"{self} {self._choice(found)}")
        nth = self.nth or 1
        if nth > len(found):
            raise Problem(f"{self} is not made any more")
        return found[nth - 1]

    @staticmethod
    def _choice(found):
        places = ", ".join(f"line {change.line} in {change.function or 'no function'}"
                           for change in found)
        return f"may be each of {len(found)} ({places}); tell which with 'function' or 'nth'"


def read_entry(entry, path):
    model = None
    if path == SHOWN_BY_MODEL:
        model = read_model(entry, path)
        if not in_model(model[0], model[1]):
            raise Problem(f"{path}: {model[0]} has no {model[1]}")
    else:
        field(entry, "why", str, path)
    nth = field(entry, "nth", int, path) if "nth" in entry else None
    return Entry(str(path), field(entry, "file", str, path),
                 in_one_line(field(entry, "from", str, path)),
                 in_one_line(field(entry, "to", str, path)), entry.get("function"), nth, model)


def read_list(path, sources):
    """The entries of a list by the names of their changes. Every one must have its change."""
    found, wrong = {}, []
    for raw in read_toml(path).get("change", []) if path.exists() else []:
        try:
            entry = read_entry(raw, path)
            name = entry.change_among(sources.changes(entry.file)).name
            if name in found:
                raise Problem(f"{entry} is there twice")
            found[name] = entry
        except Problem as problem:
            wrong.append(str(problem))
    return found, wrong


@dataclasses.dataclass(frozen=True)
class Likely:
    """Patterns of files, and the programs that are likely to notice a change in these."""

    files: list
    programs: list

    def fits(self, file):
        return any(fnmatch.fnmatch(file, pattern) for pattern in self.files)


def read_likely():
    content = read_toml(LIKELY_TESTS) if LIKELY_TESTS.exists() else {}
    found = [Likely(field(entry, "files", list, LIKELY_TESTS),
                    field(entry, "programs", list, LIKELY_TESTS))
             for entry in content.get("likely", [])]
    sources = {path.stem for folder in ("tests", "fuzz")
               for path in pathlib.Path(folder).rglob("*_test.cpp")}
    for program in itertools.chain.from_iterable(each.programs for each in found):
        if program.rpartition(".")[2] not in sources:
            raise Problem(f"{LIKELY_TESTS}: there is no program {program}")
    return found


def likely_programs(file, likely):
    """Those of the map first, then those that are called like the file."""
    found = [program for each in likely if each.fits(file) for program in each.programs]
    topic = pathlib.Path(file).stem.rpartition("_")[2]
    programs = sorted(path.stem for path in pathlib.Path("tests").glob("*_test.cpp"))
    found += [program for program in programs if topic in program.split("_")]
    return list(dict.fromkeys(found))


def quoted(text):
    """As TOML has it."""
    return f"'{text}'" if "'" not in text else json.dumps(text, ensure_ascii=False)


def entry_for(change):
    lines = ["[[change]]", f"file = {quoted(change.file)}", f"function = {quoted(change.function)}",
             f"from = {quoted(change.before)}", f"to = {quoted(change.after)}"]
    if not change.alone:
        lines.append(f"nth = {change.nth}")
    return "\n".join([*lines, "why = ''", ""])


# ---- Going on with an interrupted search -------------------------------------------------------


def digest_of(paths):
    digest = hashlib.sha256()
    for path in paths:
        digest.update(f"{path}\0".encode())
        digest.update(path.read_bytes())
    return digest.hexdigest()


def tree_digest():
    """Of all that decides whether a change is noticed."""
    files = []
    for path in map(pathlib.Path, [*COPIED, MODELS]):
        files += [path] if path.is_file() else sorted(p for p in path.rglob("*") if p.is_file())
    return digest_of([path for path in files if LISTS not in path.parents] + [SHOWN_BY_MODEL])


class Record:
    """A file with a line for each outcome. What came of a change is taken from it as long as the
    file that it is made in is the same; that it was unnoticed, as long as everything is."""

    def __init__(self, path, tree, likely_only):
        self._path = path
        self._tree = tree
        self._likely_only = likely_only
        self._known = {}
        self._digests = {}
        self._lock = threading.Lock()
        if path is None:
            return
        try:
            lines = path.read_text(encoding="utf-8").splitlines() if path.exists() else []
        except (OSError, UnicodeDecodeError) as error:
            raise Problem(f"{path} can't be read: {error}") from error
        for number, line in enumerate(lines):
            try:
                noted = json.loads(line)
                self._known[tuple(noted["name"])] = noted
            except (ValueError, KeyError, TypeError) as error:
                if number + 1 < len(lines):
                    raise Problem(f"{path}:{number + 1} is no outcome of a search") from error
                lines.pop()  # the search was ended while it wrote this
        try:
            path.write_text("".join(f"{line}\n" for line in lines), encoding="utf-8")
        except OSError as error:
            raise Problem(f"{path} can't be written: {error.strerror}") from error

    def _digest(self, file):
        if file not in self._digests:
            self._digests[file] = digest_of([pathlib.Path(file)])
        return self._digests[file]

    def outcome(self, change):
        """What came of a change before, or null."""
        noted = self._known.get(change.name)
        if noted is None or noted["source"] != self._digest(change.file):
            return None
        if noted["result"] in BAD and noted["tree"] != self._tree:
            return None
        if noted["result"] == NOT_TRIED or (noted["result"] == UNLIKELY and not self._likely_only):
            return None
        return Outcome(change, noted["result"], noted["by"], noted["how"])

    def note(self, outcome):
        if self._path is None:
            return
        line = json.dumps({"name": outcome.change.name, "result": outcome.result,
                           "by": outcome.by, "how": outcome.how, "tree": self._tree,
                           "source": self._digest(outcome.change.file)})
        with self._lock, open(self._path, "a", encoding="utf-8") as file:
            file.write(f"{line}\n")


# ---- Machine code ------------------------------------------------------------------------------


def library_code(tree):
    made = tree.build_folder / "libsrc" / "libsorvane-signals.a"
    return hashlib.sha256(made.read_bytes()).hexdigest()


def program_code(tree, program):
    """Of a program's own objects, without what tells a debugger their lines."""
    digest = hashlib.sha256()
    bare = PLACE / f"{tree.root.name}.o"
    for folder in ("tests", "fuzz"):
        own = tree.build_folder / folder / "CMakeFiles" / f"{program}.dir"
        for made in sorted(own.rglob("*.o")):
            subprocess.run(["objcopy", "--strip-debug", made, bare], check=True,
                           stdin=subprocess.DEVNULL)
            digest.update(bare.read_bytes())
    return digest.hexdigest()


class Workshop:
    """A tree with the right code built, and what is known of that."""

    def __init__(self, tree, seconds, programs_of_file):
        self.tree = tree
        self.programs_of_file = programs_of_file
        self.tests = tree.tests()
        self.other_tests = tree.names_of_other_tests()
        for name, taken in seconds.items():
            self.tests[name].seconds = taken
        self.right_library = library_code(tree)
        wanted = {program for file, programs in programs_of_file.items() if file.endswith(".h")
                  for program in programs}
        self.right_programs = {program: program_code(tree, program) for program in wanted}

    def tests_of(self, program):
        return sorted((test for test in self.tests.values() if test.program == program),
                      key=lambda test: test.seconds)


# ---- One change --------------------------------------------------------------------------------


class Experience:
    """What the changes so far have taught, for all trees."""

    def __init__(self):
        self._lock = threading.Lock()
        self._by_code = {}
        self._helpful = collections.defaultdict(collections.Counter)
        self._by_variant = {}

    def twin(self, file, code):
        with self._lock:
            return self._by_code.get((file, code))

    def note_code(self, file, code, outcome):
        with self._lock:
            self._by_code.setdefault((file, code), outcome)

    def helpful(self, file):
        """The tests that have noticed changes of a file, and were not likely to; the best first."""
        with self._lock:
            return [name for name, _ in self._helpful[file].most_common()]

    def note_helpful(self, file, name):
        with self._lock:
            self._helpful[file][name] += 1

    def files_with_surprises(self):
        return sorted((file, names) for file, names in self._helpful.items() if names)

    def variant(self, model, log):
        """Whether the model shows a mistake, which is tried once."""
        with self._lock:
            if model not in self._by_variant:
                folder = PLACE / "model"
                self._by_variant[model] = shown_by_model(*model, folder, log)
            return self._by_variant[model]


class Trial:
    """One change in one tree. The tests of the likely programs are run first, then the model if the
    change stands for a mistake in one, then all other tests unless only the likely ones count."""

    def __init__(self, change, workshop, experience, model, likely_only, log):
        self._change = change
        self._shop = workshop
        self._tree = workshop.tree
        self._experience = experience
        self._model = model
        self._likely_only = likely_only
        self._log = log
        self._programs = workshop.programs_of_file[change.file]
        self._header = change.file.endswith(".h")
        self._library_stays_right = (bool(self._programs)
                                     and makes_own_instances(change.file, self._programs))
        self._code = ""
        self._differs = False
        self._tried = set()

    def outcome(self):
        right = self._tree.read(self._change.file)
        if self._library_stays_right and not self._tree.build_right_library(self._log):
            raise Problem(f"the right library could not be built: see {self._log.name}")
        self._tree.write(self._change.file, self._change.made_in(right))
        try:
            outcome = self._outcome()
            if self._code and not self._header:
                self._experience.note_code(self._change.file, self._code, outcome)
            return outcome
        finally:
            self._tree.write(self._change.file, right)

    def _outcome(self):
        return (self._without_running()
                or next(filter(None, map(self._try_program, self._programs)), None)
                or self._with_the_library()
                or self._try_model()
                or (self._is(UNLIKELY) if self._likely_only else self._try_others()))

    def _try_others(self):
        return self._try_helpful() or self._try_all() or self._is(UNNOTICED)

    def _is(self, result, by="", how=""):
        return Outcome(self._change, result, by, how)

    def _build_library(self):
        self._tree.library_is_right = False
        if not self._tree.build([LIBRARY], self._log):
            return False
        self._code = library_code(self._tree)
        self._differs = self._differs or self._code != self._shop.right_library
        return True

    def _without_running(self):
        if self._library_stays_right:
            return None
        if not self._build_library():
            return self._is(NOT_COMPILED)
        if self._header:
            return None
        if not self._differs:
            return self._is(SAME_CODE)
        twin = self._experience.twin(self._change.file, self._code)
        if twin is None or twin.result in (NOT_TRIED, UNLIKELY):
            return None
        return self._is(twin.result, twin.by, f"the same machine code as {twin.change.place}")

    def _with_the_library(self):
        """A header that only the programs have been compiled with comes into the library, too."""
        if self._library_stays_right and not self._build_library():
            return self._is(NOT_COMPILED)
        return None if self._differs else self._is(SAME_CODE)

    def _try_program(self, program):
        if self._library_stays_right:
            built = self._tree.build_without_library([program], self._log)
        else:
            built = self._tree.build([program], self._log)
        if not built:
            if self._library_stays_right and not self._build_library():
                return self._is(NOT_COMPILED)
            return self._is(NOTICED, program, "not compiled any more")
        if self._header:
            changed = program_code(self._tree, program) != self._shop.right_programs[program]
            self._differs = self._differs or changed
            if not self._differs:
                return None
        return self._try_tests(self._shop.tests_of(program))

    def _try_tests(self, tests):
        for test in tests:
            how = self._tree.run(test, self._log)
            if how is not None:
                return self._is(NOTICED, test.name, how)
            # With the right library it has not been tried to the end.
            if not self._library_stays_right:
                self._tried.add(test.name)
        return None

    def _try_model(self):
        if self._model is None:
            return None
        shown = self._experience.variant(self._model, self._log)
        name = f"{self._model[0]} with {self._model[1]}"
        if shown is None:
            return self._is(NOT_TRIED, name, "could not be checked")
        return self._is(SHOWN, name) if shown else None

    def _try_helpful(self):
        for name in self._experience.helpful(self._change.file):
            test = self._shop.tests.get(name)
            if test is not None and self._tree.build([test.program], self._log):
                how = self._tree.run(test, self._log)
                if how is not None:
                    self._experience.note_helpful(self._change.file, name)
                    return self._is(NOTICED, name, how)
                self._tried.add(name)
        return None

    def _try_all(self):
        if not self._tree.build(["all"], self._log):
            return self._is(NOTICED, "one of all programs", "not compiled any more")
        tests = [test for test in self._shop.tests.values()
                 if test.name not in self._tried and not test.program.startswith(LEFT_OUT)]
        noticed = self._try_tests(sorted(tests, key=lambda test: test.seconds))
        if noticed is not None:
            self._experience.note_helpful(self._change.file, noticed.by)
            return noticed
        name = self._tree.run_all(self._log, only=self._shop.other_tests)
        return None if name is None else self._is(NOTICED, name)


# ---- All of them -------------------------------------------------------------------------------


class Search:
    def __init__(self, changes, listed, in_models, likely, record, likely_only):
        self._changes = changes
        self._listed = listed
        self._in_models = in_models
        self._likely = likely
        self._record = record
        self._likely_only = likely_only
        self._lock = threading.Lock()
        self._started = time.monotonic()
        self._tried = 0
        self._to_try = 0
        self.experience = Experience()
        self.outcomes = []

    def run(self, jobs, try_listed):
        to_try = []
        for change in self._changes:
            known = self._record.outcome(change)
            if change.name in self._listed and not try_listed:
                self.outcomes.append(Outcome(change, LISTED))
            elif known is not None and not try_listed:
                self.outcomes.append(known)
            else:
                to_try.append(change)
        if len(self.outcomes) > 0:
            print(self._counts_so_far(), flush=True)
        if to_try:
            self._try(to_try, jobs)

    def _counts_so_far(self):
        results = collections.Counter(outcome.result for outcome in self.outcomes)
        said = ", ".join(f"{results[result]} {result}" for result in RESULTS if results[result])
        return f"Not tried: {said}"

    def _try(self, changes, jobs):
        workshops = self._prepare({change.file for change in changes}, min(jobs, len(changes)))
        print(f"Making {len(changes)} changes, one at a time", flush=True)
        self._started = time.monotonic()
        self._to_try = len(changes)
        waiting = queue.SimpleQueue()
        for change in changes:
            waiting.put(change)

        def work(workshop):
            for change in drain(waiting):
                self._note(self._tried_in(workshop, change))

        each_tree(work, workshops)

    def _prepare(self, files, count):
        processors = os.cpu_count() or 1
        jobs = max(1, processors // count)
        trees = [Tree(PLACE / f"tree{number}", jobs) for number in range(1, count + 1)]
        print(f"Building the right code{f', {count} times' if count > 1 else ''}", flush=True)
        programs_of_file = {file: likely_programs(file, self._likely) for file in files}
        wanted = set(itertools.chain.from_iterable(programs_of_file.values()))
        targets = [LIBRARY, *sorted(wanted)] if self._likely_only else ["all"]
        each_tree(lambda tree: tree.prepare(targets, jobs), trees)
        if not self._likely_only:
            wanted = {test.program for test in trees[0].tests().values()
                      if not test.program.startswith(LEFT_OUT)}
        seconds = right_seconds(trees, wanted)
        return [Workshop(tree, seconds, programs_of_file) for tree in trees]

    def _tried_in(self, workshop, change):
        started = time.monotonic()
        entry = self._in_models.get(change.name)
        log_path = PLACE / f"{workshop.tree.root.name}-change.log"
        with open(log_path, "w", encoding="utf-8") as log:
            try:
                outcome = Trial(change, workshop, self.experience, entry and entry.model,
                                self._likely_only, log).outcome()
            except (Problem, OSError, subprocess.CalledProcessError) as error:
                outcome = Outcome(change, NOT_TRIED, str(error))
        result = outcome.result
        if change.name in self._listed:
            result = (WRONGLY_LISTED if result in GOOD
                      else LISTED if result in (UNNOTICED, UNLIKELY) else result)
        return dataclasses.replace(outcome, result=result, seconds=time.monotonic() - started)

    def _note(self, outcome):
        if outcome.result not in (LISTED, WRONGLY_LISTED):
            self._record.note(outcome)
        with self._lock:
            self.outcomes.append(outcome)
            self._tried += 1
            taken = time.monotonic() - self._started
            left = taken / self._tried * (self._to_try - self._tried)
            bad = sum(each.result in BAD for each in self.outcomes)
            change = outcome.change
            print(f"[{self._tried:{len(str(self._to_try))}}/{self._to_try}, {bad} to look at, "
                  f"{duration(left)} left] {change.place} {change.kind}: {outcome}, "
                  f"{outcome.seconds:.0f} s", flush=True)


def duration(seconds):
    minutes = round(seconds / 60)
    return f"{minutes // 60} h {minutes % 60:02} min" if minutes >= 60 else f"{minutes} min"


def right_seconds(trees, programs):
    """How long each of the programs' tests takes with the right code, with which it passes. None is
    run again if nothing has changed since it was."""
    place = PLACE / "seconds.json"
    tree = tree_digest()
    noted = json.loads(place.read_text(encoding="utf-8")) if place.exists() else {}
    seconds = noted["seconds"] if noted.get("tree") == tree else {}
    missing = [test for test in trees[0].tests().values()
               if test.program in programs and test.name not in seconds]
    if missing:
        print(f"Running {len(missing)} tests with the right code", flush=True)
        seconds.update(measure(trees, missing))
        place.write_text(json.dumps({"tree": tree, "seconds": seconds}), encoding="utf-8")
    return seconds


# ---- What it says ------------------------------------------------------------------------------


def report(search):
    bad = [outcome for outcome in search.outcomes if outcome.result in BAD]
    bad.sort(key=lambda outcome: (outcome.change.file, outcome.change.start, outcome.change.new))
    for outcome in bad:
        change = outcome.change
        print(f"\n{change.place} {change.kind} in {change.function or 'no function'}: {outcome}"
              f"\n    {change.before}\n -> {change.after}")
    unnoticed = [outcome.change for outcome in bad if outcome.result in (UNNOTICED, UNLIKELY)]
    UNNOTICED_LIST.write_text("\n".join(map(entry_for, unnoticed)), encoding="utf-8")
    if unnoticed:
        print(f"\n{UNNOTICED_LIST} has these as entries for {SAME_PROGRAM}")
    for file, names in search.experience.files_with_surprises():
        said = ", ".join(f"{name} {count}" for name, count in names.most_common(5))
        print(f"\nNot likely to notice changes in {file}, but did so, how often: {said}")

    kinds = [kind for kind in KINDS if any(o.change.kind == kind for o in search.outcomes)]
    print(f"\n{'':28}{'all':>9}{''.join(f'{kind:>9}' for kind in kinds)}")
    for result in RESULTS:
        of_result = [outcome for outcome in search.outcomes if outcome.result == result]
        if of_result:
            counts = collections.Counter(outcome.change.kind for outcome in of_result)
            print(f"{result:28}{len(of_result):9}"
                  f"{''.join(f'{counts[kind]:9}' for kind in kinds)}")
    print(f"{'changes':28}{len(search.outcomes):9}")
    passed = sum(outcome.result in GOOD for outcome in search.outcomes)
    print(f"\n{passed} passed, {len(bad)} failed")
    return not bad


def list_changes(changes, listed):
    file = None
    for change in changes:
        if change.file != file:
            file = change.file
            print(file)
        mark = " (the same program)" if change.name in listed else ""
        print(f"  {change.line}:{change.column} {change.kind}{mark}: {change.before}  ->  "
              f"{change.after}")
    kinds = collections.Counter(change.kind for change in changes)
    said = ", ".join(f"{kinds[kind]} {kind}" for kind in KINDS if kinds[kind])
    print(f"\n{len(changes)} changes{f': {said}' if said else ''}; "
          f"{sum(change.name in listed for change in changes)} of them listed as the same program")


# ---- The command -------------------------------------------------------------------------------


def arguments():
    parser = OneLineParser("./dev mutants --search", "Makes every small change in sources, one at a "
                           "time, and shows those that no test notices.")
    parser.add_argument("files", nargs="*", metavar="FILE",
                        help=f"a source in libsrc; if none is named: {', '.join(DEFAULT_FILES)}")
    parser.add_argument("--search", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("--list", action="store_true", help="list the changes and make none")
    parser.add_argument("--kind", choices=KINDS, action="append",
                        help="only changes of this kind; may be given several times")
    parser.add_argument("--shard", metavar="I/N", help="only the I-th of N parts")
    parser.add_argument("--likely-only", action="store_true",
                        help="don't try all other tests when the likely ones miss a change")
    parser.add_argument("--since", metavar="FILE", help="note what comes of each change in a file, "
                        "and go on from what is noted there")
    parser.add_argument("--listed", action="store_true",
                        help=f"only those in {SAME_PROGRAM}: no test may notice one")
    add_common(parser, "changes")
    chosen = parser.parse_args()
    check_jobs(parser, chosen.jobs)
    chosen.files = [named_file(name, parser) for name in chosen.files] or default_files()
    chosen.shard = shard(chosen.shard, parser)
    chosen.since = record_file(chosen.since, parser)
    return chosen


def shard(text, parser):
    if text is None:
        return 1, 1
    match = re.fullmatch(r"(\d{1,4})/(\d{1,4})", text)
    if match is None or not 1 <= int(match[1]) <= int(match[2]):
        parser.error(f'--shard is I/N with I from 1 to N, not "{text}"')
    return int(match[1]), int(match[2])


def record_file(name, parser):
    if name is None:
        return None
    path = pathlib.Path(name)
    if path.is_dir() or not path.absolute().parent.is_dir():
        parser.error(f'--since: "{name}" can\'t be a file')
    return path


def main():
    chosen = arguments()
    if chosen.check:
        return 0
    sources = Sources()
    listed, wrong = read_list(SAME_PROGRAM, sources)
    in_models, wrong_in_models = read_list(SHOWN_BY_MODEL, sources)
    for problem in wrong + wrong_in_models:
        say(SPEAKER, problem)
    likely = read_likely()

    changes = [change for file in dict.fromkeys(chosen.files) for change in sources.changes(file)
               if not chosen.kind or change.kind in chosen.kind]
    if chosen.listed:
        changes = [change for change in changes if change.name in listed]
    number, count = chosen.shard
    changes = changes[number - 1::count]
    if chosen.list:
        list_changes(changes, listed)
    if wrong or wrong_in_models:
        return 1
    return 0 if chosen.list or search_for(changes, listed, in_models, likely, chosen) else 1


def search_for(changes, listed, in_models, likely, chosen):
    PLACE.mkdir(parents=True, exist_ok=True)
    with open(PLACE / "lock", "w", encoding="utf-8") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError as error:
            raise Problem(f"another search is under way in {PLACE}") from error
        # Tests that were ended leave files behind.
        temporary = (PLACE / "tmp").resolve()
        shutil.rmtree(temporary, ignore_errors=True)
        temporary.mkdir()
        os.environ["TMPDIR"] = str(temporary)
        search = Search(changes, listed, in_models, likely,
                        Record(chosen.since, tree_digest(), chosen.likely_only),
                        chosen.likely_only)
        search.run(chosen.jobs, chosen.listed)
        return report(search)


if __name__ == "__main__":
    run_command(main)
