#!/usr/bin/env python3
"""The latency benchmark: the agent in front of a slow array.

The array's management plane answers every command after a latency (the
simulator's --latency, or zervaSimLatency for the embedded one). The agent
makes its back-end calls on its worker thread and answers every request
within zervaWaitMilliseconds, from the previous read when a refresh is late.

  bench/run_latency_bench.sh [--runs N] [--latencies 0,1,5] [--json FILE]

  L1. snmpbulkwalk -v2c -Cr50 of the whole subtree on sim/topologies/large.conf
      with a back-end latency of 0, 1 and 5 ms per command: baseline, ours
      with a separate simulator, ours with the embedded one; median of --runs
      walks after warm-up walks, ratio to the baseline of the same run, and
      the age of the data served from a previous read (the agent's log);
  L2. per-request latency (bench/walk_latency) of a GETNEXT walk and a
      GETBULK (50) walk of the LUN table at 16,384 LUNs with 1 and 5 ms:
      p50, p99 and max, against the baseline agent;
  L3. back-end commands (zerva-sim-ctl counts) during a minute nobody polls,
      after a walk, and per poll while the subtree is walked every 60 s;
  L4. peak RSS (VmHWM) of the agent over two walks of 65,536 LUNs, the
      second after the snapshot time (two reads of the table coexist).

Everything listens on 127.0.0.1 or Unix sockets in a temporary directory.
Takes about 15 minutes. Not part of ctest.
"""

import argparse
import json
import os
import re
import signal
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import agent_bench  # noqa: E402  (the same harness as the agent benchmark)
from agent_bench import Harness, LARGE, SUBTREE, LUN_TABLE, machine, vm_hwm_kib, med, delta  # noqa: E402

WARMUP_LIMIT_S = 120  # warm-up walks stop once one succeeds, or after this long
AGE_RE = re.compile(r"from the read of (\d+)\.(\d) s ago")
AGENT_LOG = ["zervaKitLogLevel 2 debug", "zervaLogFoldSeconds 0"]  # the agent kit: every late read and its age, unfolded


def try_walk(h, port, oid):
    """One snmpbulkwalk (-Cr50, 5 s timeout, no retry); returns (wall seconds, varbinds, ok)."""
    wall, n, _, error = h.try_walk("snmpbulkwalk", port, oid, ["-Cr50"], timing=("-t", "5", "-r", "0"))
    return wall, n, error is None


def warm_up(h, port):
    """Walks until a walk succeeds (every table then has a read to answer from); returns the walks made."""
    deadline = time.time() + WARMUP_LIMIT_S
    walks = 0
    while time.time() < deadline:
        walks += 1
        _, _, ok = try_walk(h, port, SUBTREE)
        if ok:
            return walks
        time.sleep(1)
    sys.exit("no walk succeeded within %d s of warm-up" % WARMUP_LIMIT_S)


def ages(log_path, offset):
    """The ages (s) of previous reads answered from, logged after offset; returns (ages, new offset)."""
    with open(log_path, errors="replace") as f:
        f.seek(offset)
        text = f.read()
        end = f.tell()
    return [int(a) + int(b) / 10 for a, b in AGE_RE.findall(text)], end


def scenario_l1(h, runs, latencies, results):
    print("\n== L1: bulk walk (-Cr50) of the subtree, large array, latency per command %s ms, %d runs" %
          (latencies, runs))
    base, base_port = h.start_baseline("baseline", 16384, 182, 8, 2048)
    try_walk(h, base_port, SUBTREE)
    out = {}
    for ms in latencies:
        sim, addr = h.start_sim("sim-l1-%d" % ms, extra=["--latency", str(ms)])
        ours, ours_port = h.start_agent("l1-sim-%d" % ms, addr, AGENT_LOG)
        emb, emb_port = h.start_agent("l1-emb-%d" % ms, "embedded",
                                      ["zervaSimTopology " + LARGE, "zervaSimLatency %d" % ms] + AGENT_LOG)
        warm = {"ours-sim": warm_up(h, ours_port), "ours-embedded": warm_up(h, emb_port)}
        logs = {"ours-sim": os.path.join(h.tmp, "l1-sim-%d.agentlog" % ms),
                "ours-embedded": os.path.join(h.tmp, "l1-emb-%d.agentlog" % ms)}
        offsets = {k: os.path.getsize(v) for k, v in logs.items()}
        rows = {"baseline": [], "ours-sim": [], "ours-embedded": []}
        served_ages = {"ours-sim": [], "ours-embedded": []}
        before = h.counts(addr)
        for run in range(runs):
            for name, port in (("baseline", base_port), ("ours-sim", ours_port), ("ours-embedded", emb_port)):
                w, n, ok = try_walk(h, port, SUBTREE)
                rows[name].append({"wall": w, "varbinds": n, "ok": ok})
                if name in logs:
                    a, offsets[name] = ages(logs[name], offsets[name])
                    served_ages[name] += a
            print("   %d ms run %d: baseline %.2f s, ours-sim %.2f s%s, ours-embedded %.2f s%s" % (
                ms, run + 1, rows["baseline"][-1]["wall"], rows["ours-sim"][-1]["wall"],
                "" if rows["ours-sim"][-1]["ok"] else " (FAILED)", rows["ours-embedded"][-1]["wall"],
                "" if rows["ours-embedded"][-1]["ok"] else " (FAILED)"))
        commands = delta(before, h.counts(addr))
        fig = {"warmup_walks": warm, "sim_commands_per_walk": round(sum(commands.values()) / runs, 1)}
        for name, v in rows.items():
            fig[name] = {"wall": med([r["wall"] for r in v]), "varbinds": med([r["varbinds"] for r in v]),
                         "failed": sum(1 for r in v if not r["ok"]), "walls": [round(r["wall"], 3) for r in v]}
        for name in ("ours-sim", "ours-embedded"):
            fig[name]["ratio"] = fig[name]["wall"] / fig["baseline"]["wall"]
            a = served_ages[name]
            fig[name]["late_answers"] = len(a)
            fig[name]["max_age_s"] = max(a) if a else 0.0
            fig[name]["median_age_s"] = med(a) if a else 0.0
        out[ms] = fig
        print("   %d ms: ratio ours-sim x%.2f, ours-embedded x%.2f; late answers %d / %d, oldest %.1f s / %.1f s" % (
            ms, fig["ours-sim"]["ratio"], fig["ours-embedded"]["ratio"], fig["ours-sim"]["late_answers"],
            fig["ours-embedded"]["late_answers"], fig["ours-sim"]["max_age_s"], fig["ours-embedded"]["max_age_s"]))
        h.stop(ours)
        h.stop(emb)
        h.stop(sim)
    h.stop(base)
    results["L1"] = out


def walk_latency(h, port, mode):
    tool = os.path.join(h.build, "bench/walk_latency")
    r = subprocess.run([tool, "127.0.0.1:%d" % port, "public", LUN_TABLE, mode, "50"], env=h.env,
                       capture_output=True, text=True, timeout=agent_bench.WALK_TIMEOUT)
    if not r.stdout.strip():
        sys.exit("walk_latency: " + r.stderr)
    return json.loads(r.stdout)


def scenario_l2(h, runs, results, latencies=(1, 5)):
    print("\n== L2: per-request latency of LUN table walks, 16,384 LUNs, %d runs" % runs)
    base, base_port = h.start_baseline("baseline-l2", 16384, 182, 8, 2048)
    out = {}
    for ms in latencies:
        sim, addr = h.start_sim("sim-l2-%d" % ms, 16384, extra=["--latency", str(ms)])
        ours, port = h.start_agent("l2-%d" % ms, addr)
        fig = {}
        for mode in ("getnext", "bulk"):
            b, o = [], []
            for _ in range(runs):
                b.append(walk_latency(h, base_port, mode))
                o.append(walk_latency(h, port, mode))
            fig[mode] = {
                "baseline": {k: med([r[k] for r in b]) for k in ("p50_us", "p99_us", "max_us", "requests")},
                "ours": {k: med([r[k] for r in o]) for k in ("p50_us", "p99_us", "max_us", "requests")},
                "ours_worst_max_us": max(r["max_us"] for r in o),
                "ours_failed": sum(1 for r in o if r["errors"] or r["timeouts"] or r["varbinds"] != 16384 * 16),
            }
            print("   %d ms %s: baseline p50/p99/max %d/%d/%d us, ours %d/%d/%d us (worst max %d us, failed %d)" % (
                ms, mode, fig[mode]["baseline"]["p50_us"], fig[mode]["baseline"]["p99_us"],
                fig[mode]["baseline"]["max_us"], fig[mode]["ours"]["p50_us"], fig[mode]["ours"]["p99_us"],
                fig[mode]["ours"]["max_us"], fig[mode]["ours_worst_max_us"], fig[mode]["ours_failed"]))
        out[ms] = fig
        h.stop(ours)
        h.stop(sim)
    h.stop(base)
    results["L2"] = out


def scenario_l3(h, results, polls=3, period=60.0):
    print("\n== L3: back-end commands idle and polled every %d s" % period)
    sim, addr = h.start_sim("sim-l3")
    ours, port = h.start_agent("l3", addr)
    try_walk(h, port, SUBTREE)
    time.sleep(5)  # past the snapshot time and the reads ahead
    before = h.counts(addr)
    time.sleep(period)
    idle = sum(delta(before, h.counts(addr)).values())
    per_poll = []
    for i in range(polls):
        t0 = time.time()
        before = h.counts(addr)
        try_walk(h, port, SUBTREE)
        time.sleep(max(0.0, period - (time.time() - t0)))
        per_poll.append(sum(delta(before, h.counts(addr)).values()))
    results["L3"] = {"idle_commands_per_minute": idle * 60.0 / period, "commands_per_poll": per_poll}
    print("   idle: %d commands in %d s; per poll: %s" % (idle, period, per_poll))
    h.stop(ours)
    h.stop(sim)


def scenario_l4(h, results, luns=65536):
    print("\n== L4: peak RSS over two walks of %d LUNs" % luns)
    sim, addr = h.start_sim("sim-l4", luns)
    ours, port = h.start_agent("l4", addr)
    start_kib = vm_hwm_kib(ours.pid)
    _, n1, ok1 = try_walk(h, port, LUN_TABLE)
    first_kib = vm_hwm_kib(ours.pid)
    time.sleep(3.5)  # past the snapshot time: the second walk reads a new copy beside the first
    _, n2, ok2 = try_walk(h, port, LUN_TABLE)
    results["L4"] = {"start_kib": start_kib, "after_first_kib": first_kib, "peak_kib": vm_hwm_kib(ours.pid),
                     "varbinds": [n1, n2], "ok": ok1 and ok2}
    print("   VmHWM %d KiB at start, %d after one walk, %d after two (%d, %d varbinds)" % (
        start_kib, first_kib, results["L4"]["peak_kib"], n1, n2))
    h.stop(ours)
    h.stop(sim)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--runs", type=int, default=5, metavar="N", help="measured walks per figure (default 5)")
    parser.add_argument("--latencies", default="0,1,5", help="L1's latencies in ms (default 0,1,5)")
    parser.add_argument("--only", default="L1,L2,L3,L4", help="the scenarios to run (default all)")
    parser.add_argument("--json", metavar="FILE", help="also write every figure to FILE as JSON")
    args = parser.parse_args(argv)
    h = Harness(os.environ.get("BUILD_DIR", "build-bench"))

    def on_signal(signum, _):
        h.cleanup()
        sys.exit(128 + signum)
    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGINT, on_signal)
    results = {"machine": machine(), "date": time.strftime("%Y-%m-%d")}
    print("== %d CPU(s): %s" % (results["machine"]["cpus"], results["machine"]["cpu"]))
    only = set(args.only.split(","))
    try:
        if "L1" in only:
            scenario_l1(h, args.runs, [int(x) for x in args.latencies.split(",")], results)
        if "L2" in only:
            scenario_l2(h, args.runs, results)
        if "L3" in only:
            scenario_l3(h, results)
        if "L4" in only:
            scenario_l4(h, results)
    finally:
        h.cleanup()
    if args.json:
        with open(args.json, "w") as f:
            json.dump(results, f, indent=1, default=str)
    return 0


if __name__ == "__main__":
    sys.exit(main())
