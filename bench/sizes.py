"""One size of bench/run: the design, the program's runs, the baselines
beside them, and the table that compares them."""

import os
import shutil
import subprocess
import sys
import time

from measuring import CONTROL_PREFIX, DATE, measure, median, read_sim_log, size_label, timed
from readback import check_readers
from schedule import children_running, pool_schedule, runs_up_to_survey, survey_gap

# Targets, as ratios to what is measured beside them.
WALL_TARGET = 0.6  # program wall / baseline wall, at most
MERGE_TARGET = 0.8  # merge throughput / cat throughput, at least
ZIP_TARGET = 0.5  # program's zip step after the last child / zip -6, at most
SIZE_TARGET = 1.02  # archive size / zip -6's, at most
MEMORY_TARGET_MB = 96  # peak memory, at most, at every size
MEMORY_SPREAD = 1.10  # largest peak / smallest, at most, over the sizes from a million records on
CPU_TARGET = 0.02  # own CPU / wall while children run, at most

HEADER = ("measure", "value", "beside", "ratio", "spread", "target", "")


class Bench:
    def __init__(self, args, bindir):
        self.peaks = {}  # records -> median peak memory, MB
        self.args = args
        self.bindir = bindir
        self.sim = os.path.join(bindir, "extracta-sim")

    def env(self, log=None, debug=False):
        env = dict(os.environ)
        env["VELTAR_EXTRACTA_PATHOVERRIDE"] = self.sim
        env["EXTRACTA_SIM_DATE"] = DATE
        for name in [n for n in env if n.startswith("EXTRACTA_SIM_") and n != "EXTRACTA_SIM_DATE"]:
            del env[name]
        env.pop("VELTAR_EXTRACTA_DEBUG", None)
        if log:
            env["EXTRACTA_SIM_LOG"] = log
        if debug:
            env["VELTAR_EXTRACTA_DEBUG"] = "1"
        return env

    def program(self, design, outdir, options, debug=False, tag="run", keep_archive=False):
        """One program run (-z) with its archive and run log in `outdir`. With
        `debug`, the kept working directory is moved into `outdir` at once."""
        log = os.path.join(outdir, tag + ".log")
        out = os.path.join(outdir, tag + ".vlx")
        for path in (log, out):
            if os.path.exists(path):
                os.remove(path)
        before = set(os.listdir(os.path.dirname(design)))
        m = measure([os.path.join(self.bindir, "VelExtracta"), "-z"] + options + [design, out],
                    env=self.env(log, debug), sample=True, capture_stderr=debug)
        if m.exit_code != 0:
            sys.exit("VelExtracta failed (%s): %s" % (m.exit_code, "\n".join(l for _, l in m.stderr_lines[-5:])))
        m.runs = read_sim_log(log) if os.path.exists(log) else []
        m.workdir = None
        if debug:
            made = sorted(set(os.listdir(os.path.dirname(design))) - before)
            made = [d for d in made if d.startswith("extract")]
            if len(made) != 1:
                sys.exit("expected one kept working directory, found %s" % made)
            # Moved out of the way at once: the next run may start within the
            # same second and would want the same name.
            m.workdir = os.path.join(outdir, "kept-%s-%d" % (made[0], time.time_ns()))
            os.rename(os.path.join(os.path.dirname(design), made[0]), m.workdir)
        m.archive_bytes = os.path.getsize(out)
        m.archive = out
        if not keep_archive:
            os.remove(out)
        return m

    def run_size(self, n):
        reps = self.args.reps if n < 1000000 else self.args.reps_large
        label = size_label(n)
        top = os.path.join(self.args.work, label)
        os.makedirs(top, exist_ok=True)
        design_dir = os.path.join(top, "design")
        os.makedirs(design_dir, exist_ok=True)
        design = os.path.join(design_dir, "design.mcm")
        if not os.path.exists(design):
            print("[%s] making the design" % label, flush=True)
            timed([os.path.join(self.bindir, "make-design"), "--seed", "1", "--conn-records", str(n),
                   "-o", design])
        for place in (design_dir, top):
            for name in os.listdir(place):
                if name.startswith("extract") or name.startswith("kept-"):
                    shutil.rmtree(os.path.join(place, name))
        print("[%s] design %.1f MB, %d repetitions" % (label, os.path.getsize(design) / 1e6, reps), flush=True)

        # A first instrumented run leaves the working directory whose control
        # files the baseline script runs.
        first = self.program(design, top, [], debug=True, tag="debug", keep_archive=True)
        workdir = first.workdir
        readers = check_readers(first.archive, workdir)
        os.remove(first.archive)
        controls = [r[3] for r in first.runs]
        base = os.path.join(top, "baseline")
        if os.path.exists(base):
            shutil.rmtree(base)
        os.makedirs(base)
        lines = ["#!/bin/sh", "set -e", 'cd "%s"' % base]
        for control in controls:
            shutil.copy(os.path.join(workdir, control), os.path.join(base, control))
            view = control[len(CONTROL_PREFIX):]
            lines.append('"%s" -k -c -m "%s" "%s/%s" "%s/%s"' % (self.sim, design, base, control, base, view))
        script = os.path.join(top, "baseline.sh")
        with open(script, "w") as f:
            f.write("\n".join(lines) + "\n")
        survey = controls.index(CONTROL_PREFIX + "connnets.txt")
        pieces = [os.path.join(base, c[len(CONTROL_PREFIX):]) for c in controls[survey + 1:]]
        conn = os.path.join(base, "conn.txt")
        archive = os.path.join(top, "baseline.zip")
        env = self.env(os.path.join(top, "baseline.log"))

        # One extracta-sim for every view from one control file.
        std_control = os.path.join(top, "standard_control.txt")
        single_dir = os.path.join(top, "single")
        os.makedirs(single_dir, exist_ok=True)
        outputs = subprocess.run([os.path.join(self.bindir, "write-standard-control"), std_control, single_dir],
                                 check=True, capture_output=True, text=True).stdout.split()

        # The repetitions interleave program and baseline, so that a change of
        # load on the machine falls on both alike.
        r = {key: [] for key in ("merges", "zips", "default", "cell", "seq", "cat", "zip6", "single")}
        for rep in range(reps):
            print("[%s] repetition %d of %d" % (label, rep + 1, reps), flush=True)
            m = first if rep == 0 else self.program(design, top, [], debug=True, tag="debug")
            merged = [(t, l) for t, l in m.stderr_lines if "merged" in l and "bytes" in l]
            if not merged:
                sys.exit("no merge trace line in the instrumented run")
            words = merged[-1][1].split()
            r["merges"].append((int(words[words.index("bytes") - 1]), int(words[words.index("us") - 1]) / 1e6))
            # The packaging step: from the last line the view creation traces
            # (the merge, or a view waited for after it) to the end.
            last = max(t for t, l in m.stderr_lines if "merged" in l or "finished" in l)
            r["zips"].append((m.end_ns - last) / 1e9)
            if rep > 0:
                shutil.rmtree(m.workdir)

            r["default"].append(self.program(design, top, [], tag="default"))
            r["cell"].append(self.program(design, top, ["-cell"], tag="cell"))
            r["seq"].append(timed(["/bin/sh", script], env=env).wall)
            r["cat"].append(timed(["/bin/sh", "-c", 'cat "$@" > "%s"' % conn, "cat"] + pieces).wall)
            packed = sorted(os.path.join(base, f) for f in os.listdir(base) if f.endswith(".txt"))
            if rep == 0:
                program_packed = sorted(f for f in os.listdir(workdir) if f.endswith(".txt"))
                if sorted(os.path.basename(p) for p in packed) != program_packed:
                    sys.exit("the baseline would pack other files than the program")
            if os.path.exists(archive):
                os.remove(archive)
            r["zip6"].append(timed(["zip", "-6", "-q", archive] + packed).wall)
            r["single"].append(timed([self.sim, "-k", "-c", "-m", design, std_control] + outputs, env=env).wall)

        r["zip6_bytes"] = os.path.getsize(archive)
        r["readers"] = readers
        r["piece_bytes"] = sum(os.path.getsize(p) for p in pieces)
        r["packed_bytes"] = sum(os.path.getsize(p) for p in packed)
        self.report(label, n, reps, r)
        if not self.args.keep:
            shutil.rmtree(base)
            shutil.rmtree(single_dir)
            shutil.rmtree(workdir)
            os.remove(archive)

    # ------------------------------------------------------------ reporting

    def report(self, label, n, reps, r):
        default, cell = r["default"], r["cell"]
        seq, cat, zip6, single = r["seq"], r["cat"], r["zip6"], r["single"]
        wall = median([m.wall for m in default])
        cell_wall = median([m.wall for m in cell])
        baselines = [s + c + z for s, c, z in zip(seq, cat, zip6)]
        baseline = median(baselines)
        zip_prog = median(r["zips"])
        zip_base = median(zip6)
        # Per-process times and the phases come from the run of median wall time.
        typical = sorted(default, key=lambda m: m.wall)[len(default) // 2]
        runs = typical.runs

        busy_share, phase_share, cpu_total, rss, startup, span, survey_read, tail = ([] for _ in range(8))
        summed, over_summed, gaps, tail_share = ([] for _ in range(4))
        for m in default:
            intervals = children_running(m.runs)
            busy = sum(e - s for s, e in intervals) / 1e9
            busy_cpu = sum(m.cpu_at(e) - m.cpu_at(s) for s, e in intervals)
            busy_share.append(busy_cpu / busy)
            first, last = m.runs[0][0], max(r[1] for r in m.runs)
            phase_share.append((m.cpu_at(last) - m.cpu_at(first)) / ((last - first) / 1e9))
            cpu_total.append(m.final_cpu_ns / 1e9)
            rss.append(m.peak_rss_kb)
            startup.append((first - m.start_ns) / 1e9)
            span.append((last - first) / 1e9)
            survey_read.append(survey_gap(m.runs))
            tail.append((m.end_ns - last) / 1e9)
            # What the program adds to its extractions: their own times added
            # up, the survey's delay and the gaps between one child's end and
            # the next one's start (with one child at a time), the tail.
            children = sum(r[1] - r[0] for r in m.runs) / 1e9
            summed.append(children)
            over_summed.append(m.wall / children)
            ordered = sorted(m.runs)
            survey = runs_up_to_survey(ordered) - 1
            gaps.append(sum(max(0, ordered[i + 1][0] - ordered[i][1]) for i in range(len(ordered) - 1)
                            if i != survey) / 1e9)
            tail_share.append((m.end_ns - last) / 1e9 / m.wall)
        # Ratios are medians of the ratios of each repetition, whose parts ran
        # next to each other.
        wall_ratios = [m.wall / b for m, b in zip(default, baselines)]
        merge_ratios = [(mb / ms) / (r["piece_bytes"] / c) for (mb, ms), c in zip(r["merges"], cat) if ms > 0]
        zip_ratios = [p / z for p, z in zip(r["zips"], zip6)]
        merge_rate = median([b / s for b, s in r["merges"] if s > 0]) / 1e6
        cat_rate = r["piece_bytes"] / median(cat) / 1e6
        piece_bytes, packed_bytes = r["piece_bytes"], r["packed_bytes"]

        rows = []

        def row(what, value, beside="", ratio=None, target=None, ok=None, spread=None):
            verdict = "" if ok is None else ("ok" if ok else "MISS")
            rows.append((what, value, beside, "" if ratio is None else "%.3f" % ratio,
                         "" if not spread or len(spread) < 2 else "%.2f-%.2f" % (min(spread), max(spread)),
                         "" if target is None else target, verdict))

        ratio = median(wall_ratios)
        row("wall, default run", "%.3f s" % wall, "baseline %.3f s" % baseline, ratio, "<= %.2f" % WALL_TARGET,
            ratio <= WALL_TARGET, wall_ratios)
        row("  baseline: extractions + cat + zip -6", "%.3f + %.3f + %.3f s" % (median(seq), median(cat), zip_base))
        row("  start to first child", "%.3f s" % median(startup))
        row("  children, first start to last end", "%.3f s" % median(span), "extractions %.3f s" % median(seq),
            median(span) / median(seq))
        row("    of which survey read (no child runs)", "%.3f s" % median(survey_read))
        row("  last child to end (merge, zip, clean-up)", "%.3f s" % median(tail))
        row("  children's own times, added up", "%.3f s" % median(summed), "", median(over_summed),
            spread=over_summed)
        row("    survey's delay (survey end to next start)", "%.3f s" % median(survey_read))
        row("    gaps (a child's end to the next start)", "%.3f s" % median(gaps))
        row("    tail after the last child, share of the run", "%.1f %%" % (100 * median(tail_share)),
            "%.3f s" % median(tail), median(tail_share), spread=tail_share)
        row("wall, cell run", "%.3f s" % cell_wall, "default %.3f s" % wall, cell_wall / wall)
        share = median(busy_share)
        row("own CPU while children run", "%.2f %% of wall" % (100 * share), "", share, "<= %.2f" % CPU_TARGET,
            share <= CPU_TARGET, busy_share)
        row("  over the children phase, survey read included", "%.2f %%" % (100 * median(phase_share)))
        row("own CPU, whole run", "%.3f s" % median(cpu_total), "of %.3f s wall" % wall)
        peak = median(rss) / 1024
        self.peaks[n] = peak
        row("peak memory (own)", "%.1f MB" % peak, "", None, "<= %d MB" % MEMORY_TARGET_MB,
            peak <= MEMORY_TARGET_MB)
        large = {k: v for k, v in self.peaks.items() if k >= 1000000}
        if len(large) > 1:
            spread = max(large.values()) / min(large.values())
            row("  largest over smallest from 1M records", "%.1f / %.1f MB" % (max(large.values()),
                min(large.values())), "", spread, "<= %.2f" % MEMORY_SPREAD, spread <= MEMORY_SPREAD)
        ratio = median(merge_ratios)
        row("merge throughput", "%.0f MB/s" % merge_rate, "cat %.0f MB/s" % cat_rate, ratio,
            ">= %.2f" % MERGE_TARGET, ratio >= MERGE_TARGET, merge_ratios)
        row("  connectivity pieces", "%.1f MB in %d files" % (piece_bytes / 1e6, len(runs) - runs_up_to_survey(runs)))
        ratio = median(zip_ratios)
        row("zip step after the last child", "%.3f s" % zip_prog, "zip -6 %.3f s" % zip_base, ratio, "<= %.2f" % ZIP_TARGET,
            ratio <= ZIP_TARGET, zip_ratios)
        row("  packed", "%.1f MB" % (packed_bytes / 1e6))
        size = median([m.archive_bytes for m in default])
        ratio = size / r["zip6_bytes"]
        row("archive size", "%.2f MB" % (size / 1e6), "zip -6 %.2f MB" % (r["zip6_bytes"] / 1e6), ratio,
            "<= %.2f" % SIZE_TARGET, ratio <= SIZE_TARGET)
        for reader, ok in r["readers"]:
            row("  read back by %s" % reader, "every file identical" if ok else "DIFFERS", ok=ok)
        single_wall = median(single)
        for slots in (1, 2, 4, 8):
            makespan = pool_schedule(runs, slots)
            row("schedule, %d at once (children)" % slots, "%.3f s" % makespan,
                "one process %.3f s" % single_wall, makespan / single_wall)

        widths = [max(len(r[i]) for r in rows + [HEADER]) for i in range(len(HEADER))]
        title = "%s connectivity records (%d), medians of %d; load average %.1f" % (
            label, n, reps, os.getloadavg()[0])
        print()
        print(title)
        print("-" * len(title))
        for r in [HEADER] + rows:
            print("  ".join(c.ljust(w) for c, w in zip(r, widths)).rstrip())
        print()
        print("per-process times of the median default run (s, in start order):")
        for r in runs:
            print("  %8.3f  %s" % ((r[1] - r[0]) / 1e9, r[3]))
        sys.stdout.flush()
