#!/usr/bin/env bash
# The agent benchmark: zerva-snmp-agent against the baseline agent (the same
# table shapes served from memory by a bare Net-SNMP agent), in the same run,
# alternating, median of --runs runs (default 5; at least 3).
#
#   bench/run_agent_bench.sh [--runs N] [--skip-codec] [--json FILE]
#
#   a. snmpbulkwalk -v2c -Cr50 of the whole subtree 1.3.6.1.4.1.32473.4.1.21 on
#      sim/topologies/large.conf: baseline, ours with a separate
#      zerva-array-sim (zervaBackend unix:PATH), ours with the embedded one;
#   b. snmpwalk (GETNEXT) of the LUN table at 1,024 and 16,384 LUNs: time per
#      varbind;
#   c. back-end commands per walk, by command (zerva-sim-ctl counts before
#      and after), at the default snapshot time and within one snapshot;
#   d. peak RSS (VmHWM) of the agent while walking 65,536 LUNs;
#   e. bench/run_codec_bench.sh.
#
# Builds what it needs in build-bench/ (or $BUILD_DIR, RelWithDebInfo, -j2).
# Everything listens on 127.0.0.1 or Unix sockets in a temporary directory;
# every child is stopped on exit. Not part of ctest: timings need a quiet
# machine, and take a few minutes.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR="${BUILD_DIR:-build-bench}"
if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
  GENERATOR="Unix Makefiles"
  if command -v ninja >/dev/null 2>&1; then GENERATOR="Ninja"; fi
  cmake -S . -B "$BUILD_DIR" -G "$GENERATOR" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZERVA_BUILD_BENCH=ON >/dev/null
fi
cmake --build "$BUILD_DIR" -j 2 --target zerva-snmp-agent zerva-array-sim zerva-sim-ctl baseline_agent \
  tlv_codec_bench snmp_zerva_performance

PY_PID=""
cleanup() {
  if [ -n "$PY_PID" ] && kill -0 "$PY_PID" 2>/dev/null; then
    kill -TERM "$PY_PID" 2>/dev/null || true
    wait "$PY_PID" 2>/dev/null || true
  fi
}
trap cleanup EXIT
trap 'cleanup; exit 130' INT TERM

python3 - "$BUILD_DIR" "$@" <<'EOF' &
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

BUILD = sys.argv[1]
args = sys.argv[2:]
RUNS = 5
SKIP_CODEC = False
JSON_OUT = None
i = 0
while i < len(args):
    if args[i] == "--runs" and i + 1 < len(args):
        RUNS = max(3, int(args[i + 1])); i += 2
    elif args[i] == "--skip-codec":
        SKIP_CODEC = True; i += 1
    elif args[i] == "--json" and i + 1 < len(args):
        JSON_OUT = args[i + 1]; i += 2
    else:
        sys.exit("usage: bench/run_agent_bench.sh [--runs N] [--skip-codec] [--json FILE]")

ROOT = os.getcwd()
AGENT = os.path.join(BUILD, "host/agent/zerva-snmp-agent")
SIM = os.path.join(BUILD, "sim/zerva-array-sim")
CTL = os.path.join(BUILD, "sim/zerva-sim-ctl")
BASE = os.path.join(BUILD, "bench/baseline_agent")
MIB_XML = os.path.join(ROOT, "mibs/VEM-PERFORMANCE.xml")
LARGE = os.path.join(ROOT, "sim/topologies/large.conf")
SUBTREE = "1.3.6.1.4.1.32473.4.1.21"
LUN_TABLE = SUBTREE + ".4"
SWITCH = SUBTREE + ".1.0"
SNAPSHOT_S = 3.0        # the agent's default zervaSnapshotSeconds
BATCH = 160             # the agent's default zervaBatchRows and the LUN table's batch
WALK_TIMEOUT = 300      # seconds, per client run

TMP = tempfile.mkdtemp(prefix="zerva-agent-bench.")
ENV = dict(os.environ, MIBS="", SNMP_PERSISTENT_DIR=TMP, SNMPCONFPATH=TMP)
children = []


def cleanup(*_):
    for p in children:
        if p.poll() is None:
            p.terminate()
    deadline = time.time() + 5
    for p in children:
        try:
            p.wait(timeout=max(0.1, deadline - time.time()))
        except subprocess.TimeoutExpired:
            p.kill()
            p.wait()
    children.clear()
    shutil.rmtree(TMP, ignore_errors=True)


def on_signal(signum, _):
    cleanup()
    sys.exit(128 + signum)


signal.signal(signal.SIGTERM, on_signal)
signal.signal(signal.SIGINT, on_signal)


def free_udp_port():
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def spawn(argv, name):
    log = open(os.path.join(TMP, name + ".log"), "w")
    p = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT, env=ENV)
    children.append(p)
    return p


def stop(p):
    if p.poll() is None:
        p.terminate()
        try:
            p.wait(timeout=5)
        except subprocess.TimeoutExpired:
            p.kill()
            p.wait()
    children.remove(p)


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


def start_sim(name, luns=None):
    sock = os.path.join(TMP, name + ".sock")
    argv = [SIM, "--listen", "unix:" + sock, "--topology", LARGE]
    if luns is not None:
        argv += ["--luns", str(luns)]
    p = spawn(argv, name)
    log = os.path.join(TMP, name + ".log")
    for _ in range(200):
        if "listening on" in open(log).read():
            return p, "unix:" + sock
        if p.poll() is not None:
            break
        time.sleep(0.05)
    sys.exit("zerva-array-sim did not start: " + open(log).read())


def wait_ready(port, proc, name):
    for _ in range(100):
        r = subprocess.run(["snmpget", "-v2c", "-c", "public", "-On", "-t", "0.3", "-r", "0",
                            "127.0.0.1:%d" % port, SWITCH], env=ENV, capture_output=True, text=True)
        if "Gauge32" in r.stdout:
            return
        if proc.poll() is not None:
            break
        time.sleep(0.1)
    sys.exit("%s did not answer: %s" % (name, open(os.path.join(TMP, name + ".log")).read()[-2000:]))


def start_agent(name, backend, extra=()):
    port = free_udp_port()
    conf = os.path.join(TMP, name + ".conf")
    with open(conf, "w") as f:
        f.write("rocommunity public 127.0.0.1\n")
        f.write("zervaBackend %s\n" % backend)
        f.write("zervaLogFile %s\n" % os.path.join(TMP, name + ".agentlog"))
        for line in extra:
            f.write(line + "\n")
    p = spawn([AGENT, "-f", "-c", conf, "--listen", "udp:127.0.0.1:%d" % port], name)
    wait_ready(port, p, name)
    return p, port


def start_baseline(name, luns, ports, controllers, filesystems):
    port = free_udp_port()
    p = spawn([BASE, "--mib", MIB_XML, "--listen", "udp:127.0.0.1:%d" % port, "--luns", str(luns),
               "--ports", str(ports), "--controllers", str(controllers), "--filesystems", str(filesystems)], name)
    wait_ready(port, p, name)
    return p, port


def walk(tool, port, oid, extra=(), keep=None):
    """Runs the client; returns (wall seconds, varbinds, output lines or None)."""
    out = os.path.join(TMP, "walk.out")
    argv = [tool, "-v2c", "-c", "public", "-On", "-t", "10", "-r", "1"] + list(extra) + ["127.0.0.1:%d" % port, oid]
    with open(out, "w") as f:
        t0 = time.perf_counter()
        r = subprocess.run(argv, env=ENV, stdout=f, stderr=subprocess.PIPE, text=True, timeout=WALK_TIMEOUT)
        t1 = time.perf_counter()
    if r.returncode != 0 or "Timeout" in r.stderr:
        sys.exit("%s on port %d failed: %s" % (tool, port, r.stderr.strip()))
    with open(out) as f:
        lines = [l for l in f if l.startswith(".")]
    return t1 - t0, len(lines), (lines if keep else None)


def counts(address):
    r = subprocess.run([CTL, address, "counts"], capture_output=True, text=True, timeout=30)
    if r.returncode != 0:
        sys.exit("zerva-sim-ctl: " + r.stderr.strip())
    out = {}
    for line in r.stdout.splitlines():
        _, name, n = line.split()
        out[name] = int(n)
    return out


def delta(before, after):
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


results = {"runs": RUNS}
cpu_model = ""
with open("/proc/cpuinfo") as f:
    for line in f:
        if line.startswith("model name"):
            cpu_model = line.split(":", 1)[1].strip()
            break
print("== %d CPU(s): %s; load average before: %s" % (os.cpu_count(), cpu_model, open("/proc/loadavg").read().split()[0]))
results["machine"] = {"cpus": os.cpu_count(), "cpu": cpu_model}
cold = Cold()
t_start = time.time()

try:
    # ---------------------------------------------------------------- a, c
    print("\n== a/c: bulk walk (-Cr50) of the subtree, large array, %d runs" % RUNS)
    sim, sim_addr = start_sim("sim-large")
    ours, ours_port = start_agent("ours-sim", sim_addr)
    emb, emb_port = start_agent("ours-embedded", "embedded", ["zervaSimTopology " + LARGE])
    # Row counts of our walk size the baseline's tables the same.
    _, _, lines = walk("snmpbulkwalk", ours_port, SUBTREE, ["-Cr50"], keep=True)
    cold.done("ours")
    rows = rows_by_table(lines)
    shape = {"luns": rows.get(4, 0), "ports": rows.get(5, 0), "controllers": rows.get(3, 0),
             "filesystems": rows.get(14, 0)}
    print("   table rows served: %s" % shape)
    base, base_port = start_baseline("baseline", shape["luns"], shape["ports"], shape["controllers"],
                                     shape["filesystems"])
    walk("snmpbulkwalk", base_port, SUBTREE, ["-Cr50"])        # warm-up
    walk("snmpbulkwalk", emb_port, SUBTREE, ["-Cr50"])         # warm-up
    cold.done("emb")
    a = {"baseline": [], "ours-sim": [], "ours-embedded": []}
    cmd_runs = []
    for run in range(RUNS):
        c0 = cpu_seconds(base.pid)
        w, n, _ = walk("snmpbulkwalk", base_port, SUBTREE, ["-Cr50"])
        a["baseline"].append({"wall": w, "varbinds": n, "agent_cpu": cpu_seconds(base.pid) - c0})

        cold.wait("ours")
        before = counts(sim_addr)
        c0, s0 = cpu_seconds(ours.pid), cpu_seconds(sim.pid)
        w, n, _ = walk("snmpbulkwalk", ours_port, SUBTREE, ["-Cr50"])
        c1, s1 = cpu_seconds(ours.pid), cpu_seconds(sim.pid)
        cold.done("ours")
        cmd_runs.append(delta(before, counts(sim_addr)))
        a["ours-sim"].append({"wall": w, "varbinds": n, "agent_cpu": c1 - c0, "backend_cpu": s1 - s0})

        cold.wait("emb")
        c0 = cpu_seconds(emb.pid)
        w, n, _ = walk("snmpbulkwalk", emb_port, SUBTREE, ["-Cr50"])
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

    # c: commands per walk at the default snapshot time (median per command),
    # then one walk within one snapshot and a second walk inside it.
    names = sorted(set(k for r in cmd_runs for k in r))
    results["c_default"] = {k: med([r.get(k, 0) for r in cmd_runs]) for k in names}
    stop(ours)
    stop(emb)
    one, one_port = start_agent("ours-one-snapshot", sim_addr, ["zervaSnapshotSeconds 600"])
    before = counts(sim_addr)
    w1, n1, _ = walk("snmpbulkwalk", one_port, SUBTREE, ["-Cr50"])
    mid = counts(sim_addr)
    w2, n2, _ = walk("snmpbulkwalk", one_port, SUBTREE, ["-Cr50"])
    after = counts(sim_addr)
    results["c_one_snapshot"] = {"first": delta(before, mid), "second": delta(mid, after), "varbinds": n1,
                                 "wall_first": w1, "wall_second": w2}
    stop(one)
    stop(base)
    stop(sim)

    # ---------------------------------------------------------------- b
    print("\n== b: snmpwalk (GETNEXT) of the LUN table, %d runs" % RUNS)
    b = {}
    setups = {}
    for luns in (1024, 16384):
        s, addr = start_sim("sim-%d" % luns, luns)
        ag, port = start_agent("ours-%d" % luns, addr)
        bp, bport = start_baseline("baseline-%d" % luns, luns, 1, 1, 1)
        setups[luns] = (s, ag, port, bp, bport)
        walk("snmpwalk", port, LUN_TABLE)   # warm-up
        cold.done("ours-%d" % luns)
        walk("snmpwalk", bport, LUN_TABLE)
        b[luns] = {"ours": [], "baseline": []}
    for run in range(RUNS):
        for luns in (1024, 16384):
            s, ag, port, bp, bport = setups[luns]
            cold.wait("ours-%d" % luns)
            c0 = cpu_seconds(ag.pid)
            w, n, _ = walk("snmpwalk", port, LUN_TABLE)
            cold.done("ours-%d" % luns)
            b[luns]["ours"].append({"wall": w, "varbinds": n, "agent_cpu": cpu_seconds(ag.pid) - c0})
            c0 = cpu_seconds(bp.pid)
            w, n, _ = walk("snmpwalk", bport, LUN_TABLE)
            b[luns]["baseline"].append({"wall": w, "varbinds": n, "agent_cpu": cpu_seconds(bp.pid) - c0})
        print("   run %d: ours 1,024 %.2f s, 16,384 %.2f s; baseline 1,024 %.2f s, 16,384 %.2f s" %
              (run + 1, b[1024]["ours"][-1]["wall"], b[16384]["ours"][-1]["wall"],
               b[1024]["baseline"][-1]["wall"], b[16384]["baseline"][-1]["wall"]))
    for luns in (1024, 16384):
        s, ag, port, bp, bport = setups[luns]
        stop(ag)
        stop(bp)
        stop(s)
    results["b"] = {}
    for luns in (1024, 16384):
        results["b"][luns] = {}
        for who in ("ours", "baseline"):
            v = b[luns][who]
            results["b"][luns][who] = {
                "wall": med([r["wall"] for r in v]), "varbinds": v[0]["varbinds"],
                "us_per_varbind": med([r["wall"] / r["varbinds"] * 1e6 for r in v]),
                "agent_cpu_us_per_varbind": med([r["agent_cpu"] / r["varbinds"] * 1e6 for r in v])}

    # ---------------------------------------------------------------- d
    print("\n== d: peak RSS walking 65,536 LUNs")
    s, addr = start_sim("sim-65536", 65536)
    ag, port = start_agent("ours-65536", addr)
    hwm_start = vm_hwm_kib(ag.pid)
    c0 = cpu_seconds(ag.pid)
    w, n, _ = walk("snmpbulkwalk", port, LUN_TABLE, ["-Cr50"])
    hwm_bulk = vm_hwm_kib(ag.pid)
    stop(ag)
    ag, port = start_agent("ours-65536-one-snapshot", addr, ["zervaSnapshotSeconds 600"])
    walk("snmpbulkwalk", port, LUN_TABLE, ["-Cr50"])
    hwm_one = vm_hwm_kib(ag.pid)
    stop(ag)
    stop(s)
    bp, bport = start_baseline("baseline-65536", 65536, 1, 1, 1)
    walk("snmpbulkwalk", bport, LUN_TABLE, ["-Cr50"])
    hwm_base = vm_hwm_kib(bp.pid)
    stop(bp)
    results["d"] = {"varbinds": n, "wall": w, "hwm_start_kib": hwm_start, "hwm_walk_kib": hwm_bulk,
                    "hwm_one_snapshot_kib": hwm_one, "baseline_hwm_kib": hwm_base}
finally:
    cleanup()

# ---------------------------------------------------------------- e
codec = ""
if not SKIP_CODEC:
    print("\n== e: codec benchmark")
    r = subprocess.run(["bench/run_codec_bench.sh"], env=dict(os.environ, BUILD_DIR=BUILD), capture_output=True,
                       text=True, timeout=900)
    codec = r.stdout
    print(codec.rstrip())
    results["e"] = codec

# ---------------------------------------------------------------- report
print("\n== results (medians of %d runs; wall = client's elapsed time)" % RUNS)
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
small, large = B[1024]["ours"]["us_per_varbind"], B[16384]["ours"]["us_per_varbind"]
print("b. GETNEXT walk of the LUN table (us per varbind, wall; agent CPU):")
for luns in (1024, 16384):
    for who in ("ours", "baseline"):
        v = B[luns][who]
        print("   %-8s %6d LUNs: %7.2f s, %d varbinds, %.1f us/varbind, agent CPU %.1f us/varbind" %
              (who, luns, v["wall"], v["varbinds"], v["us_per_varbind"], v["agent_cpu_us_per_varbind"]))
print("   goal 16,384 <= 1.2 x 1,024: x%.2f %s" % (large / small, "met" if large / small <= 1.2 else "MISSED"))
C1 = results["c_one_snapshot"]
luns = results["a_shape"]["luns"]
bound = math.ceil(luns / BATCH) + 2
lun_cmds = C1["first"].get("LUN_BATCH_STATS", 0)
print("c. back-end commands per walk (%d varbinds):" % C1["varbinds"])
print("   default snapshot (%.0f s), median per walk: %s" % (SNAPSHOT_S, json.dumps(results["c_default"], sort_keys=True)))
print("   one snapshot, first walk:  %s" % json.dumps(C1["first"], sort_keys=True))
print("   one snapshot, second walk: %s" % json.dumps(C1["second"], sort_keys=True))
print("   goal LUN statistics commands <= ceil(%d/%d)+2 = %d per snapshot: %d %s" %
      (luns, BATCH, bound, lun_cmds, "met" if lun_cmds <= bound else "MISSED"))
total_first = sum(C1["first"].values())
print("   commands per varbind: %.4f (first walk), %d commands in the second walk" %
      (total_first / max(1, C1["varbinds"]), sum(C1["second"].values())))
D = results["d"]
print("d. VmHWM walking 65,536 LUNs (%d varbinds, %.1f s): at start %.1f MiB, after the walk %.1f MiB "
      "(one snapshot: %.1f MiB); baseline %.1f MiB; goal <= 64 MiB: %s" %
      (D["varbinds"], D["wall"], D["hwm_start_kib"] / 1024, D["hwm_walk_kib"] / 1024, D["hwm_one_snapshot_kib"] / 1024,
       D["baseline_hwm_kib"] / 1024, "met" if D["hwm_walk_kib"] <= 64 * 1024 else "MISSED"))
print("total time %.0f s; load average after: %s" % (time.time() - t_start, open("/proc/loadavg").read().split()[0]))
if JSON_OUT:
    with open(JSON_OUT, "w") as f:
        json.dump(results, f, indent=1, sort_keys=True, default=str)
EOF
PY_PID=$!
wait "$PY_PID"
