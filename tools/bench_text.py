# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""The results of ./dev bench as tables, for the terminal and for the documentation."""

import os
import pathlib
import platform
import subprocess
import textwrap

from bench_works import PEERS, TABLES

UNITS = {"ratio": " x", "speed": " x", "share": " ns", "bytes": " bytes", "count": ""}


def figure(value, kind):
    """Three places of a ratio, and what can be told of a time."""
    if kind in ("bytes", "count"):
        return f"{value}"
    return f"{value:.1f}" if kind == "share" else f"{value:.3f}"


def cells(result):
    """What, figure, goal, met, beside."""
    kind, goal = result["kind"], result["goal"]
    unit = UNITS[kind]
    bound = "least" if kind == "speed" else "most"
    beside = ", ".join(f"{name} {figure(value, kind)}" for name, value in result["peers"].items())
    return (result["what"], figure(result["value"], kind) + unit,
            "" if goal is None else f"at {bound} {goal:g}{unit}",
            {None: "", True: "met", False: "not met"}[result["met"]], beside)


def summary(results):
    judged = [result for result in results if result["met"] is not None]
    return f"{sum(result['met'] for result in judged)} of {len(judged)} goals are met"


def others_use(percent):
    return f"other programs used {percent} % of the processors meanwhile"


def for_terminal(results):
    lines = []
    for result in results:
        what, value, goal, met, beside = cells(result)
        lines.append(f"{what:56} {value:>15}  {goal:20} {met}".rstrip())
        if beside:
            lines += textwrap.wrap(f"beside: {beside}", width=96, initial_indent="    ",
                                   subsequent_indent="            ")
    return "\n".join([*lines, "", summary(results)])


# --- For the documentation -----------------------------------------------------------------------


def output_of(*command):
    try:
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return ""


def processor():
    for line in pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return platform.machine()


def version_of(package):
    return output_of("dpkg-query", "--show", "--showformat=${Version}", package)


def circumstances(rounds, others):
    """Where it was measured, and beside what."""
    versions = [f"{called} {version_of(package)}"
                for called, package in (PEERS | TABLES).values() if version_of(package)]
    kernel = platform.release().partition("-")[0]
    return [f"- {processor()}, {os.cpu_count()} processors, Linux {kernel}",
            f"- {output_of('g++', '--version').splitlines()[0]}, -O2; "
            f"{output_of('ldd', '--version').splitlines()[0]}",
            f"- {rounds} blocks of each work; the figures beside the library's are in its unit",
            f"- {others_use(others)}",
            f"- beside {', '.join(versions)}"]


def for_documentation(results, rounds, others):
    lines = ["# Measured", "", "Made by `./dev bench --pictures`; what the rows mean is in",
             "[performance.md](../performance.md).", "", *circumstances(rounds, others), "",
             "| work | library | goal | | beside |", "|---|---|---|---|---|"]
    lines += [f"| {' | '.join(cells(result))} |" for result in results]
    return "\n".join([*lines, "", f"{summary(results)}.", ""])
