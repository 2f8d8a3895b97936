"""Measuring for bench/run: one process run to its end with its wall time,
its main thread's CPU time and its peak memory sampled as it runs; the
stand-in's log of its runs; small helpers for sizes and medians."""

import os
import statistics
import subprocess
import sys
import threading
import time

DATE = "Sat Nov 21 10:02:11 2026"
CONTROL_PREFIX = "extracta_control_"


def parse_size(text):
    text = text.strip().lower()
    factor = {"k": 1000, "m": 1000000}.get(text[-1:], 1)
    return int(float(text.rstrip("km")) * factor)


def size_label(n):
    if n >= 1000000 and n % 1000000 == 0:
        return "%dM" % (n // 1000000)
    if n >= 1000 and n % 1000 == 0:
        return "%dk" % (n // 1000)
    return str(n)


def median(values):
    return statistics.median(values) if values else float("nan")


class Measured:
    def __init__(self):
        self.start_ns = 0
        self.end_ns = 0
        self.exit_code = None
        self.cpu_series = []  # (wall ns, own CPU ns of the measured process)
        self.final_cpu_ns = 0
        self.peak_rss_kb = 0
        self.stderr_lines = []  # (wall ns when read, text)

    @property
    def wall(self):
        return (self.end_ns - self.start_ns) / 1e9

    def cpu_at(self, wall_ns):
        """Own CPU seconds at a moment, interpolated between samples."""
        before = (self.start_ns, 0)
        for sample in self.cpu_series:
            if sample[0] >= wall_ns:
                span = sample[0] - before[0]
                part = (wall_ns - before[0]) / span if span else 1.0
                return (before[1] + part * (sample[1] - before[1])) / 1e9
            before = sample
        return self.final_cpu_ns / 1e9


def own_cpu_ns(pid):
    # schedstat: nanoseconds on the CPU of the process's main thread; its
    # packing threads and its children are not counted.
    try:
        with open("/proc/%d/schedstat" % pid) as f:
            return int(f.read().split()[0])
    except (OSError, ValueError, IndexError):
        return None


def peak_rss_kb(pid):
    try:
        with open("/proc/%d/status" % pid) as f:
            for line in f:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1])
    except (OSError, ValueError):
        pass
    return 0


def measure(argv, env=None, cwd=None, sample=False, capture_stderr=False):
    """Runs argv to its end. With `sample`, records the process's own CPU and
    peak memory every few milliseconds; with `capture_stderr`, timestamps its
    standard error lines as they arrive."""
    m = Measured()
    # Earlier steps' files go to disk first, so that their writing back does
    # not slow whichever step happens to come next.
    os.sync()
    m.start_ns = time.time_ns()
    proc = subprocess.Popen(argv, env=env, cwd=cwd, stdout=subprocess.DEVNULL,
                            stderr=subprocess.PIPE if capture_stderr else subprocess.DEVNULL)
    done = threading.Event()
    threads = []
    if capture_stderr:
        def read_stderr():
            for raw in proc.stderr:
                m.stderr_lines.append((time.time_ns(), raw.decode("utf-8", "replace").rstrip("\n")))
        threads.append(threading.Thread(target=read_stderr))
    if sample:
        def sampler():
            while not done.is_set():
                cpu = own_cpu_ns(proc.pid)
                if cpu is not None:
                    m.cpu_series.append((time.time_ns(), cpu))
                m.peak_rss_kb = max(m.peak_rss_kb, peak_rss_kb(proc.pid))
                done.wait(0.002)
        threads.append(threading.Thread(target=sampler))
    for t in threads:
        t.start()
    # Wait without reaping, so the ended process's own CPU can still be read.
    os.waitid(os.P_PID, proc.pid, os.WEXITED | os.WNOWAIT)
    m.end_ns = time.time_ns()
    done.set()
    m.final_cpu_ns = own_cpu_ns(proc.pid) or (m.cpu_series[-1][1] if m.cpu_series else 0)
    m.exit_code = proc.wait()
    for t in threads:
        t.join()
    return m


def timed(argv, **kw):
    m = measure(argv, **kw)
    if m.exit_code != 0:
        sys.exit("failed (%s): %s" % (m.exit_code, " ".join(argv)))
    return m


def read_sim_log(path):
    runs = []
    with open(path) as f:
        for line in f:
            start, end, pid, control = line.rstrip("\n").split(" ", 3)
            runs.append((int(start), int(end), int(pid), control))
    runs.sort(key=lambda r: r[0])
    return runs
