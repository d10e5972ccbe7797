#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Runs the long forms of the tests that work by brute force, one family after the other, within a time budget.

./dev torture builds them and calls this. Each program is run again and again, with a new seed, until its share of
the time is over or three runs have failed. The output of a run that failed is kept; it names
the seed, by which the program repeats the run.
"""
import argparse
import os
import random
import re
import subprocess
import sys
import time
from dataclasses import dataclass, field
from pathlib import Path


@dataclass
class Family:
    name: str
    program: str  # below build/
    counts: str  # finds the numbers in its output that add up to the family's count
    unit: str
    # What makes a run take some seconds. In values SECONDS becomes what is left of the family's time, SEED a number.
    environment: dict = field(default_factory=dict)
    arguments: list = field(default_factory=list)
    once: bool = False  # goes through all cases there are, so that a second run would be the same


def fuzz(name, inputs=None):
    """`inputs` names the target whose seeds and words this one starts from, when it has none of its own."""
    inputs = inputs or name
    here = Path(__file__).parent / "fuzz"
    place = "fuzz/tests/fuzz"
    return Family(name, f"{place}/{name}", r"number_of_executed_units: (\d+)", "inputs", arguments=[
        "-max_total_time=SECONDS", "-timeout=600", "-rss_limit_mb=2048", "-print_final_stats=1",
        f"-dict={here}/{inputs}.dict", f"-artifact_prefix={place}/{name}-", f"{place}/found/{name}",
        f"{place}/seeds/{inputs}"])


# A new family is one line here and, when it has a build of its own, one in ./dev.
FAMILIES = [
    Family("model", "qt6/tests/model_test", r"(\d+) operations in", "operations",
           {"DEVICE_MODEL_OPERATIONS": "50000"}),
    Family("kill", "qt6/tests/kill_test", r"(\d+) kills in", "kills", {"DEVICE_KILL_KILLS": "200"}),
    Family("io_faults", "qt6/tests/faults/io_faults_test", r"(\d+) fault points", "points",
           {"DEVICE_FAULTS_EVERY": "1"}, once=True),
    Family("memory_faults", "qt6/tests/faults/memory_faults_test", r"(\d+) fault points", "points",
           {"DEVICE_FAULTS_EVERY": "1"}, once=True),
    Family("power_cuts", "qt6/tests/faults/power_cut_test", r"(\d+) power cuts", "cuts",
           {"DEVICE_FAULTS_CUTS": "500", "DEVICE_FAULTS_SEED": "SEED"}),
    Family("soak", "qt6/tests/soak_test", r"(\d+) rows in", "rows", {"DEVICE_SOAK_SECONDS": "SECONDS"}),
    Family("ceiling", "qt6/tests/host/endurance_test", r"(\d+) rows, \d+ trimmed", "rows",
           {"DEVICE_CEILING_SECONDS": "SECONDS", "DEVICE_CEILING_PIN_SECONDS": "5"}, arguments=[
               "--gtest_filter=Endurance.*"]),
    Family("years", "qt6/tests/host/endurance_test", r"(\d+) days of", "days",
           {"DEVICE_YEARS_DAYS": os.environ.get("DEVICE_YEARS_DAYS", "100")}, arguments=["--gtest_filter=Years.*"]),
    fuzz("fuzz_operations"),
    fuzz("fuzz_files"),
    fuzz("fuzz_salvage", "fuzz_files"),
]

HANGS_AFTER = 900  # seconds behind its share


def show(line, end="\n"):
    if sys.stdout.isatty():
        print(f"\r\033[K{line}", end=end, flush=True)
    elif end == "\n":
        print(line, flush=True)


def row(family, count, seconds, violations):
    return f"{family:<16} {count:>14} {seconds:>9} {violations:>11}"


def run(family, share, build):
    """Returns the count, the number of runs that failed, and the seconds."""
    count = violations = 0
    started = time.monotonic()
    while True:
        log = build / f"torture-{family.name}-{violations + 1}.log"
        failed = not run_once(family, started, share, build, log, f"{family.name}: {count} {family.unit}")
        output = log.read_text(encoding="utf-8", errors="replace")
        got = sum(int(number) for number in re.findall(family.counts, output))
        count += got
        if failed or got == 0:
            violations += 1
            show(f"{family.name}: a run failed; its output is {log}")
        else:
            log.unlink()
        seconds = time.monotonic() - started
        if family.once or seconds >= share - 1 or violations == 3:
            break
    show(row(family.name, f"{count:,}", f"{seconds:.0f}", violations))
    return count, violations, seconds


def run_once(family, started, share, build, log, progress):
    """True when the program ended well. Shows how far the family is, each second."""
    left = max(2, int(share - (time.monotonic() - started)))
    environment = {name: value.replace("SECONDS", str(left)).replace("SEED", str(random.randrange(1, 1 << 31)))
                   for name, value in family.environment.items()}
    arguments = [argument.replace("SECONDS", str(left)) for argument in family.arguments]
    with open(log, "w", encoding="utf-8") as output:
        program = subprocess.Popen([build / family.program, *arguments], env={**os.environ, **environment}, cwd=build,
                                   stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT)
        try:
            while True:
                seconds = time.monotonic() - started
                show(f"{progress}, {seconds:.0f} of {share:.0f} s", end="")
                try:
                    return program.wait(timeout=1) == 0
                except subprocess.TimeoutExpired:
                    if seconds > share + HANGS_AFTER:
                        output.write("\ndid not end\n")
                        return False
        finally:
            program.kill()
            program.wait()


def main():
    names = [family.name for family in FAMILIES]
    parser = argparse.ArgumentParser(prog="./dev torture", description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("seconds", nargs="?", type=int, default=900,
                        help="the budget of all families together, 900 when not given; each ends with the run that "
                             "crosses its share")
    parser.add_argument("--only", metavar="FAMILY", action="append", choices=names,
                        help="run this family, can be given again: " + ", ".join(names))
    arguments = parser.parse_args()
    if arguments.seconds < 1:
        parser.error("SECONDS must be at least 1")

    build = Path(__file__).resolve().parent.parent / "build"
    chosen = [family for family in FAMILIES if not arguments.only or family.name in arguments.only]
    missing = [family.program for family in chosen if not (build / family.program).exists()]
    if missing:
        parser.error(f"not built: {', '.join(missing)}; ./dev torture builds them")
    print(row("family", "count", "seconds", "failed runs"))
    results = [run(family, arguments.seconds / len(chosen), build) for family in chosen]
    failed = sum(violations for _, violations, _ in results)
    print(row("total", "", f"{sum(seconds for _, _, seconds in results):.0f}", failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
