"""Measures commands side by side: medians and ratios of paired runs, and peak memory.

Commands that are compared run in turn, each once per round, so that whatever else the machine does falls on all of
them. Processor time is what the kernel counted for a command and all processes that it waited for.
"""

import os
import statistics
import subprocess
import sys
import tempfile
import time
from typing import NamedTuple


class Run(NamedTuple):
    wall: float  # seconds
    processor: float  # seconds


class Subject:
    """A command to measure: a name, an argument list or a shell text, and how to make each run ready (not measured)."""

    def __init__(self, name, command, prepare=None):
        self.name = name
        self.arguments = ["sh", "-c", command] if isinstance(command, str) else [str(argument) for argument in command]
        self.prepare = prepare or (lambda: None)
        self.runs = []
        self.peak = None

    def run_once(self):
        self.prepare()
        began = time.perf_counter()
        process = subprocess.Popen(self.arguments, stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
        _, status, usage = os.wait4(process.pid, 0)
        wall = time.perf_counter() - began
        process.returncode = os.waitstatus_to_exitcode(status)
        if process.returncode != 0:
            sys.exit(f"{self.name} failed with {process.returncode}: {self.arguments}")
        return Run(wall, usage.ru_utime + usage.ru_stime)

    def measure_peak(self):
        """Peak memory in MB of the largest of the command's processes, in a run of its own: time(1) is small enough
        not to count itself, which a Python parent is not."""
        self.prepare()
        with tempfile.NamedTemporaryFile("r") as report:
            subprocess.run(["/usr/bin/time", "-f", "%M", "-o", report.name, *self.arguments], check=True,
                           stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
            self.peak = int(report.read().split()[-1]) / 1024

    def median(self, what):
        return statistics.median(getattr(run, what) for run in self.runs)


def compare(title, subjects, rounds, memory=False):
    """Measures the subjects in turn and prints a table; ratios are medians of those within a round, of the first
    subject to each other one. Returns the processor-time ratios by name."""
    for subject in subjects:
        subject.run_once()  # warm
    for _ in range(rounds):
        for subject in subjects:
            subject.runs.append(subject.run_once())
    if memory:
        for subject in subjects:
            subject.measure_peak()
    return print_table(title, subjects, rounds, memory)


def print_table(title, subjects, rounds, memory):
    print(f"\n{title} (medians of {rounds} rounds)")
    print(f"  {'':34} {'wall ms':>10} {'cpu ms':>10} {'wall ratio':>11} {'cpu ratio':>10}" + ("  peak MB" if memory else ""))
    first = subjects[0]
    ratios = {}
    for subject in subjects:
        line = f"  {subject.name:34} {subject.median('wall') * 1e3:10.1f} {subject.median('processor') * 1e3:10.1f}"
        if subject is first:
            line += f" {'':>11} {'':>10}"
        else:
            wall, cpu = (paired_ratio(first, subject, what) for what in ("wall", "processor"))
            ratios[subject.name] = cpu
            line += f" {wall:11.2f} {cpu:10.2f}"
        print(line + (f" {subject.peak:8.1f}" if memory else ""), flush=True)
    return ratios


def paired_ratio(first, other, what):
    """The median over all rounds of first/other in the same round."""
    return statistics.median(getattr(a, what) / max(getattr(b, what), 1e-9) for a, b in zip(first.runs, other.runs))
