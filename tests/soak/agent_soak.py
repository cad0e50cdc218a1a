#!/usr/bin/env python3
"""Soak run of zerva-snmp-agent against a separate zerva-array-sim.

The agent (zervaBackend unix:PATH) and the simulator (--listen unix:PATH)
run as separate processes on loopback, in a temporary directory, for
--duration seconds. Meanwhile:

  load     walkers, each in its own thread, in loops with short pauses:
           snmpwalk (GETNEXT, v2c/v1/v3) of the whole subtree; snmpbulkwalk
           (GETBULK, v2c/v3, max-repetitions 5 to 100) of the whole subtree;
           snmpwalk/snmpbulkwalk of single tables, entries, columns and the
           switch; snmpget of random instances, existing and missing
           (v1, v2c, v3); snmptable of single tables; and a writer that
           switches collection off (snmpset vemPerfSwitch.0 = 0, v2c with
           the write community or v3) and on again every few seconds.
  faults   every --fault-interval seconds one fault, in turn: simulator
           restart (SIGKILL, started again on the same socket), delay
           (longer than the agent's back-end timeout), garbage, truncate,
           close, refuse; each held --fault-hold seconds (some limited to a
           few requests), then cleared.
  samples  every --sample-interval seconds VmRSS, open descriptors
           (/proc/PID/fd) and threads (/proc/PID/status) of both processes,
           into the CSV. A sample that falls due while a fault is active is
           taken once the fault has been cleared for --settle seconds, and
           its descriptor and thread counts are the smallest of three
           readings 0.2 s apart, so that a connection a fault left in flight
           or one being replaced is not counted as growth (a leaked
           descriptor or thread is there in every reading).

The run fails, saying why, when

  - an answer is not correct. Correct is: every instance of the expected
    set, and nothing else, with the MIB's type (and index columns equal to
    their row's index); or fewer instances (down to empty tables, or
    noSuchInstance/noSuchName for an existing instance) while collection
    is switched off, i.e. while a request overlaps the time from sending a
    SET to 0 to the answer of the SET to 1 that follows; or an SNMP error
    (genError, resourceUnavailable; for SET also commitFailed,
    undoFailed). Instances before an error must be complete, too. The
    expected set comes from the simulator's topology (its controllers,
    ports, LUNs, file systems and features) and is confirmed at start by a
    walk in a quiet period. An empty table (no instances, noError) while
    collection is on is a failure; so is a client timeout (no answer within
    --client-timeout seconds and --client-retries retries);
  - something grows after the warm-up (the first third of the run, at least
    30 s): a sample's descriptors or threads above their warm-up maximum,
    or the RSS of the last sample above the warm-up maximum plus
    max(2 MiB, 5 %) (--rss-tolerance-mib, --rss-tolerance-pct). With
    --sanitizer-build the RSS criterion is reported but not enforced
    (AddressSanitizer's quarantine grows by design; its leak check runs at
    the agent's exit instead);
  - the agent or the simulator exits (other than the deliberate restarts),
    no walk in the quiet period after the load (tried for 10 s) is whole,
    or either process does not exit 0 on SIGTERM at the end.

At the end a summary: duration, client runs by kind and outcome, faults
injected, start/end/max of RSS, descriptors and threads of both processes,
the CSV path; failed client runs grouped by reason and by the fault active
(or last cleared) while they ran, all of them in CSV.failures.txt. Exit
status 0 passed, 1 failed, 2 bad usage or set-up. Every child is stopped on
every exit path (SIGTERM, SIGINT, SIGHUP; with setpriv installed, the agent
and the simulator also die with this script).

  tests/soak/agent_soak.py --build-dir build --duration 120
  tests/soak/agent_soak.py --build-dir build --duration 3600 --csv soak.csv
"""

import argparse
import bisect
import csv
import os
import random
import re
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import xml.etree.ElementTree as ET

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SUBTREE = (1, 3, 6, 1, 4, 1, 32473, 4, 1, 21)
SWITCH = SUBTREE + (1, 0)

V3_USER = "soaker"
V3_AUTH = "soak-auth-passphrase"
V3_PRIV = "soak-priv-passphrase"

OUTCOMES = ("ok", "empty-while-off", "snmp-error", "failure")
# SNMP error statuses an answer may carry while the back end fails.
READ_ERRORS = frozenset(["genError", "resourceUnavailable"])
SET_ERRORS = READ_ERRORS | frozenset(["commitFailed", "undoFailed"])

NO_SUCH_OBJECT = "No Such Object available on this agent at this OID"
NO_SUCH_INSTANCE = "No Such Instance currently exists at this OID"
END_OF_VIEW = "No more variables left in this MIB View (It is past the end of the MIB tree)"

# What the Net-SNMP tools print (with -On) for each MIB syntax.
SYNTAX_TYPES = {
    "Integer32": ("INTEGER",),
    "Unsigned32": ("Gauge32",),
    "Gauge32": ("Gauge32",),
    "Counter32": ("Counter32",),
    "Counter64": ("Counter64",),
    "TimeTicks": ("Timeticks",),
    "DisplayString": ("STRING", "Hex-STRING"),
    "OctetString": ("STRING", "Hex-STRING"),
}
INT_RANGES = {
    "INTEGER": (-(2**31), 2**31 - 1),
    "Gauge32": (0, 2**32 - 1),
    "Counter32": (0, 2**32 - 1),
    "Counter64": (0, 2**64 - 1),
}


def oid_text(oid):
    return "." + ".".join(str(x) for x in oid)


def parse_oid(text):
    return tuple(int(x) for x in text.strip(".").split("."))


def subtree_end(root):
    """The first OID after every OID under root."""
    return root[:-1] + (root[-1] + 1,)


# --------------------------------------------------------------------------
# What the agent must serve: the MIB description and the simulator's topology


class Table:
    def __init__(self, elem):
        self.name = elem.get("name")
        self.entry = elem.get("entry")
        self.prefix = parse_oid(elem.get("prefix"))
        self.number = self.prefix[-1]
        self.index_column = int(elem.get("index"))
        self.string_index = elem.get("index-encoding") == "String"
        self.columns = {}
        for col in elem.findall("column"):
            self.columns[int(col.get("number"))] = (col.get("name"), col.get("syntax"))


def load_mib(path):
    """(scalars {oid: (name, syntax)}, [Table]) from mibs/VEM-PERFORMANCE.xml."""
    root = ET.parse(path).getroot()
    scalars, tables = {}, []
    for elem in root:
        if elem.tag == "scalar":
            scalars[parse_oid(elem.get("prefix")) + (0,)] = (elem.get("name"), elem.get("syntax"))
        elif elem.tag == "table":
            tables.append(Table(elem))
    return scalars, tables


class Topology:
    """The parts of a zerva-array-sim topology file the tables show."""

    def __init__(self):
        self.controllers = []  # IDs such as "0A"
        self.ports = []  # (type, id, name, status, bonded)
        self.luns = []
        self.filesystems = []
        self.features = set()
        self.switch_on = True


def controller_name(node):
    return "%d%s" % (node // 4, "ABCD"[node % 4])


def node_number(ctrl_id):
    return int(ctrl_id[:-1]) * 4 + "ABCD".index(ctrl_id[-1])


def parse_id_list(words):
    ids = []
    for w in words:
        for part in w.split(","):
            if not part:
                continue
            if "-" in part:
                a, b = part.split("-", 1)
                ids.extend(range(int(a), int(b) + 1))
            else:
                ids.append(int(part))
    return sorted(set(ids))


def parse_topology(path, luns=None, filesystems=None):
    """Reads a topology file (docs/simulator.md) with the simulator's --luns/--filesystems overrides."""
    t = Topology()
    with open(path) as f:
        for lineno, raw in enumerate(f, 1):
            words = raw.split("#", 1)[0].split()
            if not words:
                continue
            key, args = words[0], words[1:]
            try:
                if key == "controllers":
                    if len(args) == 1 and args[0].isdigit():
                        t.controllers = [controller_name(n) for n in range(int(args[0]))]
                    else:
                        t.controllers = list(args)
                elif key == "port":
                    bond = any(a.startswith("bond=") for a in args[4:])
                    t.ports.append((int(args[0]), int(args[1]), args[2], int(args[3]), bond))
                elif key == "ports":
                    ptype, count, prefix = int(args[0]), int(args[1]), args[2]
                    statuses = [int(s) for s in args[3].split(",")]
                    bonded = 0
                    for a in args[4:]:
                        if a.startswith("bonded="):
                            bonded = int(a.split("=", 1)[1])
                    first = max([p[1] for p in t.ports] + [0]) + 1
                    for i in range(count):
                        member = ptype == 213 and i >= count - bonded
                        t.ports.append((ptype, first + i, "%s%d" % (prefix, i), statuses[i % len(statuses)], member))
                elif key == "luns":
                    t.luns = list(range(int(args[0])))
                elif key == "lun_ids":
                    t.luns = parse_id_list(args)
                elif key == "filesystems":
                    t.filesystems = list(range(1, int(args[0]) + 1))
                elif key == "filesystem_ids":
                    t.filesystems = parse_id_list(args)
                elif key == "features":
                    t.features = set() if args == ["none"] else set(parse_id_list(args))
                elif key == "switch":
                    t.switch_on = args[0] == "on"
            except (IndexError, ValueError) as e:
                raise ValueError("%s: line %d: cannot read '%s': %s" % (path, lineno, raw.strip(), e))
    if luns is not None:
        t.luns = list(range(luns))
    if filesystems is not None:
        t.filesystems = list(range(1, filesystems + 1))
    return t


def string_index(text):
    b = text.encode()
    return (len(b),) + tuple(b)


# Port statuses the port table reports (link up, degraded, unknown).
REPORTED_PORT_STATUSES = (5, 6, 0)


def expected_rows(table, topo):
    """{row index suffix: index column value} of one table on this topology."""
    n = table.number
    ctrl_text = {string_index(c): c for c in topo.controllers}
    if n in (3, 7):  # node, cache: one row per controller, by node number
        return {(node_number(c),): node_number(c) for c in topo.controllers}
    if n == 4:  # LUNs
        return {(i,): i for i in topo.luns}
    if n == 5:  # ports: reported statuses, bond members only through their bond
        return {(p[1],): p[1] for p in topo.ports if p[3] in REPORTED_PORT_STATUSES and not p[4]}
    if n in (10, 11, 15):  # NFS v3, v4, v4.1 per controller
        return ctrl_text if 48 in topo.features else {}
    if n in (12, 13):  # SMB v1, v2 per controller
        return ctrl_text if 49 in topo.features else {}
    if n == 14:  # file systems, by ID text
        return {string_index(str(i)): str(i) for i in topo.filesystems} if 602 in topo.features else {}
    raise ValueError("no expected rows for table %s (.%d): add it to expected_rows()" % (table.name, n))


class Expected:
    """Every instance the agent serves while collection is on: OID -> (object name, table or None, syntax)."""

    def __init__(self, scalars, tables, topo):
        self.tables = tables
        self.inst = {}
        self.index_value = {}  # OID of an index-column instance -> the row's index value
        self.rows = {}  # table name -> {index suffix: index value}
        for oid, (name, syntax) in scalars.items():
            self.inst[oid] = (name, None, syntax)
        for t in tables:
            rows = expected_rows(t, topo)
            self.rows[t.name] = rows
            for col, (name, syntax) in t.columns.items():
                # Node columns 11 and 12 (items 475, 476) carry values only with feature 602.
                if t.number == 3 and col in (11, 12) and 602 not in topo.features:
                    continue
                for idx, value in rows.items():
                    oid = t.prefix + (1, col) + idx
                    self.inst[oid] = (name, t, syntax)
                    if col == t.index_column:
                        self.index_value[oid] = value
        self.sorted = sorted(self.inst)

    def under(self, root, upto=None):
        """The expected OIDs under root (and not after upto)."""
        lo = bisect.bisect_left(self.sorted, root)
        hi = bisect.bisect_left(self.sorted, subtree_end(root))
        out = self.sorted[lo:hi]
        if upto is not None:
            out = out[: bisect.bisect_right(out, upto)]
        return out

    def table_of(self, oid):
        for t in self.tables:
            if oid[: len(t.prefix)] == t.prefix:
                return t
        return None

    def check_value(self, oid, typ, value):
        """"" when (typ, value) fits the expected instance oid, else what is wrong."""
        name, table, syntax = self.inst[oid]
        allowed = SYNTAX_TYPES.get(syntax, ())
        if typ not in allowed:
            return "%s %s: %s: %s, the MIB says %s" % (oid_text(oid), name, typ, value, syntax)
        if typ in INT_RANGES:
            try:
                v = int(value)
            except ValueError:
                return "%s %s: %s value '%s' is not a number" % (oid_text(oid), name, typ, value)
            lo, hi = INT_RANGES[typ]
            if not lo <= v <= hi:
                return "%s %s: %s value %d out of range" % (oid_text(oid), name, typ, v)
            if oid == SWITCH and v not in (0, 1):
                return "%s %s: %d, only 0 and 1 are ever written" % (oid_text(oid), name, v)
            if oid in self.index_value and v != self.index_value[oid]:
                return "%s %s: %d is not the row's index %d" % (oid_text(oid), name, v, self.index_value[oid])
        elif oid in self.index_value and typ == "STRING":
            text = value[1:-1] if len(value) >= 2 and value[0] == '"' and value[-1] == '"' else value
            if text != self.index_value[oid]:
                return "%s %s: \"%s\" is not the row's index \"%s\"" % (oid_text(oid), name, text, self.index_value[oid])
        return ""

    def object_of(self, oid):
        """The table (or scalar) name an expected instance belongs to."""
        name, table, _ = self.inst[oid]
        return table.name if table else name

    def describe_missing(self, missing, region):
        """(whether some object lost every instance, per object: how many of its expected instances in region
        are missing)."""
        total, lost, first = {}, {}, {}
        for oid in region:
            k = self.object_of(oid)
            total[k] = total.get(k, 0) + 1
        for oid in sorted(missing):
            k = self.object_of(oid)
            lost[k] = lost.get(k, 0) + 1
            first.setdefault(k, oid)
        parts, empty = [], False
        for k in sorted(lost):
            if lost[k] == total[k]:
                parts.append("%s empty (all %d instances missing)" % (k, total[k]))
                empty = True
            else:
                parts.append("%s: %d of %d instances missing, first %s" % (k, lost[k], total[k], oid_text(first[k])))
        return empty, "; ".join(parts)

    def columns_of(self, table):
        """The columns of a table that have instances."""
        return sorted(set(oid[len(table.prefix) + 1] for oid in self.under(table.prefix)))


# --------------------------------------------------------------------------
# Reading the Net-SNMP tools' output


VB_RE = re.compile(r"^(\.\d+(?:\.\d+)*) = (.*)$")
REASON_RE = re.compile(r"Reason: \((\w+)\)")
TIMEOUT_RE = re.compile(r"^(\S+: )?Timeout", re.MULTILINE)
STDERR_NOISE = re.compile(r"^(Error in packet\.?|Failed object: .*|Created directory: .*|"
                          r"Error in packet\.? *Reason: .*|Reason: .*|)$")


def parse_varbinds(text):
    """[(oid, type, value)] from -On output; type is noSuchObject, noSuchInstance or endOfMibView for the
    exceptions. Returns (varbinds, lines that are no varbind)."""
    vbs, other = [], []
    for line in text.splitlines():
        m = VB_RE.match(line)
        if not m:
            if vbs and vbs[-1][1] == "Hex-STRING" and re.match(r"^[0-9A-F ]+$", line):
                o, t, v = vbs[-1]
                vbs[-1] = (o, t, v + " " + line.strip())
            elif line.strip() and line.strip() != "End of MIB":
                other.append(line)
            continue
        oid, rest = parse_oid(m.group(1)), m.group(2)
        if rest == NO_SUCH_OBJECT:
            vbs.append((oid, "noSuchObject", ""))
        elif rest == NO_SUCH_INSTANCE:
            vbs.append((oid, "noSuchInstance", ""))
        elif rest == END_OF_VIEW:
            vbs.append((oid, "endOfMibView", ""))
        elif rest == '""':
            vbs.append((oid, "STRING", '""'))
        elif ": " in rest:
            typ, value = rest.split(": ", 1)
            vbs.append((oid, typ, value))
        else:
            other.append(line)
    return vbs, other


class ToolResult:
    def __init__(self, argv, rc, out, err, t0, t1, hung):
        self.argv = argv
        self.rc = rc
        self.out = out
        self.err = err
        self.t0 = t0
        self.t1 = t1
        self.hung = hung  # ran longer than its limit and was killed
        self.timeout = TIMEOUT_RE.search(err) is not None
        m = REASON_RE.search(err)
        self.reason = m.group(1) if m else None
        self.stderr_other = [line for line in err.splitlines()
                             if not STDERR_NOISE.match(line.strip()) and not TIMEOUT_RE.search(line)]

    def command(self):
        return " ".join(self.argv)


# --------------------------------------------------------------------------
# The run


def free_udp_port():
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def fd_kind(target):
    """socket, pipe, anon (anon_inode) or file, from a /proc/PID/fd link."""
    for kind in ("socket", "pipe", "anon_inode"):
        if target.startswith(kind + ":"):
            return kind.replace("anon_inode", "anon")
    return "file"


def proc_reading(pid):
    """(VmRSS KiB, open descriptors, threads, descriptor kinds) of a process, or None when it is gone."""
    try:
        rss = threads = 0
        with open("/proc/%d/status" % pid) as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    rss = int(line.split()[1])
                elif line.startswith("Threads:"):
                    threads = int(line.split()[1])
        kinds = {}
        for fd in os.listdir("/proc/%d/fd" % pid):
            try:
                k = fd_kind(os.readlink("/proc/%d/fd/%s" % (pid, fd)))
            except OSError:
                continue  # closed meanwhile
            kinds[k] = kinds.get(k, 0) + 1
        return rss, sum(kinds.values()), threads, " ".join("%s=%d" % kv for kv in sorted(kinds.items()))
    except (OSError, ValueError):
        return None


def proc_sample(pid, readings=3, gap=0.2):
    """(VmRSS KiB, descriptors, threads, descriptor kinds): the last reading's RSS, and the smallest descriptor
    and thread counts of a few readings `gap` seconds apart, so that a descriptor or thread that lives only a
    moment (a connection being replaced) is not taken for growth; a leaked one is there in every reading."""
    got = []
    for i in range(readings):
        if i:
            time.sleep(gap)
        r = proc_reading(pid)
        if r is None:
            return None
        got.append(r)
    fewest = min(got, key=lambda r: r[1])
    return got[-1][0], fewest[1], min(r[2] for r in got), fewest[3]


def proc_cpu_seconds(pid):
    """User and system CPU seconds a running process has used."""
    try:
        with open("/proc/%d/stat" % pid) as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    except (OSError, ValueError, IndexError):
        return 0.0


class SetupError(Exception):
    pass


class Soak:
    def __init__(self, args):
        self.args = args
        self.tmp = tempfile.mkdtemp(prefix="zerva-soak.")
        self.sock = os.path.join(self.tmp, "sim.sock")
        self.client_dir = os.path.join(self.tmp, "client")
        os.makedirs(self.client_dir)
        self.env = dict(os.environ, MIBS="", SNMPCONFPATH=self.client_dir, SNMP_PERSISTENT_DIR=self.client_dir)
        self.pdeathsig = ["setpriv", "--pdeathsig", "KILL", "--"] if shutil.which("setpriv") else []
        self.lock = threading.Lock()
        self.stop_load = threading.Event()
        self.tools = set()  # client processes running
        self.agent = None
        self.sim = None
        self.sim_runs = 0
        self.sim_down = False  # deliberately stopped for a restart
        self.port = None
        # Outcomes: kind -> {outcome: count}; failures: (t0, t1, kind, category, text, command, fault group,
        # fault context, collection switched off during it).
        self.counts = {}
        self.failures = []
        self.failure_categories = {}
        self.varbinds = 0
        # Collection-off windows [start, end or None]; faults [kind, rule, start, end or None].
        self.off_windows = []
        self.faults = []
        # (elapsed, phase, agent pid, agent (rss, fds, threads, fd kinds) or None, sim pid, sim (...) or None)
        self.samples = []
        self.t_load = None
        self.expected = None
        self.problems = []  # run-level failures (growth, exits, quiet walks)
        self.final_walks = 0
        self.agent_cpu = 0.0

    # ---- processes ----

    def spawn(self, argv, log_name):
        log = open(os.path.join(self.tmp, log_name), "a")
        try:
            return subprocess.Popen(self.pdeathsig + argv, stdin=subprocess.DEVNULL, stdout=log,
                                    stderr=subprocess.STDOUT, env=self.env, close_fds=True)
        finally:
            log.close()

    def log_tail(self, name, n=2000, lines=6):
        """The last lines of a log in the temporary directory (each cut to 300 characters, at most n in all)."""
        try:
            with open(os.path.join(self.tmp, name), errors="replace") as f:
                tail = [line.rstrip()[:300] for line in f.read()[-200000:].splitlines()[-lines:]]
        except OSError:
            return ""
        text = "\n    ".join(tail)
        return ("\n    " + text[-n:]) if text else ""

    def start_sim(self):
        self.sim_runs += 1
        log = "sim.%d.log" % self.sim_runs
        argv = [self.args.sim, "--listen", "unix:" + self.sock, "--topology", self.args.topology, "--luns",
                str(self.args.luns), "--filesystems", str(self.args.filesystems), "--device-config",
                self.args.device_config, "--seed", str(self.args.seed)]
        p = self.spawn(argv, log)
        deadline = time.time() + 15
        while time.time() < deadline:
            if "listening on" in self.log_tail(log, lines=50):
                self.sim = p
                self.sim_down = False
                return
            if p.poll() is not None:
                break
            time.sleep(0.05)
        p.kill()
        p.wait()
        raise SetupError("zerva-array-sim did not start: " + self.log_tail(log))

    def start_agent(self):
        conf = os.path.join(self.tmp, "agent.conf")
        with open(conf, "w") as f:
            f.write("rocommunity public 127.0.0.1\n")
            f.write("rwcommunity private 127.0.0.1\n")
            f.write("createUser %s SHA %s AES %s\n" % (V3_USER, V3_AUTH, V3_PRIV))
            f.write("rwuser %s priv\n" % V3_USER)
            f.write("zervaBackend unix:%s\n" % self.sock)
            f.write("zervaDeviceConfig %s\n" % self.args.device_config)
            f.write("zervaLogFile %s\n" % os.path.join(self.tmp, "agent.log"))
        for _ in range(5):
            port = free_udp_port()
            p = self.spawn([self.args.agent, "-f", "-c", conf, "--listen", "udp:127.0.0.1:%d" % port], "agent.out")
            deadline = time.time() + 20
            while time.time() < deadline and p.poll() is None:
                r = subprocess.run(["snmpget", "-v2c", "-c", "public", "-On", "-t", "0.3", "-r", "0",
                                    "127.0.0.1:%d" % port, oid_text(SWITCH)], env=self.env, capture_output=True,
                                   text=True)
                if "Gauge32" in r.stdout:
                    self.agent, self.port = p, port
                    return
                time.sleep(0.1)
            if p.poll() is None:
                p.kill()
            p.wait()
            if "bind" not in (self.log_tail("agent.out") + self.log_tail("agent.log")):
                break
        raise SetupError("zerva-snmp-agent did not answer: " + self.log_tail("agent.out") + self.log_tail("agent.log"))

    def kill_sim(self):
        if self.sim is not None and self.sim.poll() is None:
            self.sim.kill()
            self.sim.wait()

    def ctl(self, *action):
        r = subprocess.run([self.args.ctl, "--device-config", self.args.device_config, "unix:" + self.sock] +
                           list(action), env=self.env, capture_output=True, text=True, timeout=30)
        if r.returncode != 0:
            raise RuntimeError("zerva-sim-ctl %s: %s" % (" ".join(action), r.stderr.strip()))

    def cleanup(self):
        self.stop_load.set()
        tools = list(self.tools)  # no lock: a signal may arrive while this thread holds it
        for p in tools:
            if p.poll() is None:
                p.kill()
        for p in (self.agent, self.sim):
            if p is not None and p.poll() is None:
                p.kill()
                p.wait()
        if not self.args.keep_dir:
            shutil.rmtree(self.tmp, ignore_errors=True)

    # ---- clients ----

    def auth(self, version, write=False):
        if version == "v1":
            return ["-v1", "-c", "private" if write else "public"]
        if version == "v2c":
            return ["-v2c", "-c", "private" if write else "public"]
        return ["-v3", "-l", "authPriv", "-u", V3_USER, "-a", "SHA", "-A", V3_AUTH, "-x", "AES", "-X", V3_PRIV]

    def common(self):
        return ["-On", "-t", str(self.args.client_timeout), "-r", str(self.args.client_retries)]

    def run_tool(self, argv, limit=120):
        t0 = time.time()
        p = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             env=self.env, text=True, close_fds=True)
        with self.lock:
            self.tools.add(p)
        hung = False
        try:
            out, err = p.communicate(timeout=limit)
        except subprocess.TimeoutExpired:
            p.kill()
            out, err = p.communicate()
            hung = True
        with self.lock:
            self.tools.discard(p)
        return ToolResult(argv, p.returncode, out, err, t0, time.time(), hung)

    # ---- bookkeeping ----

    def elapsed(self, t):
        return t - self.t_load if self.t_load else 0.0

    def switched_off_during(self, t0, t1):
        with self.lock:
            for start, end in self.off_windows:
                if start < t1 and (end is None or end > t0):
                    return True
        return False

    def fault_context(self, t0, t1):
        """(group, text): the faults active during [t0, t1], else how long after the last one was cleared."""
        with self.lock:
            active = [(kind, rule) for kind, rule, start, end in self.faults if start < t1 and (end is None or end > t0)]
            done = [(end, kind, rule) for kind, rule, start, end in self.faults if end is not None and end <= t0]
        if active:
            return ("during " + ", ".join(sorted(set(k for k, _ in active))),
                    "during " + ", ".join(r for _, r in active))
        if done:
            end, kind, rule = max(done)
            after = t0 - end
            bucket = "< 1 s" if after < 1 else "1-3.5 s" if after < 3.5 else None
            if bucket:
                return ("%s after %s" % (bucket, kind), "no fault, %.1f s after %s was cleared" % (after, rule))
        return ("no fault", "no fault")

    def record(self, kind, outcome, res, category=None, text=None, varbinds=0):
        failure = None
        if outcome == "failure":
            group, context = self.fault_context(res.t0, res.t1)
            failure = (self.elapsed(res.t0), self.elapsed(res.t1), kind, category, text, res.command(), group,
                       context, self.switched_off_during(res.t0, res.t1))
        with self.lock:
            c = self.counts.setdefault(kind, dict.fromkeys(OUTCOMES, 0))
            c[outcome] += 1
            self.varbinds += varbinds
            if failure:
                self.failure_categories[category] = self.failure_categories.get(category, 0) + 1
                self.failures.append(failure)

    def tool_failure(self, res, allowed):
        """(category, text) when the client run itself failed: hung, timed out, an unexpected SNMP error or
        output. None otherwise."""
        if res.hung:
            return "client hung", "no exit within its time limit"
        if res.timeout:
            return "client timeout", "no answer within %s s x %d tries: %s" % (
                self.args.client_timeout, self.args.client_retries + 1, res.err.strip().splitlines()[0])
        if res.reason and res.reason not in allowed:
            return "SNMP error %s" % res.reason, res.err.strip().replace("\n", " | ")
        if res.stderr_other:
            return "unexpected client output", " | ".join(res.stderr_other[:3])
        if res.rc != 0 and not res.reason:
            return "client exit status %d" % res.rc, res.err.strip().replace("\n", " | ")[:300]
        return None

    # ---- judging answers ----

    def judge_walk(self, kind, root, res, bulk):
        """A walk of the subtree under root: every instance under root, or up to an SNMP error."""
        bad = self.tool_failure(res, READ_ERRORS)
        if bad:
            return self.record(kind, "failure", res, *bad)
        vbs, other = parse_varbinds(res.out)
        # snmpbulkwalk asks for root itself when the walk found nothing (also after an error).
        if bulk and vbs and vbs[-1][0] == root and vbs[-1][1] in ("noSuchObject", "noSuchInstance"):
            vbs.pop()
        if vbs and vbs[-1][1] == "endOfMibView":
            vbs.pop()
        if other:
            return self.record(kind, "failure", res, "unexpected client output", " | ".join(other[:3]))
        got = []
        for oid, typ, value in vbs:
            if oid[: len(root)] != root:
                return self.record(kind, "failure", res, "instance outside the walked subtree", oid_text(oid))
            if oid not in self.expected.inst:
                return self.record(kind, "failure", res, "instance that is not the array's",
                                   "%s = %s: %s" % (oid_text(oid), typ, value))
            why = self.expected.check_value(oid, typ, value)
            if why:
                return self.record(kind, "failure", res, "wrong type or value", why)
            got.append(oid)
        if len(set(got)) != len(got):
            return self.record(kind, "failure", res, "instance answered twice", "")
        if got != sorted(got):
            return self.record(kind, "failure", res, "instances out of order", "")
        region = self.expected.under(root, got[-1] if res.reason else None) if (got or not res.reason) else []
        missing = sorted(set(region) - set(got))
        off = self.switched_off_during(res.t0, res.t1)
        if missing and not off:
            empty, text = self.expected.describe_missing(missing, region)
            after = " before SNMP error %s" % res.reason if res.reason else ""
            return self.record(kind, "failure", res,
                               ("empty table" if empty else "instances missing") + " (noError) while collection on",
                               text + after, len(got))
        if res.reason:
            return self.record(kind, "snmp-error", res, varbinds=len(got))
        return self.record(kind, "empty-while-off" if missing else "ok", res, varbinds=len(got))

    def judge_get(self, kind, items, res, version):
        """A GET of items [(oid, 'value' | 'noSuchInstance' | 'noSuchObject')]."""
        bad = self.tool_failure(res, READ_ERRORS | (frozenset(["noSuchName"]) if version == "v1" else frozenset()))
        if bad:
            return self.record(kind, "failure", res, *bad)
        off = self.switched_off_during(res.t0, res.t1)
        if res.reason == "noSuchName":  # v1, one varbind
            oid, want = items[0]
            if want != "value":
                return self.record(kind, "ok", res)
            if off:
                return self.record(kind, "empty-while-off", res)
            return self.record(kind, "failure", res, "existing instance missing (noError) while collection on",
                               "v1 GET %s answered noSuchName" % oid_text(oid))
        if res.reason:
            return self.record(kind, "snmp-error", res)
        vbs, other = parse_varbinds(res.out)
        if other:
            return self.record(kind, "failure", res, "unexpected client output", " | ".join(other[:3]))
        if [v[0] for v in vbs] != [i[0] for i in items]:
            return self.record(kind, "failure", res, "GET answer names other instances",
                               "asked %s, answered %s" % ([oid_text(i[0]) for i in items],
                                                          [oid_text(v[0]) for v in vbs]))
        outcome = "ok"
        for (oid, want), (_, typ, value) in zip(items, vbs):
            if want == "value":
                if typ == "noSuchInstance" and off:
                    outcome = "empty-while-off"
                    continue
                if typ in ("noSuchInstance", "noSuchObject"):
                    return self.record(kind, "failure", res, "existing instance missing (noError) while collection on",
                                       "GET %s answered %s" % (oid_text(oid), typ))
                why = self.expected.check_value(oid, typ, value)
                if why:
                    return self.record(kind, "failure", res, "wrong type or value", why)
            elif typ != want:
                return self.record(kind, "failure", res, "wrong answer for a missing instance",
                                   "GET %s answered %s: %s, expected %s" % (oid_text(oid), typ, value, want))
        return self.record(kind, outcome, res, varbinds=len(vbs))

    def judge_table(self, kind, table, res):
        """snmptable -Cf , -CH of one table: one line per row, column 1 (the index column) first."""
        bad = self.tool_failure(res, READ_ERRORS)
        if bad:
            return self.record(kind, "failure", res, *bad)
        if res.reason:
            return self.record(kind, "snmp-error", res)
        off = self.switched_off_during(res.t0, res.t1)
        # v1: the walk of each column ends with noSuchName, which snmptable reports as "End of MIB".
        lines = [line for line in res.out.splitlines() if line.strip() and line.strip() != "End of MIB"]
        want = sorted(str(v) for v in self.expected.rows[table.name].values())
        ncols = len(self.expected.columns_of(table)) if want else len(table.columns)
        if len(lines) == 1 and lines[0].endswith(": No entries"):
            if not want:
                return self.record(kind, "ok", res)
            if off:
                return self.record(kind, "empty-while-off", res)
            return self.record(kind, "failure", res, "empty table (noError) while collection on",
                               "snmptable %s: No entries" % table.name)
        rows = [line.split(",") for line in lines]
        # Collection switching off or on between two columns leaves "?" in the columns read while it was off.
        partial = any(field in ("", "?") for r in rows for field in r)
        for r in rows:
            if len(r) != ncols or (partial and not off):
                return self.record(kind, "failure", res, "snmptable row not whole",
                                   "%s: '%s' (%d columns expected)" % (table.name, ",".join(r), ncols))
        have = sorted(r[0].strip('"') for r in rows if r[0] != "?")
        if have != want and not (off and set(have) <= set(want) and len(rows) <= len(want)):
            return self.record(kind, "failure", res, "snmptable rows are not the array's objects",
                               "%s: %d rows %s, expected %d" % (table.name, len(have), have[:8], len(want)))
        whole = have == want and not partial
        return self.record(kind, "ok" if whole else "empty-while-off", res, varbinds=len(rows) * ncols)

    def judge_set(self, kind, value, res):
        bad = self.tool_failure(res, SET_ERRORS)
        if bad:
            self.record(kind, "failure", res, *bad)
            return False
        if res.reason:
            self.record(kind, "snmp-error", res)
            return False
        vbs, other = parse_varbinds(res.out)
        if other or len(vbs) != 1 or vbs[0][0] != SWITCH or vbs[0][1] != "Gauge32" or vbs[0][2] != str(value):
            self.record(kind, "failure", res, "SET answer does not echo the value",
                        res.out.strip().replace("\n", " | "))
            return False
        self.record(kind, "ok", res, varbinds=1)
        return True

    # ---- load ----

    def pause(self, rng, base):
        self.stop_load.wait(base * rng.uniform(0.5, 1.5))

    def subtree_getnext_walker(self, rng):
        versions = ["v2c", "v1", "v3"]
        i = 0
        while not self.stop_load.is_set():
            v = versions[i % len(versions)]
            i += 1
            res = self.run_tool(["snmpwalk"] + self.auth(v) + self.common() + ["-CI", "127.0.0.1:%d" % self.port,
                                                                               oid_text(SUBTREE)])
            self.judge_walk("snmpwalk %s subtree" % v, SUBTREE, res, bulk=False)
            self.pause(rng, 0.5)

    def subtree_bulk_walker(self, rng):
        reps = [5, 10, 25, 50, 100]
        i = 0
        while not self.stop_load.is_set():
            v = "v2c" if i % 2 == 0 else "v3"
            r = reps[i % len(reps)]
            i += 1
            res = self.run_tool(["snmpbulkwalk"] + self.auth(v) + self.common() +
                                ["-Cr%d" % r, "127.0.0.1:%d" % self.port, oid_text(SUBTREE)])
            self.judge_walk("snmpbulkwalk %s subtree" % v, SUBTREE, res, bulk=True)
            self.pause(rng, 0.5)

    def part_walker(self, rng):
        tables = self.expected.tables
        while not self.stop_load.is_set():
            t = rng.choice(tables)
            what = rng.choice(["table", "entry", "column", "switch"])
            if what == "table":
                root = t.prefix
            elif what == "entry":
                root = t.prefix + (1,)
            elif what == "column":
                root = t.prefix + (1, rng.choice(sorted(t.columns)))
            else:
                root = SWITCH[:-1]
            tool = rng.choice(["snmpwalk v1", "snmpwalk v2c", "snmpwalk v3", "snmpbulkwalk v2c", "snmpbulkwalk v3"])
            prog, v = tool.split()
            argv = [prog] + self.auth(v) + self.common()
            if prog == "snmpbulkwalk":
                argv.append("-Cr%d" % rng.choice([1, 3, 7, 20, 60]))
            else:
                argv.append("-CI")
            res = self.run_tool(argv + ["127.0.0.1:%d" % self.port, oid_text(root)])
            self.judge_walk("%s %s" % (tool, what), root, res, bulk=prog == "snmpbulkwalk")
            self.pause(rng, 0.3)

    def random_get_items(self, rng, n):
        items = []
        for _ in range(n):
            pick = rng.random()
            if pick < 0.6:
                items.append((rng.choice(self.expected.sorted), "value"))
                continue
            t = rng.choice(self.expected.tables)
            col = rng.choice(sorted(t.columns))
            if pick < 0.85:  # a row the array does not have
                if t.string_index:
                    idx = string_index("Z%d" % rng.randrange(1000))
                else:
                    rows = self.expected.rows[t.name]
                    idx = (max([k[0] for k in rows] + [0]) + 1 + rng.randrange(100000),)
                items.append((t.prefix + (1, col) + idx, "noSuchInstance"))
            else:  # no such object: a column the table does not have, an arc nothing is registered at
                items.append((rng.choice([t.prefix + (1, max(t.columns) + 1 + rng.randrange(50), 1),
                                          SUBTREE + (2, 0), SUBTREE + (6, 1, 1, 1)]), "noSuchObject"))
        # A GET names each instance once.
        seen, unique = set(), []
        for it in items:
            if it[0] not in seen:
                seen.add(it[0])
                unique.append(it)
        return unique

    def get_walker(self, rng):
        while not self.stop_load.is_set():
            v = rng.choice(["v1", "v2c", "v3"])
            items = self.random_get_items(rng, 1 if v == "v1" else rng.randint(1, 6))
            res = self.run_tool(["snmpget"] + self.auth(v) + self.common() + ["127.0.0.1:%d" % self.port] +
                                [oid_text(o) for o, _ in items])
            self.judge_get("snmpget %s" % v, items, res, v)
            self.pause(rng, 0.2)

    def table_walker(self, rng):
        mib = ["-M", "%s:%s" % (self.args.mib_dir, os.path.join(self.args.mib_dir, "base")), "-m",
               "VEM-PERFORMANCE-MIB"]
        while not self.stop_load.is_set():
            t = rng.choice(self.expected.tables)
            v = rng.choice(["v1", "v2c", "v3"])
            argv = ["snmptable"] + self.auth(v) + ["-t", str(self.args.client_timeout), "-r",
                                                   str(self.args.client_retries)] + mib + ["-Cf", ",", "-CH"]
            if v != "v1":
                argv += ["-Cr", str(rng.choice([5, 30]))]  # snmptable takes the number as its own argument
            res = self.run_tool(argv + ["127.0.0.1:%d" % self.port, "VEM-PERFORMANCE-MIB::" + t.name])
            self.judge_table("snmptable %s" % v, t, res)
            self.pause(rng, 1.0)

    def switch_writer(self, rng):
        i = 0
        while not self.stop_load.is_set():
            self.pause(rng, self.args.switch_interval)
            if self.stop_load.is_set():
                break
            v = "v2c" if i % 2 == 0 else "v3"
            i += 1
            window = [time.time(), None]
            with self.lock:
                self.off_windows.append(window)
            res = self.run_tool(["snmpset"] + self.auth(v, write=True) + self.common() +
                                ["127.0.0.1:%d" % self.port, oid_text(SWITCH), "u", "0"])
            self.judge_set("snmpset %s" % v, 0, res)
            time.sleep(self.args.switch_off_seconds * rng.uniform(0.5, 1.5))
            # Collection on again; retried until the agent confirms it, so that the window ends only when
            # the array collects again.
            deadline = time.time() + 60
            while True:
                res = self.run_tool(["snmpset"] + self.auth(v, write=True) + self.common() +
                                    ["127.0.0.1:%d" % self.port, oid_text(SWITCH), "u", "1"])
                if self.judge_set("snmpset %s" % v, 1, res):
                    break
                if time.time() > deadline:
                    with self.lock:
                        self.problems.append("collection could not be switched on again within 60 s")
                    break
                time.sleep(0.5)
            with self.lock:
                window[1] = time.time()

    # ---- faults ----

    FAULT_CYCLE = [
        ("restart", None),
        ("delay", ["delay=1500", "delay=1500,cmd=LISTING"]),
        ("garbage", ["garbage,rate=0.5", "garbage,cmd=GET_CUR_STATISTIC_DATA,count=3"]),
        ("truncate", ["truncate,count=4", "truncate,cmd=LUN_BATCH_STATS,rate=0.5"]),
        ("close", ["close,count=6", "close,cmd=GET_PERFORMANCE_SWITCH,rate=0.3"]),
        ("refuse", ["refuse=0x53494D03", "refuse=0x53494D03,cmd=LUN_BATCH_STATS"]),
    ]

    def inject(self, n):
        kind, rules = self.FAULT_CYCLE[n % len(self.FAULT_CYCLE)]
        round_ = n // len(self.FAULT_CYCLE)
        now = time.time()
        if kind == "restart":
            self.sim_down = True
            self.kill_sim()
            rule = "restart (SIGKILL, %.0f s down)" % self.args.restart_down
        else:
            rule = rules[round_ % len(rules)]
            self.ctl("fault", rule)
        with self.lock:
            self.faults.append([kind, rule, now, None])

    def clear(self):
        with self.lock:
            fault = self.faults[-1]
        if fault[0] == "restart":
            self.start_sim()
        else:
            self.ctl("clear-faults")
        with self.lock:
            fault[3] = time.time()

    # ---- samples ----

    def sample(self, phase):
        a = proc_sample(self.agent.pid) if self.agent.poll() is None else None
        s = proc_sample(self.sim.pid) if self.sim is not None and self.sim.poll() is None else None
        row = (time.time() - self.t_load, phase, self.agent.pid, a, self.sim.pid if self.sim else 0, s)
        self.samples.append(row)
        with self.lock:
            runs = sum(sum(c.values()) for c in self.counts.values())
            fails = len(self.failures)
        self.csv_writer.writerow(["%.1f" % row[0], phase, row[2]] + list(a or ("", "", "", "")) + [row[4]] +
                                 list(s or ("", "", "", "")) + [runs, fails])
        self.csv_file.flush()
        if not self.args.quiet:
            print("  %6.0f s %-7s agent rss %s KiB fds %s threads %s | sim rss %s KiB fds %s threads %s | "
                  "%d client runs, %d failures" % ((row[0], phase) + tuple(a or ("-",) * 3)[:3] +
                                                   tuple(s or ("-",) * 3)[:3] + (runs, fails)), flush=True)

    # ---- phases ----

    def quiet_walk(self, label):
        """A bulk walk of the whole subtree with no fault active and collection on: exactly the expected
        instances. "" when it is, else why not."""
        res = self.run_tool(["snmpbulkwalk"] + self.auth("v2c") + self.common() +
                            ["-Cr25", "127.0.0.1:%d" % self.port, oid_text(SUBTREE)])
        if res.hung or res.timeout or res.reason or res.rc != 0 or res.stderr_other:
            return "%s: %s" % (label, (res.err or "exit status %s" % res.rc).strip().replace("\n", " | "))
        vbs, other = parse_varbinds(res.out)
        if vbs and vbs[-1][1] == "endOfMibView":
            vbs.pop()
        got = {}
        for oid, typ, value in vbs:
            got[oid] = (typ, value)
        want = set(self.expected.inst)
        extra = sorted(set(got) - want)
        missing = sorted(want - set(got))
        if extra or missing or other:
            _, text = self.expected.describe_missing(missing, self.expected.sorted) if missing else (False, "")
            return "%s: %d instances, %d expected; not expected: %s; missing: %s %s" % (
                label, len(got), len(want), [oid_text(o) for o in extra[:5]], text, other[:3])
        for oid, (typ, value) in got.items():
            why = self.expected.check_value(oid, typ, value)
            if why:
                return "%s: %s" % (label, why)
        return ""

    def run(self):
        a = self.args
        scalars, tables = load_mib(a.mib_xml)
        topo = parse_topology(a.topology, a.luns, a.filesystems)
        self.expected = Expected(scalars, tables, topo)
        if not topo.switch_on:
            raise SetupError("the topology starts with collection off; the soak needs it on")
        print("== soak: %d s, seed %d, %d controllers, %d LUNs, %d file systems, features %s: %d instances expected"
              % (a.duration, a.seed, len(topo.controllers), len(topo.luns), len(topo.filesystems),
                 ",".join(str(f) for f in sorted(topo.features)) or "none", len(self.expected.inst)), flush=True)
        self.start_sim()
        self.start_agent()
        # The quiet walk: the agent serves exactly what the topology says, with the MIB's types.
        why = self.quiet_walk("walk before the load")
        if why:
            raise SetupError("the agent does not serve the expected instances: " + why)
        print("   agent pid %d on udp:127.0.0.1:%d, simulator pid %d on unix:%s; quiet walk: %d instances as expected"
              % (self.agent.pid, self.port, self.sim.pid, self.sock, len(self.expected.inst)), flush=True)

        self.csv_file = open(a.csv, "w", newline="")
        self.csv_writer = csv.writer(self.csv_file)
        self.csv_writer.writerow(["elapsed_s", "phase", "agent_pid", "agent_rss_kib", "agent_fds", "agent_threads",
                                  "agent_fd_kinds", "sim_pid", "sim_rss_kib", "sim_fds", "sim_threads", "sim_fd_kinds",
                                  "client_runs", "failures"])
        warmup = max(30.0, a.duration / 3.0)
        self.t_load = time.time()
        t_end = self.t_load + a.duration
        self.sample("start")
        threads = []
        for i, fn in enumerate([self.subtree_getnext_walker, self.subtree_bulk_walker, self.part_walker,
                                self.part_walker, self.get_walker, self.table_walker, self.switch_writer]):
            th = threading.Thread(target=fn, args=(random.Random(a.seed * 100 + i),), daemon=True)
            th.start()
            threads.append(th)

        next_sample = self.t_load + a.sample_interval
        next_fault = self.t_load + min(5.0, a.fault_interval)
        fault_active, clear_at, last_clear, n_faults = False, 0.0, 0.0, 0
        died = None
        while True:
            now = time.time()
            if now >= t_end and not fault_active:
                break
            if self.agent.poll() is not None:
                died = "zerva-snmp-agent exited (status %s) during the load: %s" % (
                    self.agent.returncode, self.log_tail("agent.out") + self.log_tail("agent.log"))
                break
            if not self.sim_down and self.sim.poll() is not None:
                died = "zerva-array-sim exited (status %s) during the load: %s" % (
                    self.sim.returncode, self.log_tail("sim.%d.log" % self.sim_runs))
                break
            try:
                if fault_active and (now >= clear_at or now >= t_end):
                    self.clear()
                    fault_active, last_clear = False, time.time()
                elif not fault_active and now >= next_fault and now < t_end - a.fault_hold and now < next_sample:
                    self.inject(n_faults)
                    n_faults += 1
                    fault_active = True
                    hold = a.restart_down if self.faults[-1][0] == "restart" else a.fault_hold
                    clear_at = time.time() + hold
                    next_fault = now + a.fault_interval
            except (SetupError, RuntimeError, subprocess.TimeoutExpired) as e:
                died = "fault injection: %s" % e
                break
            if not fault_active and now >= next_sample and now >= last_clear + a.settle:
                self.sample("warm-up" if now - self.t_load <= warmup else "run")
                next_sample += a.sample_interval
                while next_sample <= time.time():
                    next_sample += a.sample_interval
            time.sleep(0.1)

        self.stop_load.set()
        for th in threads:
            th.join(timeout=300)
        load_seconds = time.time() - self.t_load
        if died:
            self.problems.append(died)
        else:
            time.sleep(max(0.0, last_clear + a.settle - time.time()))
            self.sample("end")
            # The agent must come back whole once the load and the faults have stopped: a walk with collection
            # on and no fault, tried for up to 10 s (a snapshot read during the last fault may still be kept).
            deadline = time.time() + 10
            while True:
                why = self.quiet_walk("walk after the load")
                self.final_walks += 1
                if not why or time.time() > deadline:
                    break
                time.sleep(1)
            if why:
                self.problems.append(why + " (still after %d walks in 10 s)" % self.final_walks)
        self.agent_cpu = proc_cpu_seconds(self.agent.pid) if self.agent.poll() is None else 0.0
        self.csv_file.close()
        if not died:
            self.check_growth(warmup)
        self.stop_processes()
        return self.summary(load_seconds, warmup)

    def stop_processes(self):
        for name, p in (("zerva-snmp-agent", self.agent), ("zerva-array-sim", self.sim)):
            if p is None:
                continue
            if p.poll() is not None:
                self.problems.append("%s was not running at the end (status %s)" % (name, p.returncode))
                continue
            p.terminate()
            try:
                rc = p.wait(timeout=15)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
                self.problems.append("%s did not stop within 15 s of SIGTERM" % name)
                continue
            if rc != 0:
                log = "agent.out" if p is self.agent else "sim.%d.log" % self.sim_runs
                self.problems.append("%s exited with status %d on SIGTERM: %s" % (name, rc, self.log_tail(log, 1500)))

    def check_growth(self, warmup):
        a = self.args
        self.growth = []
        for who, col in (("agent", 3), ("sim", 5)):
            warm = [s[col] for s in self.samples if s[1] in ("start", "warm-up") and s[col]]
            later = [(s[0], s[col]) for s in self.samples if s[1] in ("run", "end") and s[col]]
            if not warm or not later:
                self.problems.append("%s: too few samples for the growth check (%d in the warm-up, %d after); "
                                     "run longer" % (who, len(warm), len(later)))
                continue
            for i, what in ((1, "fds"), (2, "threads")):
                top = max(w[i] for w in warm)
                over = [(t, v) for t, v in later if v[i] > top]
                ok = not over
                self.growth.append("%s %s: warm-up max %d, after %d: %s" % (
                    who, what, top, max(v[i] for _, v in later), "met" if ok else "GREW"))
                if not ok:
                    t, v = over[0]
                    kinds = " (%s; in the warm-up: %s)" % (v[3], max(warm, key=lambda w: w[1])[3]) if i == 1 else ""
                    self.problems.append("%s %s grew after the warm-up: %d at %.0f s, warm-up max %d%s" %
                                         (who, what, v[i], t, top, kinds))
            top = max(w[0] for w in warm)
            end = later[-1][1][0]
            limit = top + max(a.rss_tolerance_mib * 1024, top * a.rss_tolerance_pct / 100.0)
            ok = end <= limit
            enforced = not a.sanitizer_build
            self.growth.append("%s RSS: warm-up max %d KiB, end %d KiB, limit %d KiB: %s%s" % (
                who, top, end, limit, "met" if ok else "GREW", "" if enforced else " (not enforced: sanitizer build)"))
            if not ok and enforced:
                self.problems.append("%s RSS grew: %d KiB at the end, warm-up max %d KiB, limit %d KiB" %
                                     (who, end, top, limit))

    def summary(self, load_seconds, warmup):
        a = self.args
        print("\n== soak summary")
        print("duration %.0f s of load (warm-up %.0f s), %d varbinds read; %s" % (
            load_seconds, warmup, self.varbinds, open("/proc/loadavg").read().split()[0] + " load average"))
        print("client runs by kind and outcome:")
        print("  %-28s %7s %7s %16s %11s %8s" % (("kind", "total") + OUTCOMES))
        tot = dict.fromkeys(OUTCOMES, 0)
        for kind in sorted(self.counts):
            c = self.counts[kind]
            for k in OUTCOMES:
                tot[k] += c[k]
            print("  %-28s %7d %7d %16d %11d %8d" % ((kind, sum(c.values())) + tuple(c[k] for k in OUTCOMES)))
        print("  %-28s %7d %7d %16d %11d %8d" % (("all", sum(tot.values())) + tuple(tot[k] for k in OUTCOMES)))
        by_kind = {}
        for kind, _, _, _ in self.faults:
            by_kind[kind] = by_kind.get(kind, 0) + 1
        print("faults injected: %d (%s)" % (len(self.faults), ", ".join("%s %d" % kv for kv in sorted(by_kind.items()))))
        print("collection switched off %d times; walk after the load whole at attempt %d" %
              (len(self.off_windows), self.final_walks))
        children = resource.getrusage(resource.RUSAGE_CHILDREN)
        child_cpu = children.ru_utime + children.ru_stime
        print("CPU: agent %.1f s, agent + simulators + clients %.1f s (%.0f %% of one core over the load)" %
              (self.agent_cpu, child_cpu, 100.0 * child_cpu / max(1.0, load_seconds)))
        print("resources (start / end / max):")
        for who, col, pid_col in (("agent", 3, 2), ("sim", 5, 4)):
            vals = [s[col] for s in self.samples if s[col]]
            if not vals:
                continue
            pids = sorted(set(s[pid_col] for s in self.samples if s[col]))
            print("  %-5s RSS %d / %d / %d KiB, fds %d / %d / %d, threads %d / %d / %d  (pid%s %s)" % (
                who, vals[0][0], vals[-1][0], max(v[0] for v in vals), vals[0][1], vals[-1][1],
                max(v[1] for v in vals), vals[0][2], vals[-1][2], max(v[2] for v in vals),
                "s" if len(pids) > 1 else "", ",".join(str(p) for p in pids)))
        print("growth criterion (after the warm-up: fds and threads <= warm-up max; end RSS <= warm-up max + "
              "max(%g MiB, %g %%)):" % (a.rss_tolerance_mib, a.rss_tolerance_pct))
        for line in getattr(self, "growth", []):
            print("  " + line)
        print("CSV: %s" % os.path.abspath(a.csv))
        if self.failure_categories:
            print("failed client runs by reason, and when they ran:")
            for cat, n in sorted(self.failure_categories.items(), key=lambda kv: -kv[1]):
                groups = {}
                for f in self.failures:
                    if f[3] == cat:
                        groups[f[6]] = groups.get(f[6], 0) + 1
                print("  %5d  %s" % (n, cat))
                print("         (%s)" % "; ".join("%s: %d" % kv for kv in sorted(groups.items())))
            lines = []
            for t0, t1, kind, cat, text, cmd, _, context, off in self.failures:
                lines.append("%6.1f-%6.1f s %s: %s: %s\n      [%s; %s] %s" % (
                    t0, t1, kind, cat, text, context, "collection switched off during it" if off else "collection on",
                    cmd))
            print("first failed client runs (seconds since the load began):")
            for line in lines[: a.show_failures]:
                print("  " + line)
            if len(lines) > a.show_failures:
                print("  ... and %d more" % (len(lines) - a.show_failures))
            failures_path = os.path.abspath(a.csv) + ".failures.txt"
            with open(failures_path, "w") as f:
                f.write("\n".join(lines) + "\n")
            print("every failed client run: %s" % failures_path)
        for p in self.problems:
            print("FAILED: " + p)
        if self.failures:
            print("FAILED: %d client runs got an answer that is neither correct, empty while collection was off, "
                  "nor an SNMP error" % len(self.failures))
        passed = not self.failures and not self.problems
        print("== soak %s" % ("PASSED" if passed else "FAILED"), flush=True)
        return 0 if passed else 1


def parse_args(argv):
    p = argparse.ArgumentParser(prog="agent_soak.py", description=__doc__,
                                formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--build-dir", default=os.path.join(ROOT, "build"),
                   help="where the programs were built (default: build/ of the source tree)")
    p.add_argument("--agent", help="zerva-snmp-agent (default: BUILD/host/agent/zerva-snmp-agent)")
    p.add_argument("--sim", help="zerva-array-sim (default: BUILD/sim/zerva-array-sim)")
    p.add_argument("--ctl", help="zerva-sim-ctl (default: BUILD/sim/zerva-sim-ctl)")
    p.add_argument("--mib-xml", default=os.path.join(ROOT, "mibs/VEM-PERFORMANCE.xml"),
                   help="the MIB description the agent serves (columns and syntaxes)")
    p.add_argument("--mib-dir", default=os.path.join(ROOT, "mibs"), help="the SMIv2 module for snmptable")
    p.add_argument("--device-config", default=os.path.join(ROOT, "host/vempub/config/vem-device.xml"),
                   help="command codes, for the agent, the simulator and zerva-sim-ctl")
    p.add_argument("--topology", default=os.path.join(ROOT, "sim/topologies/default.conf"),
                   help="the simulator's topology (default: the built-in mid-size array's file)")
    p.add_argument("--luns", type=int, default=256, help="LUNs of the simulated array (default 256)")
    p.add_argument("--filesystems", type=int, default=32, help="file systems (default 32)")
    p.add_argument("--duration", type=float, default=120, help="seconds of load (default 120)")
    p.add_argument("--csv", help="the samples' CSV (default zerva-soak-TIME.csv in the current directory)")
    p.add_argument("--sample-interval", type=float, default=10, help="seconds between samples (default 10)")
    p.add_argument("--fault-interval", type=float, default=8, help="seconds between faults (default 8)")
    p.add_argument("--fault-hold", type=float, default=3, help="seconds a fault stays (default 3)")
    p.add_argument("--restart-down", type=float, default=2, help="seconds the simulator stays down (default 2)")
    p.add_argument("--settle", type=float, default=2,
                   help="seconds after a fault is cleared before a sample is taken (default 2)")
    p.add_argument("--switch-interval", type=float, default=6,
                   help="mean seconds between switching collection off (default 6)")
    p.add_argument("--switch-off-seconds", type=float, default=1.5, help="mean seconds it stays off (default 1.5)")
    p.add_argument("--client-timeout", type=float, default=3, help="client timeout in seconds (default 3)")
    p.add_argument("--client-retries", type=int, default=1, help="client retries (default 1)")
    p.add_argument("--rss-tolerance-mib", type=float, default=2,
                   help="RSS growth allowed after the warm-up, MiB (default 2; the larger of this and the next)")
    p.add_argument("--rss-tolerance-pct", type=float, default=5,
                   help="RSS growth allowed after the warm-up, %% of the warm-up maximum (default 5)")
    p.add_argument("--sanitizer-build", action="store_true",
                   help="the programs are built with AddressSanitizer: report the RSS criterion, do not enforce it")
    p.add_argument("--seed", type=int, help="seed of the walkers' choices (default: from the time)")
    p.add_argument("--show-failures", type=int, default=25, help="failed client runs listed (default 25)")
    p.add_argument("--keep-dir", action="store_true", help="keep the temporary directory (logs, configuration)")
    p.add_argument("--quiet", action="store_true", help="no line per sample")
    a = p.parse_args(argv)
    a.agent = a.agent or os.path.join(a.build_dir, "host/agent/zerva-snmp-agent")
    a.sim = a.sim or os.path.join(a.build_dir, "sim/zerva-array-sim")
    a.ctl = a.ctl or os.path.join(a.build_dir, "sim/zerva-sim-ctl")
    a.csv = a.csv or time.strftime("zerva-soak-%Y%m%d-%H%M%S.csv")
    if a.seed is None:
        a.seed = int(time.time()) % 100000
    for path in (a.agent, a.sim, a.ctl):
        if not os.access(path, os.X_OK):
            p.error("%s is not an executable (build it, or pass --build-dir/--agent/--sim/--ctl)" % path)
    for tool in ("snmpwalk", "snmpbulkwalk", "snmpget", "snmpset", "snmptable"):
        if shutil.which(tool) is None:
            p.error("%s (Debian package snmp) is not installed" % tool)
    if a.duration < 45:
        p.error("--duration: at least 45 s (a warm-up of at least 30 s and samples after it)")
    return a


def main(argv=None):
    args = parse_args(sys.argv[1:] if argv is None else argv)
    soak = Soak(args)

    def on_signal(signum, _):
        print("soak: stopped by signal %d; stopping every child" % signum, file=sys.stderr, flush=True)
        raise SystemExit(128 + signum)

    for s in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(s, on_signal)
    try:
        return soak.run()
    except SetupError as e:
        print("soak: " + str(e), file=sys.stderr)
        return 2
    finally:
        soak.cleanup()


if __name__ == "__main__":
    sys.exit(main())
