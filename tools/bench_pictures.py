# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Measures how the works grow, and draws it. The same figures make the same files."""

import pathlib
import statistics

import matplotlib
from matplotlib import figure, ticker

from bench_run import measure
from bench_works import PEERS

COLOURS = {"library": "#c0392b", "bare": "#7f8c8d",
           "ace": "#2980b9", "asio": "#8e44ad", "glib": "#27ae60", "libuv": "#d68910",
           "signal_hook": "#16a085"}
# Without a date, and with names that do not differ from one run to the next.
SETTINGS = {"svg.hashsalt": "sorvane-signals", "svg.fonttype": "none", "font.size": 9,
            "font.family": "sans-serif", "axes.grid": True, "grid.alpha": 0.3,
            "axes.spines.top": False, "axes.spines.right": False}


def measure_panel(panel, rounds, programs):
    """The median times of each program, in nanoseconds, by size."""
    lines = {}
    for size in panel.sizes:
        commands = panel.commands(size, programs)
        for program, times in zip(commands,
                                  measure(list(commands.values()), rounds, panel.threads)):
            lines.setdefault(program, {})[size] = statistics.median(times)
    return lines


def label_of(program, panel):
    if program in PEERS:
        return PEERS[program][0]
    return "Sorvane signals" if program == "library" else panel.bare


def draw_panel(axes, panel, lines):
    for program, points in lines.items():
        axes.plot([panel.sizes.index(size) for size in points],
                  [1000 / time if panel.threads else time for time in points.values()],
                  label=label_of(program, panel), color=COLOURS[program],
                  linewidth=1.2 if program in PEERS else 2, marker=".",
                  markersize=5 if program in PEERS else 10)
    axes.set_title(panel.title)
    axes.set_xlabel(panel.across)
    axes.set_xticks(range(len(panel.sizes)), [str(size) for size in panel.sizes])
    axes.set_ylabel("millions a second, all threads together" if panel.threads else "nanoseconds")
    axes.set_yscale(panel.scale)
    if panel.scale == "linear":
        axes.set_ylim(0, 1.1 * axes.get_ylim()[1])
    else:
        axes.yaxis.set_major_formatter(ticker.FuncFormatter(lambda value, _: f"{value:,.0f}"))


def draw(panels, measured, file):
    with matplotlib.rc_context(SETTINGS):
        picture = figure.Figure(figsize=(4.8 * len(panels), 4.8), layout="constrained")
        for axes, panel, lines in zip(picture.subplots(1, len(panels), squeeze=False)[0], panels,
                                      measured):
            draw_panel(axes, panel, lines)
            axes.legend(frameon=False, fontsize=8, loc="upper center", ncols=2,
                        bbox_to_anchor=(0.5, -0.15))
        picture.savefig(file, metadata={"Date": None})


def make_picture(name, panels, folder, rounds, programs):
    measured = [measure_panel(panel, rounds, programs) for panel in panels]
    draw(panels, measured, pathlib.Path(folder) / f"{name}.svg")
