"""The farm mode of bench/run: a default run whose children are Slurm job
steps of an allocation of 2 nodes x 2 CPUs, beside the same run on this
machine with 4 slots and with the machine's own pool, every child taking
1.5 s (EXTRACTA_SIM_SLEEP_MS), so that the farm's own cost shows: starting
each child as a step, and the steps spread over the nodes.

It brings up the two-node cluster of scripts/slurm-cluster in a folder of its
own, holds one allocation for all repetitions (as a batch job holds its own),
and stops the cluster at the end. Also measured: how long after an interrupt
every step and every child is gone. Ratios are medians of each repetition's
ratio to the runs beside it."""

import os
import signal
import subprocess
import sys
import tempfile
import time

from measuring import DATE, median, timed

SLEEP_MS = "1500"


class Allocation:
    """salloc -N2 -n4 running a shell that writes the job's variables down and
    waits: the allocation lives until close()."""

    def __init__(self, directory, env):
        self.env = env
        said = os.path.join(directory, "job")
        self.proc = subprocess.Popen(
            ["salloc", "-N2", "-n4", "-Q", "/bin/sh", "-c",
             "printenv SLURM_JOB_ID SLURM_JOB_NODELIST SLURM_JOB_CPUS_PER_NODE > %s.part && "
             "echo $$ >> %s.part && mv %s.part %s && exec sleep 100000" % (said, said, said, said)],
            env=env, start_new_session=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        for _ in range(300):
            if os.path.exists(said):
                break
            time.sleep(0.1)
        else:
            self.close()
            sys.exit("no allocation from the cluster: %s" % self.proc.stderr.read().decode())
        with open(said) as f:
            self.id, self.nodes, self.cpus, self.waiting = f.read().split()
        self.env = dict(env, SLURM_JOB_ID=self.id, SLURM_JOB_NODELIST=self.nodes,
                        SLURM_JOB_CPUS_PER_NODE=self.cpus, VELTAR_EXTRACTA_LAUNCHER="slurm")

    def steps(self):
        out = subprocess.run(["squeue", "-h", "-s", "-j", self.id], env=self.env, capture_output=True,
                             text=True)
        return [line for line in out.stdout.splitlines() if line.strip()]

    def close(self):
        # salloc runs its shell in a process group of its own and waits for it.
        subprocess.run(["scancel", getattr(self, "id", "0")], env=self.env, stderr=subprocess.DEVNULL)
        if hasattr(self, "waiting"):
            os.kill(int(self.waiting), signal.SIGKILL)
        os.killpg(self.proc.pid, signal.SIGKILL)
        self.proc.wait()


def children_alive(design):
    out = subprocess.run(["pgrep", "-f", "extracta-sim.*%s" % design], capture_output=True, text=True)
    return bool(out.stdout.strip())


def interrupt_after_start(bindir, alloc, design, out):
    """Seconds from SIGINT to the moment no step and no child is left."""
    env = dict(alloc.env, EXTRACTA_SIM_SLEEP_MS="600000")
    proc = subprocess.Popen([os.path.join(bindir, "VelExtracta"), "-z", design, out], env=env,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    while len(alloc.steps()) < 4:
        time.sleep(0.05)
    time.sleep(0.5)
    start = time.monotonic()
    proc.send_signal(signal.SIGINT)
    proc.wait()
    while alloc.steps() or children_alive(design):
        time.sleep(0.02)
    return time.monotonic() - start


def run_farm(args, bindir):
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    cluster = tempfile.mkdtemp(prefix="velextracta-farm-", dir=args.work)
    subprocess.run([os.path.join(root, "scripts", "slurm-cluster"), "start", cluster], check=True)
    env = dict(os.environ, SLURM_CONF=os.path.join(cluster, "slurm.conf"), EXTRACTA_SIM_DATE=DATE,
               VELTAR_EXTRACTA_PATHOVERRIDE=os.path.join(bindir, "extracta-sim"),
               EXTRACTA_SIM_SLEEP_MS=SLEEP_MS)
    for name in ("VELTAR_EXTRACTA_DEBUG", "VELTAR_EXTRACTA_SLOTS", "VELTAR_EXTRACTA_LAUNCHER"):
        env.pop(name, None)
    alloc = None
    try:
        design = os.path.join(cluster, "farm.mcm")
        subprocess.run([os.path.join(bindir, "make-design"), "--seed", "3", "--conn-records", "20000",
                        "--quiet", "-o", design], check=True)
        alloc = Allocation(cluster, env)
        program = os.path.join(bindir, "VelExtracta")
        out = os.path.join(cluster, "out.vlx")
        local4_env = dict(env, VELTAR_EXTRACTA_SLOTS="4")
        rows = []
        reps = max(args.reps, 1)
        for rep in range(reps):
            farm = timed([program, "-z", design, out], env=alloc.env).wall
            local4 = timed([program, "-z", design, out], env=local4_env).wall
            pool = timed([program, "-z", design, out], env=env).wall
            rows.append((farm, local4, pool))
            print("  repetition %d: farm %.2f s, this machine with 4 slots %.2f s, with its own pool "
                  "%.2f s" % (rep + 1, farm, local4, pool), flush=True)
        stops = [interrupt_after_start(bindir, alloc, design, out) for _ in range(reps)]

        print("\nfarm: 2 nodes x 2 CPUs (Slurm steps), 23 children of %s ms each, %d repetitions"
              % (SLEEP_MS, reps))
        print("| measure | median |")
        print("|---|---|")
        print("| farm run (s) | %.2f |" % median([r[0] for r in rows]))
        print("| this machine, 4 slots (s) | %.2f |" % median([r[1] for r in rows]))
        print("| this machine, its own pool (s) | %.2f |" % median([r[2] for r in rows]))
        print("| farm / this machine with 4 slots (target at most 1.3) | %.2f |"
              % median([r[0] / r[1] for r in rows]))
        print("| farm / this machine with its own pool (target below 0.5) | %.2f |"
              % median([r[0] / r[2] for r in rows]))
        print("| SIGINT to no step and no child left (s) | %.2f |" % median(stops))
    finally:
        if alloc:
            alloc.close()
        subprocess.run([os.path.join(root, "scripts", "slurm-cluster"), "stop", cluster])
        if not args.keep:
            subprocess.run(["rm", "-rf", cluster])
