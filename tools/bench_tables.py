# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Measures the library's table by Google Benchmark, beside others."""

import collections
import json
import statistics
import subprocess

from bench_run import BUILD, pin_to_last
from bench_works import TABLE_GOAL, TABLE_SIZES, TABLES
from command import Problem

SECONDS = 0.001  # of a repetition, at least


def tables_there():
    output = subprocess.run([str(BUILD / "tables"), "--benchmark_list_tests",
                             "--benchmark_filter=^hit/int/8/5/"],
                            check=True, capture_output=True, text=True).stdout
    return {line.split("/")[-1] for line in output.split()}


def times_of(name, repetitions):
    """The median time of each table for each number of keys, by both."""
    command = [str(BUILD / "tables"), f"--benchmark_filter=^{name}/", "--benchmark_format=json",
               f"--benchmark_repetitions={repetitions}", f"--benchmark_min_time={SECONDS}",
               "--benchmark_enable_random_interleaving=true"]
    output = subprocess.run(command, check=True, stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL, text=True, preexec_fn=pin_to_last).stdout
    times = collections.defaultdict(list)
    for run in json.loads(output)["benchmarks"]:
        if run.get("error_occurred"):
            raise Problem(f"{run['name']}: {run['error_message']}")
        if run["run_type"] == "iteration":
            size, table = run["run_name"].split("/")[3:5]
            times[int(size), table].append(run["real_time"])
    return {which: statistics.median(several) for which, several in times.items()}


def table_result(name, what, repetitions):
    """The greatest of the ratios to the table that is written by hand, of all numbers of keys."""
    medians = times_of(name, repetitions)
    ratios = {size: medians[size, "library"] / medians[size, "reference"] for size in TABLE_SIZES}
    size, value = max(ratios.items(), key=lambda ratio: ratio[1])
    return {"name": f"tables/{name}", "what": f"{what}, {size} keys", "kind": "ratio",
            "value": round(value, 3), "goal": TABLE_GOAL, "met": value <= TABLE_GOAL,
            "ratios": {str(keys): round(ratio, 3) for keys, ratio in ratios.items()},
            "peers": {called: round(medians[size, table] / medians[size, "reference"], 3)
                      for table, (called, _) in TABLES.items() if (size, table) in medians}}
