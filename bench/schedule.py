"""The generator pool's schedule for bench/run, worked out from one run's
per-process times, and the stretches in which children ran."""

from measuring import CONTROL_PREFIX, median


def pool_schedule(runs, slots):
    """The schedule the generator pool would make from one run's per-process
    times with `slots` processes at once: first in, first out, in the order
    the run queued them. The split runs and the remainder are queued only once
    the survey has ended and been read (the reading time as seen in the run);
    every start costs the median gap seen between one process's end and the
    next one's start. Returns the time until the last process ends."""
    names = [r[3] for r in runs]
    survey = names.index(CONTROL_PREFIX + "connnets.txt")
    gaps = [(runs[i + 1][0] - runs[i][1]) / 1e9 for i in range(len(runs) - 1) if i != survey]
    spawn = max(0.0, median(gaps)) if gaps else 0.0
    read = (runs[survey + 1][0] - runs[survey][1]) / 1e9 - spawn if survey + 1 < len(runs) else 0.0
    free = [0.0] * slots
    last_start = 0.0
    ends = []
    for i, r in enumerate(runs):
        release = 0.0 if i <= survey else ends[survey] + max(0.0, read)
        slot = min(range(slots), key=lambda k: free[k])
        start = max(release, free[slot], last_start) + spawn
        last_start = start
        free[slot] = start + (r[1] - r[0]) / 1e9
        ends.append(free[slot])
    return max(ends)


def children_running(runs):
    """The stretches of time in which at least one child ran, merged."""
    merged = []
    for start, end, _, _ in sorted(runs):
        if merged and start <= merged[-1][1]:
            merged[-1][1] = max(merged[-1][1], end)
        else:
            merged.append([start, end])
    return merged


def survey_gap(runs):
    """From the survey's end to the next start: the survey's reading."""
    i = runs_up_to_survey(runs)
    return (runs[i][0] - runs[i - 1][1]) / 1e9 if i < len(runs) else 0.0


def runs_up_to_survey(runs):
    names = [r[3] for r in runs]
    return names.index(CONTROL_PREFIX + "connnets.txt") + 1
