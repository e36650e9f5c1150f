#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Runs programs of others with a plug-in that uses the library, and as they are, and compares.

The scenarios are in hosts/, a TOML file each, with what is expected to differ and why. Each runs
without the plug-in and then once for each form of it and each mode; see hosts/README.md.
"""

import argparse
import dataclasses
import difflib
import pathlib
import re
import sys
import tomllib

import host_run
from command import Misuse, OneLineParser, Problem, run
from host_run import BUILD, Run, program_of, signal_name

HOSTS = pathlib.Path("hosts")
MODES = ("before", "after", "idle", "busy", "early")
# With managers, a stop displaces what the host installs meanwhile; no host stands that.
NOT_WITH_MANAGERS = ("early",)
FORMS = ("managers", "subscriptions")
# A plug-in that does harm, and the scenario and the mode in which that has to be seen as this.
BAD_FORMS = (
    ("ignored", "native/calls", "after", "later: SIGUSR2: ignored"),
    ("no_restart", "native/calls", "after", "output: "),
    ("lost", "python/handlers", "after", "output: "),
    ("held_back", "perl/posix", "after", "SigBlk: also SIGWINCH"),
    ("swallowed", "python/faulthandler", "after", "status: exit 0 instead of signal SIGSEGV"),
    ("wrong_mask", "native/calls", "after", "later: SIGUSR1: "),
    ("silent", "native/calls", "after", "was not called for SIGUSR1"),
    ("stuck", "bash/traps", "before", "did not get past "),
)
FIELDS = {"about", "run", "status", "quick", "helper", "modes", "called", "steps", "normalise",
          "leave_out", "unordered", "children", "env", "write", "folders", "expected"}
EXPECTED_FIELDS = {"forms", "modes", "at", "signals", "difference", "reason", "why", "sometimes"}
MOST_SHOWN = 12
# What is expected in many places, and why.
REASONS = HOSTS / "reasons.toml"


# ---- The scenarios -----------------------------------------------------------------------------


@dataclasses.dataclass
class Expectation:
    pattern: str
    why: str
    forms: list
    modes: list
    sometimes: bool


@dataclasses.dataclass
class Scenario:
    name: str
    here: pathlib.Path
    about: str
    run: list
    status: str
    quick: bool
    helper: bool
    modes: list
    called: list
    steps: list
    normalise: list
    leave_out: list
    unordered: bool
    children: bool
    env: dict
    write: dict
    folders: list
    expected: list


def read_toml(path):
    try:
        return tomllib.loads(path.read_text(encoding="utf-8"))
    except (OSError, UnicodeDecodeError, tomllib.TOMLDecodeError) as error:
        raise Problem(f"{path}: {error}") from error


def read_expectations(entry, reasons, path):
    """One for each signal and place that the entry names."""
    unknown = set(entry) - EXPECTED_FIELDS
    if unknown:
        raise Problem(f"{path}: an expectation knows no {', '.join(sorted(unknown))}")
    if "reason" in entry:
        if entry["reason"] not in reasons:
            raise Problem(f"{path}: {REASONS} has no {entry['reason']}")
        entry = reasons[entry["reason"]] | entry
    if not all(entry.get(name) for name in ("difference", "modes", "why")):
        raise Problem(f"{path}: an expectation needs 'difference', 'modes' and 'why'")
    sometimes = entry.get("sometimes", False)
    if sometimes and not set(entry["modes"]) <= {"busy", "early"}:
        raise Problem(f"{path}: only what depends on another thread may differ sometimes")
    patterns = [entry["difference"].replace("{signal}", f"SIG{name}").replace("{at}", place)
                for place in entry.get("at", [""])
                for name in entry.get("signals", "none").split()]
    return [Expectation(pattern, entry["why"], entry.get("forms", ["managers"]), entry["modes"],
                        sometimes) for pattern in patterns]


def read_scenario(path, reasons):
    content = read_toml(path)
    unknown = set(content) - FIELDS
    if unknown or not content.get("about") or not content.get("run"):
        raise Problem(f"{path}: a scenario needs 'about' and 'run', and knows no "
                      f"{', '.join(sorted(unknown)) or 'others'}")
    steps = content.get("steps", [])
    for step in steps:
        if not hasattr(Run, f"_step_{step.split()[0]}"):
            raise Problem(f'{path}: there is no step "{step}"')
    expected = [expectation for entry in content.get("expected", [])
                for expectation in read_expectations(entry, reasons, path)]
    return Scenario(
        name=str(path.relative_to(HOSTS).with_suffix("")), here=path.parent.resolve(),
        about=content["about"], run=content["run"], status=content.get("status", "exit 0"),
        quick=content.get("quick", False), helper=content.get("helper", False),
        modes=content.get("modes", list(MODES)), called=content.get("called", []), steps=steps,
        normalise=content.get("normalise", []), leave_out=content.get("leave_out", []),
        unordered=content.get("unordered", False), children=content.get("children", True),
        env=content.get("env", {}), write=content.get("write", {}),
        folders=content.get("folders", []), expected=expected)


def read_scenarios():
    reasons = read_toml(REASONS)
    scenarios = [read_scenario(path, reasons) for path in sorted(HOSTS.glob("*/*.toml"))]
    if not scenarios:
        raise Problem(f"there are no scenarios in {HOSTS}")
    return scenarios


def select(scenarios, names, quick):
    for name in names:
        if not any(name in (s.name, s.name.split("/")[0]) for s in scenarios):
            raise Misuse(f'no scenario or host is called "{name}"; "./dev hosts --list" lists them')
    if names:
        scenarios = [s for s in scenarios if s.name in names or s.name.split("/")[0] in names]
    return [s for s in scenarios if s.quick] if quick else scenarios


# ---- Comparison --------------------------------------------------------------------------------


def compare_lines(what, lines, bare):
    return [f"{what}: {line}" for line in difflib.ndiff(bare, lines) if line[0] in "+-"]


def names_of(bits):
    return " ".join(signal_name(n) for n in range(1, 65) if bits >> (n - 1) & 1)


def compare_snapshots(what, found, bare):
    differences = []
    by_action = 0
    for number in sorted(bare.actions):
        if found.actions[number] != bare.actions[number]:
            by_action |= 1 << (number - 1)
            differences.append(f"{what}: {signal_name(number)}: {found.actions[number]} instead of "
                               f"{bare.actions[number]}")
    for name in bare.sets:
        # A signal whose action differs has been told already.
        told = by_action if name in ("SigCgt", "SigIgn") else 0
        more = found.sets[name] & ~bare.sets[name] & ~told
        less = bare.sets[name] & ~found.sets[name] & ~told
        if more:
            differences.append(f"{what}: {name}: also {names_of(more)}")
        if less:
            differences.append(f"{what}: {name}: without {names_of(less)}")
    return differences


def compare_named(found, bare, mode):
    differences = []
    for name in sorted(set(found) | set(bare)):
        # A plug-in that is preloaded stays to the end.
        if mode in ("before", "early") and name != "end":
            continue
        if name not in found:
            differences.append(f"{name}: was not reached")
        elif name not in bare:
            differences.append(f"{name}: is reached")
        else:
            differences += compare_snapshots(name, found[name], bare[name])
    return differences


def by_program(children):
    programs = {}
    for child in children:
        programs.setdefault(child.program, []).append(child)
    return programs


def compare_children(found, bare):
    differences = []
    found, bare = by_program(found), by_program(bare)
    for program in sorted(set(found) | set(bare)):
        ours, theirs = found.get(program, []), bare.get(program, [])
        if len(ours) != len(theirs):
            differences.append(f"child {program}: {len(ours)} times instead of {len(theirs)}")
        for child, bare_child in zip(ours, theirs):
            differences += compare_snapshots(f"child {program}", child, bare_child)
    return differences


def compare(scenario, mode, found, bare):
    differences = []
    if found.stuck:
        differences.append(f"did not get past {found.stuck}")
    if found.status != bare.status:
        differences.append(f"status: {found.status} instead of {bare.status}")
    differences += compare_lines("output", found.output, bare.output)
    differences += compare_lines("errors", found.errors, bare.errors)
    differences += compare_lines("answers", found.answers, bare.answers)
    differences += compare_lines("files", found.files, bare.files)
    differences += compare_named(found.snapshots, bare.snapshots, mode)
    if scenario.children:
        differences += compare_children(found.children, bare.children)
    return list(dict.fromkeys(differences))


@dataclasses.dataclass
class Verdict:
    wrong: list
    expected: int = 0


def judge(scenario, form, mode, found, bare):
    """Every difference has to be expected, and every expected difference has to be there."""
    differences = compare(scenario, mode, found, bare)
    wrong = []
    applying = [e for e in scenario.expected if form in e.forms and mode in e.modes]
    for difference in differences:
        if not any(re.fullmatch(e.pattern, difference) for e in applying):
            wrong.append(difference)
    for expectation in applying:
        if not expectation.sometimes and not any(re.fullmatch(expectation.pattern, d)
                                                 for d in differences):
            wrong.append(f'expected, but does not differ: "{expectation.pattern}"')
    if not found.loaded:
        wrong.append("the plug-in was not loaded")
    if mode == "after":
        wrong += [f"a handler of the plug-in was not called for SIG{name}"
                  for name in scenario.called if not found.counters.get(f"SIG{name}")]
    return Verdict(wrong, len(differences))


# ---- Runs --------------------------------------------------------------------------------------


def show(scenario, form, mode, outcome, seconds, wrong, remark=""):
    print(f"{scenario.name:<24} {form:<14} {mode:<7} {outcome:<6} {seconds:4.1f} s  {remark}"
          .rstrip(), flush=True)
    for line in wrong[:MOST_SHOWN]:
        print(f"    {line}")
    if len(wrong) > MOST_SHOWN:
        print(f"    and {len(wrong) - MOST_SHOWN} more")
    sys.stdout.flush()


def run_bare(scenario):
    """What the host does without the plug-in, and what is wrong with that."""
    bare = Run(scenario, "bare", "none").record()
    wrong = []
    if bare.stuck:
        wrong.append(f"did not get past {bare.stuck}")
    # Without leave to write a core file there is none.
    if bare.status.removesuffix(", core") != scenario.status:
        wrong.append(f"status: {bare.status} instead of {scenario.status}")
    if wrong:
        wrong += [f"output: {line}" for line in bare.output]
        wrong += [f"errors: {line}" for line in bare.errors]
    return bare, wrong


class Count:
    def __init__(self):
        self.passed = 0
        self.failed = 0

    def add(self, right):
        if right:
            self.passed += 1
        else:
            self.failed += 1

    def end(self):
        print(f"\n{self.passed} passed, {self.failed} failed", flush=True)
        return 1 if self.failed or not self.passed else 0


def run_scenario(scenario, forms, modes, count):
    bare, wrong = run_bare(scenario)
    count.add(not wrong)
    show(scenario, "none", "bare", "FAILED" if wrong else "ok", bare.seconds, wrong)
    if wrong:
        return
    for form in forms:
        for mode in modes:
            if mode not in scenario.modes or form == "managers" and mode in NOT_WITH_MANAGERS:
                continue
            found = Run(scenario, mode, form).record()
            verdict = judge(scenario, form, mode, found, bare)
            count.add(not verdict.wrong)
            number = "1 difference" if verdict.expected == 1 else f"{verdict.expected} differences"
            remark = f"{number}, as expected" if verdict.expected else ""
            show(scenario, form, mode, "FAILED" if verdict.wrong else "ok", found.seconds,
                 verdict.wrong, "" if verdict.wrong else remark)


def plugin_exists(form):
    return (BUILD / f"plugin-{form}.so").exists()


def run_all(scenarios, forms, modes):
    count = Count()
    for form in forms:
        if not plugin_exists(form):
            print(f"The form {form} is left out: the library has no such class.")
    forms = [form for form in forms if plugin_exists(form)]
    if not forms:
        raise Problem("there is no plug-in of that form")
    for scenario in scenarios:
        if program_of(scenario) is None:
            program = pathlib.PurePath(scenario.run[0]).name
            print(f"{scenario.name:<24} is left out: there is no {program}", flush=True)
            continue
        run_scenario(scenario, forms, modes, count)
    return count.end()


def check_bad_form(scenario, fault, mode, sign):
    bare, wrong = run_bare(scenario)
    if wrong:
        return wrong
    form = f"bad_{fault}"
    verdict = judge(scenario, form, mode, Run(scenario, mode, form).record(), bare)
    if any(sign in line for line in verdict.wrong):
        return []
    return verdict.wrong + [f'not found: "{sign}"']


def check_itself(scenarios):
    """The harness has to find what is wrong with plug-ins that do harm."""
    host_run.STEP_LIMIT = 5.0
    count = Count()
    named = {scenario.name: scenario for scenario in scenarios}
    for fault, name, mode, sign in BAD_FORMS:
        wrong = check_bad_form(named[name], fault, mode, sign)
        count.add(not wrong)
        print(f"{fault:<12} {'MISSED' if wrong else 'found':<7} in {name}, {mode}: {sign}",
              flush=True)
        for line in wrong:
            print(f"    {line}", flush=True)
    # What is expected and does not come is wrong as well.
    scenario = named["native/calls"]
    bare, _ = run_bare(scenario)
    never = Expectation("never", "to be found", ["managers"], ["idle"], False)
    verdict = judge(dataclasses.replace(scenario, expected=[never]), "managers", "idle",
                    Run(scenario, "idle", "managers").record(), bare)
    count.add(verdict.wrong == ['expected, but does not differ: "never"'])
    found = "found" if verdict.wrong else "MISSED"
    print(f"{'unfulfilled':<12} {found:<7} in {scenario.name}, idle")
    return count.end()


# ---- The command -------------------------------------------------------------------------------


def parse():
    parser = OneLineParser("./dev hosts", __doc__.split("\n")[0])
    parser.add_argument("names", metavar="NAME", nargs="*", help="a host, or one of its scenarios")
    parser.add_argument("--list", action="store_true", help="list the scenarios")
    parser.add_argument("--expected", action="store_true",
                        help="list what is expected to differ, and why")
    parser.add_argument("--quick", action="store_true", help="only what fits into a minute")
    parser.add_argument("--form", choices=FORMS, help="only this form of the plug-in")
    parser.add_argument("--mode", choices=MODES, help="only this mode")
    parser.add_argument("--self-check", action="store_true",
                        help="look whether plug-ins that do harm are found")
    parser.add_argument("--check", action="store_true", help=argparse.SUPPRESS)
    return parser.parse_args()


def list_scenarios(scenarios):
    for scenario in scenarios:
        quick = "quick" if scenario.quick else ""
        print(f"{scenario.name:<24} {quick:<6} {scenario.about}")


def list_expected(scenarios):
    for scenario in scenarios:
        for expectation in scenario.expected:
            print(f"{scenario.name} ({', '.join(expectation.forms)}; "
                  f"{', '.join(expectation.modes)}): {expectation.pattern}\n    {expectation.why}")


def main():
    options = parse()
    scenarios = read_scenarios()
    selected = select(scenarios, options.names, options.quick)
    if options.check:
        return 0
    if options.list:
        list_scenarios(selected)
        return 0
    if options.expected:
        list_expected(selected)
        return 0
    if options.self_check:
        return check_itself(scenarios)
    return run_all(selected, [options.form] if options.form else FORMS,
                   [options.mode] if options.mode else MODES)


if __name__ == "__main__":
    run("dev: hosts", main)
