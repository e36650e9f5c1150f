"""Measures how the works grow, and draws it. The same figures make the same files."""

import pathlib
import statistics

import matplotlib

matplotlib.use("svg")
from matplotlib import pyplot  # noqa: E402

from bench_run import measure
from bench_works import PEERS

LINES = {"library": ("Sorvane signals", "#c0392b", "o"), "bare": ("by hand", "#7f8c8d", "x")}
COLOURS = {"ace": "#2980b9", "asio": "#8e44ad", "glib": "#27ae60", "libuv": "#d68910",
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


def look_of(program):
    if program in LINES:
        label, colour, marker = LINES[program]
        return {"label": label, "color": colour, "marker": marker, "linewidth": 2, "zorder": 3}
    return {"label": PEERS[program][0], "color": COLOURS[program], "marker": ".", "linewidth": 1.2}


def draw_panel(axes, panel, lines):
    for program, points in lines.items():
        places = [panel.sizes.index(size) for size in points]
        values = [1000 / time if panel.threads else time for time in points.values()]
        axes.plot(places, values, **look_of(program))
    axes.set_title(panel.title)
    axes.set_xlabel(panel.across)
    axes.set_xticks(range(len(panel.sizes)), [str(size) for size in panel.sizes])
    if panel.threads:
        axes.set_ylabel("millions a second, all threads together")
        axes.set_ylim(bottom=0)
    else:
        axes.set_ylabel("nanoseconds")
        axes.set_yscale("log")


def draw(panels, measured, file):
    with matplotlib.rc_context(SETTINGS):
        figure, all_axes = pyplot.subplots(1, len(panels), squeeze=False, layout="constrained",
                                           figsize=(6.4 if len(panels) == 1 else 9.6, 4))
        for axes, panel, lines in zip(all_axes[0], panels, measured):
            draw_panel(axes, panel, lines)
            axes.legend(frameon=False, fontsize=8)
        figure.savefig(file, metadata={"Date": None})
        pyplot.close(figure)


def make_picture(name, panels, folder, rounds, programs):
    measured = [measure_panel(panel, rounds, programs) for panel in panels]
    draw(panels, measured, pathlib.Path(folder) / f"{name}.svg")
