#!/usr/bin/env python3
"""Log volume of the agent under a poller: bytes per poll and per day.

Two zerva-snmp-agent programs with the default configuration (but for
zervaLogFile, and zervaLogFoldSeconds 0 for the second) serve the large array
(sim/topologies/large.conf: 16,384 LUNs) from one zerva-array-sim. Each is
bulk-walked (snmpbulkwalk -v2c -Cr50 of the whole subtree) every --interval
seconds, --polls times, the second half an interval after the first; the
growth of each log file between two polls is that poll's volume, and
the volume per day is the mean per poll times 1,440 (one poll a minute).

  BUILD_DIR=build python3 bench/log_volume.py              # 60 s polls, 60 s window: about 7 minutes
  BUILD_DIR=build python3 bench/log_volume.py --scaled     # 6 s polls, zervaLogFoldSeconds 6: same ratio
  ... [--polls N] [--interval S] [--window S] [--json FILE]

The programs come from $BUILD_DIR (default build-bench) as in
bench/agent_bench.py, whose harness this script uses. Everything listens on
127.0.0.1 or Unix sockets in a temporary directory; every child is stopped
on exit. Not part of ctest: it takes minutes.
"""

import argparse
import json
import os
import signal
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from agent_bench import ROOT, SUBTREE, Harness  # noqa: E402

POLLS_PER_DAY = 1440
MIB = 1024 * 1024


def parse_args(argv):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--polls", type=int, default=5, help="polls of each agent (at least 5)")
    p.add_argument("--interval", type=float, default=60.0, help="seconds between polls")
    p.add_argument("--window", type=int, default=60, help="zervaLogFoldSeconds of the folding agent")
    p.add_argument("--scaled", action="store_true", help="--interval 6 --window 6: the default ratio, ten times faster")
    p.add_argument("--json", help="write the figures to this file")
    args = p.parse_args(argv)
    if args.scaled:
        args.interval, args.window = 6.0, 6
    if args.polls < 5:
        p.error("--polls must be at least 5")
    if args.window < 1 or args.interval <= 0:
        p.error("--window and --interval must be positive")
    return args


def size(path):
    try:
        return os.path.getsize(path)
    except OSError:
        return 0


def lines_of(path):
    with open(path, "rb") as f:
        return f.read().decode("utf-8", "replace").splitlines()


class Polled:
    """One agent, its log file and the bytes each poll added."""

    def __init__(self, h, name, backend, fold):
        self.name = name
        self.fold = fold
        extra = [] if fold is None else ["zervaLogFoldSeconds %d" % fold]
        self.proc, self.port = h.start_agent(name, backend, extra)
        self.log = os.path.join(h.tmp, name + ".agentlog")
        self.start_bytes = size(self.log)  # the start-up line
        self.marks = []  # log size just before each poll, then at the end
        self.walk_s = []

    def poll(self, h):
        self.marks.append(size(self.log))
        secs, n, _ = h.walk("snmpbulkwalk", self.port, SUBTREE, ["-Cr50"])
        self.walk_s.append(secs)
        print("   %-10s poll %d: %d varbinds in %.2f s" % (self.name, len(self.walk_s), n, secs), flush=True)

    def finish(self, h):
        self.marks.append(size(self.log))
        h.stop(self.proc)  # SIGTERM: pending summaries are written
        self.end_bytes = size(self.log)

    def figures(self):
        per_poll = [b - a for a, b in zip(self.marks, self.marks[1:])]
        mean = sum(per_poll) / len(per_poll)
        steady = per_poll[1:]
        return {
            "fold_seconds": 0 if self.fold is None else self.fold,
            "startup_bytes": self.start_bytes,
            "bytes_per_poll": per_poll,
            "mean_bytes_per_poll": mean,
            "steady_bytes_per_poll": sum(steady) / len(steady),
            "bytes_per_day": mean * POLLS_PER_DAY,
            "steady_bytes_per_day": sum(steady) / len(steady) * POLLS_PER_DAY,
            "shutdown_bytes": self.end_bytes - self.marks[-1],
            "walk_seconds": self.walk_s,
        }


def main(argv=None):
    args = parse_args(sys.argv[1:] if argv is None else argv)
    os.chdir(ROOT)
    h = Harness(os.environ.get("BUILD_DIR", "build-bench"))

    def on_signal(signum, _):
        h.cleanup()
        sys.exit(128 + signum)

    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGINT, on_signal)

    results = {"polls": args.polls, "interval_s": args.interval, "window_s": args.window}
    print("== log volume: %d bulk walks of the large array every %.0f s, folding window %d s" %
          (args.polls, args.interval, args.window))
    try:
        _, address = h.start_sim("sim-large")
        folded = Polled(h, "folded", address, None if args.window == 60 else args.window)
        unfolded = Polled(h, "unfolded", address, 0)
        t0 = time.time() + 1.0
        half = args.interval / 2
        # Poll k of the folding agent at t0 + k * interval, of the other half
        # an interval later: the two walks do not share the CPU.
        for k in range(args.polls):
            for agent, offset in ((folded, 0.0), (unfolded, half)):
                rest = t0 + k * args.interval + offset - time.time()
                if rest > 0:
                    time.sleep(rest)
                agent.poll(h)
        # One more interval: the last window ends and its summary is written.
        for agent, offset in ((folded, 0.0), (unfolded, half)):
            rest = t0 + args.polls * args.interval + offset + 1.5 - time.time()
            if rest > 0:
                time.sleep(rest)
            agent.finish(h)
        results["folded"] = folded.figures()
        results["unfolded"] = unfolded.figures()
        results["folded_tail"] = [line[:200] for line in lines_of(folded.log)]
        results["unfolded_lines"] = len(lines_of(unfolded.log))
    finally:
        h.cleanup()

    f, u = results["folded"], results["unfolded"]
    print("\n%-28s %14s %14s" % ("", "folded (%d s)" % args.window, "unfolded"))
    print("%-28s %14d %14d" % ("start-up bytes", f["startup_bytes"], u["startup_bytes"]))
    for i, (a, b) in enumerate(zip(f["bytes_per_poll"], u["bytes_per_poll"])):
        print("%-28s %14d %14d" % ("poll %d bytes" % (i + 1), a, b))
    print("%-28s %14.0f %14.0f" % ("mean bytes per poll", f["mean_bytes_per_poll"], u["mean_bytes_per_poll"]))
    print("%-28s %14.0f %14.0f" % ("steady bytes (polls 2..)", f["steady_bytes_per_poll"], u["steady_bytes_per_poll"]))
    print("%-28s %14.3f %14.3f" % ("MiB per day (mean x 1440)", f["bytes_per_day"] / MIB, u["bytes_per_day"] / MIB))
    print("%-28s %14.3f %14.3f" % ("MiB per day (steady x 1440)", f["steady_bytes_per_day"] / MIB,
                                   u["steady_bytes_per_day"] / MIB))
    print("%-28s %14d %14d" % ("written at shutdown", f["shutdown_bytes"], u["shutdown_bytes"]))
    print("\nfolded log:")
    for line in results["folded_tail"]:
        print("   " + line)
    goal = f["bytes_per_day"] < MIB
    print("\ngoal < 1 MiB/day with the default configuration: %s" % ("met" if goal else "NOT met"))
    if args.json:
        with open(args.json, "w") as out:
            json.dump(results, out, indent=1, sort_keys=True)
    return 0 if goal else 1


if __name__ == "__main__":
    sys.exit(main())
