#!/usr/bin/env python3
"""The agent benchmark: zerva-snmp-agent against the baseline agent.

The baseline agent serves the same table shapes from memory with a bare
Net-SNMP agent. Both run in the same run, alternating, median of --runs runs
(default 5; at least 3).

  bench/run_agent_bench.sh [--runs N] [--skip-codec] [--json FILE]

  a. snmpbulkwalk -v2c -Cr50 of the whole subtree 1.3.6.1.4.1.32473.4.1.21 on
     sim/topologies/large.conf: baseline, ours with a separate
     zerva-array-sim (zervaBackend unix:PATH), ours with the embedded one;
  b. snmpwalk (GETNEXT) of the LUN table at 1,024 and 16,384 LUNs: time per
     varbind;
  c. back-end commands per walk, by command (zerva-sim-ctl counts before
     and after), at the default snapshot time and within one snapshot;
  d. peak RSS (VmHWM) of the agent while walking 65,536 LUNs;
  e. bench/run_codec_bench.sh.

bench/run_agent_bench.sh builds the programs in build-bench/ (or $BUILD_DIR)
and runs this script, which finds them in the same directory. Everything
listens on 127.0.0.1 or Unix sockets in a temporary directory; every child
is stopped on exit. Not part of ctest: timings need a quiet machine, and
take a few minutes.
"""

import argparse
import json
import math
import os
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
MIB_XML = os.path.join(ROOT, "mibs/VEM-PERFORMANCE.xml")
LARGE = os.path.join(ROOT, "sim/topologies/large.conf")
SUBTREE = "1.3.6.1.4.1.32473.4.1.21"
LUN_TABLE = SUBTREE + ".4"
SWITCH = SUBTREE + ".1.0"
SNAPSHOT_S = 3.0  # the agent's default zervaSnapshotSeconds
BATCH = 160  # the agent's default zervaBatchRows and the LUN table's batch
WALK_TIMEOUT = 300  # seconds, per client run
LUN_COUNTS = (1024, 16384)  # scenario b's table sizes
RSS_LUNS = 65536  # scenario d's table size


class Harness:
    """The programs under test, their temporary directory and the children started."""

    def __init__(self, build):
        self.build = build
        self.agent = os.path.join(build, "host/agent/zerva-snmp-agent")
        self.sim = os.path.join(build, "sim/zerva-array-sim")
        self.ctl = os.path.join(build, "sim/zerva-sim-ctl")
        self.base = os.path.join(build, "bench/baseline_agent")
        self.tmp = tempfile.mkdtemp(prefix="zerva-agent-bench.")
        self.env = dict(os.environ, MIBS="", SNMP_PERSISTENT_DIR=self.tmp, SNMPCONFPATH=self.tmp)
        self.children = []

    def cleanup(self):
        """Stops every child still running and removes the temporary directory."""
        for p in self.children:
            if p.poll() is None:
                p.terminate()
        deadline = time.time() + 5
        for p in self.children:
            try:
                p.wait(timeout=max(0.1, deadline - time.time()))
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        self.children.clear()
        shutil.rmtree(self.tmp, ignore_errors=True)

    def log_path(self, name):
        return os.path.join(self.tmp, name + ".log")

    def spawn(self, argv, name):
        """Starts a child with its output in <tmp>/<name>.log."""
        log = open(self.log_path(name), "w")
        p = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT, env=self.env)
        self.children.append(p)
        return p

    def stop(self, p):
        """Stops one child (SIGTERM, SIGKILL after 5 s)."""
        if p.poll() is None:
            p.terminate()
            try:
                p.wait(timeout=5)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        self.children.remove(p)

    def start_sim(self, name, luns=None, extra=()):
        """Starts zerva-array-sim on the large topology; returns (process, address)."""
        sock = os.path.join(self.tmp, name + ".sock")
        argv = [self.sim, "--listen", "unix:" + sock, "--topology", LARGE] + list(extra)
        if luns is not None:
            argv += ["--luns", str(luns)]
        p = self.spawn(argv, name)
        log = self.log_path(name)
        for _ in range(200):
            if "listening on" in open(log).read():
                return p, "unix:" + sock
            if p.poll() is not None:
                break
            time.sleep(0.05)
        sys.exit("zerva-array-sim did not start: " + open(log).read())

    def wait_ready(self, port, proc, name):
        """Waits until the agent on port answers a GET of the switch."""
        for _ in range(100):
            r = subprocess.run(["snmpget", "-v2c", "-c", "public", "-On", "-t", "0.3", "-r", "0",
                                "127.0.0.1:%d" % port, SWITCH], env=self.env, capture_output=True, text=True)
            if "Gauge32" in r.stdout:
                return
            if proc.poll() is not None:
                break
            time.sleep(0.1)
        sys.exit("%s did not answer: %s" % (name, open(self.log_path(name)).read()[-2000:]))

    def start_agent(self, name, backend, extra=()):
        """Starts zerva-snmp-agent on a free loopback port; returns (process, port)."""
        port = free_udp_port()
        conf = os.path.join(self.tmp, name + ".conf")
        with open(conf, "w") as f:
            f.write("rocommunity public 127.0.0.1\n")
            f.write("zervaBackend %s\n" % backend)
            f.write("zervaLogFile %s\n" % os.path.join(self.tmp, name + ".agentlog"))
            for line in extra:
                f.write(line + "\n")
        p = self.spawn([self.agent, "-f", "-c", conf, "--listen", "udp:127.0.0.1:%d" % port], name)
        self.wait_ready(port, p, name)
        return p, port

    def start_baseline(self, name, luns, ports, controllers, filesystems):
        """Starts the baseline agent with those row counts; returns (process, port)."""
        port = free_udp_port()
        p = self.spawn([self.base, "--mib", MIB_XML, "--listen", "udp:127.0.0.1:%d" % port, "--luns", str(luns),
                        "--ports", str(ports), "--controllers", str(controllers), "--filesystems",
                        str(filesystems)], name)
        self.wait_ready(port, p, name)
        return p, port

    def try_walk(self, tool, port, oid, extra=(), keep=None, timing=("-t", "10", "-r", "1")):
        """Runs the client; returns (wall seconds, varbinds, output lines or None, error text or None)."""
        out = os.path.join(self.tmp, "walk.out")
        argv = [tool, "-v2c", "-c", "public", "-On"] + list(timing) + list(extra) + ["127.0.0.1:%d" % port, oid]
        with open(out, "w") as f:
            t0 = time.perf_counter()
            r = subprocess.run(argv, env=self.env, stdout=f, stderr=subprocess.PIPE, text=True,
                               timeout=WALK_TIMEOUT)
            t1 = time.perf_counter()
        failed = r.returncode != 0 or "Timeout" in r.stderr or "Error" in r.stderr
        with open(out) as f:
            lines = [line for line in f if line.startswith(".")]
        return t1 - t0, len(lines), (lines if keep else None), (r.stderr.strip() or "failed") if failed else None

    def walk(self, tool, port, oid, extra=(), keep=None):
        """Runs the client, which must succeed; returns (wall seconds, varbinds, output lines or None)."""
        wall, n, lines, error = self.try_walk(tool, port, oid, extra, keep)
        if error:
            sys.exit("%s on port %d failed: %s" % (tool, port, error))
        return wall, n, lines

    def counts(self, address):
        """The simulator's command counts (zerva-sim-ctl counts), by command name."""
        r = subprocess.run([self.ctl, address, "counts"], capture_output=True, text=True, timeout=30)
        if r.returncode != 0:
            sys.exit("zerva-sim-ctl: " + r.stderr.strip())
        out = {}
        for line in r.stdout.splitlines():
            _, name, n = line.split()
            out[name] = int(n)
        return out


def machine():
    """The machine the figures come from: CPU count and model."""
    model = ""
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    return {"cpus": os.cpu_count(), "cpu": model}


def free_udp_port():
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def vm_hwm_kib(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmHWM:"):
                return int(line.split()[1])
    return 0


def delta(before, after):
    """Commands counted between two counts() calls, without the counts requests."""
    d = {k: after.get(k, 0) - before.get(k, 0) for k in set(before) | set(after)}
    d.pop("SIM_CONTROL", None)  # the counts request itself
    return {k: v for k, v in d.items() if v}


class Cold:
    """Makes every walk of one agent start after its snapshot has expired."""

    def __init__(self):
        self.last = {}

    def wait(self, key):
        if key in self.last:
            rest = self.last[key] + SNAPSHOT_S + 0.2 - time.time()
            if rest > 0:
                time.sleep(rest)

    def done(self, key):
        self.last[key] = time.time()


def med(values):
    return statistics.median(values)


def rows_by_table(lines):
    """Rows (instances of column 1) per table number, from numeric walk lines."""
    n = len(SUBTREE.split("."))
    rows = {}
    for line in lines:
        parts = line.split(" ", 1)[0].lstrip(".").split(".")
        if len(parts) > n + 2 and parts[n + 1] == "1" and parts[n + 2] == "1":
            rows[int(parts[n])] = rows.get(int(parts[n]), 0) + 1
    return rows


def scenario_a(h, runs, cold, results):
    """a. Bulk walks of the subtree on the large array: baseline, ours-sim, ours-embedded.

    Fills results["a"] and results["a_shape"]. Returns what scenario c goes on
    with: (simulator, its address, baseline agent, back-end commands of each
    ours-sim walk).
    """
    print("\n== a/c: bulk walk (-Cr50) of the subtree, large array, %d runs" % runs)
    sim, sim_addr = h.start_sim("sim-large")
    ours, ours_port = h.start_agent("ours-sim", sim_addr)
    emb, emb_port = h.start_agent("ours-embedded", "embedded", ["zervaSimTopology " + LARGE])
    # Row counts of our walk size the baseline's tables the same.
    _, _, lines = h.walk("snmpbulkwalk", ours_port, SUBTREE, ["-Cr50"], keep=True)
    cold.done("ours")
    rows = rows_by_table(lines)
    shape = {"luns": rows.get(4, 0), "ports": rows.get(5, 0), "controllers": rows.get(3, 0),
             "filesystems": rows.get(14, 0)}
    print("   table rows served: %s" % shape)
    base, base_port = h.start_baseline("baseline", shape["luns"], shape["ports"], shape["controllers"],
                                       shape["filesystems"])
    h.walk("snmpbulkwalk", base_port, SUBTREE, ["-Cr50"])  # warm-up
    h.walk("snmpbulkwalk", emb_port, SUBTREE, ["-Cr50"])  # warm-up
    cold.done("emb")
    a = {"baseline": [], "ours-sim": [], "ours-embedded": []}
    cmd_runs = []
    for run in range(runs):
        c0 = cpu_seconds(base.pid)
        w, n, _ = h.walk("snmpbulkwalk", base_port, SUBTREE, ["-Cr50"])
        a["baseline"].append({"wall": w, "varbinds": n, "agent_cpu": cpu_seconds(base.pid) - c0})

        cold.wait("ours")
        before = h.counts(sim_addr)
        c0, s0 = cpu_seconds(ours.pid), cpu_seconds(sim.pid)
        w, n, _ = h.walk("snmpbulkwalk", ours_port, SUBTREE, ["-Cr50"])
        c1, s1 = cpu_seconds(ours.pid), cpu_seconds(sim.pid)
        cold.done("ours")
        cmd_runs.append(delta(before, h.counts(sim_addr)))
        a["ours-sim"].append({"wall": w, "varbinds": n, "agent_cpu": c1 - c0, "backend_cpu": s1 - s0})

        cold.wait("emb")
        c0 = cpu_seconds(emb.pid)
        w, n, _ = h.walk("snmpbulkwalk", emb_port, SUBTREE, ["-Cr50"])
        cold.done("emb")
        a["ours-embedded"].append({"wall": w, "varbinds": n, "agent_cpu": cpu_seconds(emb.pid) - c0})
        print("   run %d: baseline %.2f s, ours (sim) %.2f s, ours (embedded) %.2f s" %
              (run + 1, a["baseline"][-1]["wall"], a["ours-sim"][-1]["wall"], a["ours-embedded"][-1]["wall"]))
    summary_a = {}
    for k, v in a.items():
        summary_a[k] = {f: med([r[f] for r in v]) for f in v[0]}
        summary_a[k]["walls"] = [round(r["wall"], 3) for r in v]
    results["a"] = summary_a
    results["a_shape"] = shape
    h.stop(ours)
    h.stop(emb)
    return sim, sim_addr, base, cmd_runs


def scenario_c(h, results, sim, sim_addr, base, cmd_runs):
    """c. Back-end commands per walk: at the default snapshot time, then within one snapshot.

    The default-time figures are the medians of scenario a's ours-sim walks;
    then one walk with a 600 s snapshot and a second walk inside it. Fills
    results["c_default"] and results["c_one_snapshot"]; stops sim and base.
    """
    names = sorted(set(k for r in cmd_runs for k in r))
    results["c_default"] = {k: med([r.get(k, 0) for r in cmd_runs]) for k in names}
    one, one_port = h.start_agent("ours-one-snapshot", sim_addr, ["zervaSnapshotSeconds 600"])
    before = h.counts(sim_addr)
    w1, n1, _ = h.walk("snmpbulkwalk", one_port, SUBTREE, ["-Cr50"])
    mid = h.counts(sim_addr)
    w2, n2, _ = h.walk("snmpbulkwalk", one_port, SUBTREE, ["-Cr50"])
    after = h.counts(sim_addr)
    results["c_one_snapshot"] = {"first": delta(before, mid), "second": delta(mid, after), "varbinds": n1,
                                 "wall_first": w1, "wall_second": w2}
    h.stop(one)
    h.stop(base)
    h.stop(sim)


def scenario_b(h, runs, cold, results, lun_counts=LUN_COUNTS):
    """b. GETNEXT walks (snmpwalk) of the LUN table at each LUN count, ours and baseline.

    Fills results["b"][luns] with medians per varbind.
    """
    print("\n== b: snmpwalk (GETNEXT) of the LUN table, %d runs" % runs)
    b = {}
    setups = {}
    for luns in lun_counts:
        s, addr = h.start_sim("sim-%d" % luns, luns)
        ag, port = h.start_agent("ours-%d" % luns, addr)
        bp, bport = h.start_baseline("baseline-%d" % luns, luns, 1, 1, 1)
        setups[luns] = (s, ag, port, bp, bport)
        h.walk("snmpwalk", port, LUN_TABLE)  # warm-up
        cold.done("ours-%d" % luns)
        h.walk("snmpwalk", bport, LUN_TABLE)
        b[luns] = {"ours": [], "baseline": []}
    for run in range(runs):
        for luns in lun_counts:
            s, ag, port, bp, bport = setups[luns]
            cold.wait("ours-%d" % luns)
            c0 = cpu_seconds(ag.pid)
            w, n, _ = h.walk("snmpwalk", port, LUN_TABLE)
            cold.done("ours-%d" % luns)
            b[luns]["ours"].append({"wall": w, "varbinds": n, "agent_cpu": cpu_seconds(ag.pid) - c0})
            c0 = cpu_seconds(bp.pid)
            w, n, _ = h.walk("snmpwalk", bport, LUN_TABLE)
            b[luns]["baseline"].append({"wall": w, "varbinds": n, "agent_cpu": cpu_seconds(bp.pid) - c0})
        small, large = lun_counts[0], lun_counts[-1]
        print("   run %d: ours %s %.2f s, %s %.2f s; baseline %s %.2f s, %s %.2f s" %
              (run + 1, "{:,}".format(small), b[small]["ours"][-1]["wall"], "{:,}".format(large),
               b[large]["ours"][-1]["wall"], "{:,}".format(small), b[small]["baseline"][-1]["wall"],
               "{:,}".format(large), b[large]["baseline"][-1]["wall"]))
    for luns in lun_counts:
        s, ag, port, bp, bport = setups[luns]
        h.stop(ag)
        h.stop(bp)
        h.stop(s)
    results["b"] = {}
    for luns in lun_counts:
        results["b"][luns] = {}
        for who in ("ours", "baseline"):
            v = b[luns][who]
            results["b"][luns][who] = {
                "wall": med([r["wall"] for r in v]), "varbinds": v[0]["varbinds"],
                "us_per_varbind": med([r["wall"] / r["varbinds"] * 1e6 for r in v]),
                "agent_cpu_us_per_varbind": med([r["agent_cpu"] / r["varbinds"] * 1e6 for r in v])}


def scenario_d(h, results, luns=RSS_LUNS):
    """d. Peak RSS (VmHWM) of ours bulk-walking the LUN table, default and one 600 s snapshot, and of the baseline.

    Fills results["d"].
    """
    print("\n== d: peak RSS walking %s LUNs" % "{:,}".format(luns))
    s, addr = h.start_sim("sim-%d" % luns, luns)
    ag, port = h.start_agent("ours-%d" % luns, addr)
    hwm_start = vm_hwm_kib(ag.pid)
    w, n, _ = h.walk("snmpbulkwalk", port, LUN_TABLE, ["-Cr50"])
    hwm_bulk = vm_hwm_kib(ag.pid)
    h.stop(ag)
    ag, port = h.start_agent("ours-%d-one-snapshot" % luns, addr, ["zervaSnapshotSeconds 600"])
    h.walk("snmpbulkwalk", port, LUN_TABLE, ["-Cr50"])
    hwm_one = vm_hwm_kib(ag.pid)
    h.stop(ag)
    h.stop(s)
    bp, bport = h.start_baseline("baseline-%d" % luns, luns, 1, 1, 1)
    h.walk("snmpbulkwalk", bport, LUN_TABLE, ["-Cr50"])
    hwm_base = vm_hwm_kib(bp.pid)
    h.stop(bp)
    results["d"] = {"varbinds": n, "wall": w, "hwm_start_kib": hwm_start, "hwm_walk_kib": hwm_bulk,
                    "hwm_one_snapshot_kib": hwm_one, "baseline_hwm_kib": hwm_base}


def scenario_e(build, results):
    """e. The codec benchmark (bench/run_codec_bench.sh); fills results["e"] with its table."""
    print("\n== e: codec benchmark")
    r = subprocess.run(["bench/run_codec_bench.sh"], env=dict(os.environ, BUILD_DIR=build), capture_output=True,
                       text=True, timeout=900)
    codec = r.stdout
    print(codec.rstrip())
    results["e"] = codec


def report(results, t_start, rss_luns=RSS_LUNS):
    """Prints the medians of every scenario and whether each goal is met (d walked rss_luns LUNs)."""
    runs = results["runs"]
    print("\n== results (medians of %d runs; wall = client's elapsed time)" % runs)
    A = results["a"]
    bw = A["baseline"]["wall"]
    print("a. bulk walk -Cr50 of the subtree, large array:")
    for k in ("baseline", "ours-sim", "ours-embedded"):
        v = A[k]
        extra = (", back-end CPU %.2f s" % v["backend_cpu"]) if "backend_cpu" in v else ""
        print("   %-14s %7.2f s  x%.2f  %d varbinds, agent CPU %.2f s%s  (runs: %s)" %
              (k, v["wall"], v["wall"] / bw, v["varbinds"], v["agent_cpu"], extra, v["walls"]))
    ratio = A["ours-sim"]["wall"] / bw
    print("   goal ours <= 1.5 x baseline: x%.2f %s" % (ratio, "met" if ratio <= 1.5 else "MISSED"))
    B = results["b"]
    lun_counts = sorted(B)
    small, large = B[lun_counts[0]]["ours"]["us_per_varbind"], B[lun_counts[-1]]["ours"]["us_per_varbind"]
    print("b. GETNEXT walk of the LUN table (us per varbind, wall; agent CPU):")
    for luns in lun_counts:
        for who in ("ours", "baseline"):
            v = B[luns][who]
            print("   %-8s %6d LUNs: %7.2f s, %d varbinds, %.1f us/varbind, agent CPU %.1f us/varbind" %
                  (who, luns, v["wall"], v["varbinds"], v["us_per_varbind"], v["agent_cpu_us_per_varbind"]))
    print("   goal %s <= 1.2 x %s: x%.2f %s" % ("{:,}".format(lun_counts[-1]), "{:,}".format(lun_counts[0]),
                                              large / small, "met" if large / small <= 1.2 else "MISSED"))
    C1 = results["c_one_snapshot"]
    luns = results["a_shape"]["luns"]
    bound = math.ceil(luns / BATCH) + 2
    lun_cmds = C1["first"].get("LUN_BATCH_STATS", 0)
    print("c. back-end commands per walk (%d varbinds):" % C1["varbinds"])
    print("   default snapshot (%.0f s), median per walk: %s" %
          (SNAPSHOT_S, json.dumps(results["c_default"], sort_keys=True)))
    print("   one snapshot, first walk:  %s" % json.dumps(C1["first"], sort_keys=True))
    print("   one snapshot, second walk: %s" % json.dumps(C1["second"], sort_keys=True))
    print("   goal LUN statistics commands <= ceil(%d/%d)+2 = %d per snapshot: %d %s" %
          (luns, BATCH, bound, lun_cmds, "met" if lun_cmds <= bound else "MISSED"))
    total_first = sum(C1["first"].values())
    print("   commands per varbind: %.4f (first walk), %d commands in the second walk" %
          (total_first / max(1, C1["varbinds"]), sum(C1["second"].values())))
    D = results["d"]
    print("d. VmHWM walking %s LUNs (%d varbinds, %.1f s): at start %.1f MiB, after the walk %.1f MiB "
          "(one snapshot: %.1f MiB); baseline %.1f MiB; goal <= 64 MiB: %s" %
          ("{:,}".format(rss_luns), D["varbinds"], D["wall"], D["hwm_start_kib"] / 1024, D["hwm_walk_kib"] / 1024,
           D["hwm_one_snapshot_kib"] / 1024, D["baseline_hwm_kib"] / 1024,
           "met" if D["hwm_walk_kib"] <= 64 * 1024 else "MISSED"))
    print("total time %.0f s; load average after: %s" % (time.time() - t_start, open("/proc/loadavg").read().split()[0]))


def parse_args(argv):
    parser = argparse.ArgumentParser(
        prog="bench/run_agent_bench.sh",
        description="zerva-snmp-agent against the baseline agent on simulated arrays (scenarios a to e; "
        "see the top of bench/agent_bench.py). Uses the build in $BUILD_DIR (default build-bench).")
    parser.add_argument("--runs", type=int, default=5, metavar="N",
                        help="runs per figure, the median is reported (default 5; at least 3)")
    parser.add_argument("--skip-codec", action="store_true", help="leave out e, the codec benchmark")
    parser.add_argument("--json", metavar="FILE", help="also write every figure to FILE as JSON")
    args = parser.parse_args(argv)
    args.runs = max(3, args.runs)
    return args


def main(argv=None):
    args = parse_args(sys.argv[1:] if argv is None else argv)
    os.chdir(ROOT)
    build = os.environ.get("BUILD_DIR", "build-bench")
    h = Harness(build)

    def on_signal(signum, _):
        h.cleanup()
        sys.exit(128 + signum)

    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGINT, on_signal)

    results = {"runs": args.runs}
    results["machine"] = machine()
    print("== %d CPU(s): %s; load average before: %s" %
          (results["machine"]["cpus"], results["machine"]["cpu"], open("/proc/loadavg").read().split()[0]))
    cold = Cold()
    t_start = time.time()

    try:
        sim, sim_addr, base, cmd_runs = scenario_a(h, args.runs, cold, results)
        scenario_c(h, results, sim, sim_addr, base, cmd_runs)
        scenario_b(h, args.runs, cold, results)
        scenario_d(h, results)
    finally:
        h.cleanup()

    if not args.skip_codec:
        scenario_e(build, results)

    report(results, t_start)
    if args.json:
        with open(args.json, "w") as f:
            json.dump(results, f, indent=1, sort_keys=True, default=str)
    return 0


if __name__ == "__main__":
    sys.exit(main())
