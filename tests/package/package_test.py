#!/usr/bin/env python3
"""The Debian packages installed, run as their units run them, reconfigured,
and purged, as an administrator would.

usage: package_test.py DEBDIR      (as root; DEBDIR holds the three .deb files)

Each check prints "ok: NAME" or "FAIL: NAME" with what it saw; the last line
is "N passed, N failed". Without root it prints why it skips and exits 0.
"""
import glob
import grp
import os
import pwd
import re
import shutil
import stat
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import unit_runner  # noqa: E402

PACKAGES = ["zerva-snmp-agent", "zerva-array-sim", "zerva-mibs"]
# The simulated array of the test, given to the simulator's unit through
# SIM_OPTS in /etc/default/zerva-array-sim: the port table reports ports
# linked up (5), degraded (6) or of unknown status (0), and leaves out
# offline (1) and linked-down (7) ones.
TOPOLOGY = """controllers 0A 0B
port 213 1 eth0 5
port 213 2 eth1 6
port 213 3 eth2 7
port 212 4 fc0 5
port 212 5 fc1 1
port 252 6 fcoe0 0
luns 37
filesystems 5
features 48,49,602
switch on
"""
PORT_ROWS = ["eth0", "eth1", "fc0", "fcoe0"]
LUNS = 37
CONF = "/etc/zerva/zerva-snmp-agent.conf"
PEER = "127.0.0.1:1161"

passed = []
failed = []
# The SNMP tools' home directory (no ~/.snmp of the caller), in the test's
# work directory.
snmp_home = None


def check(name, ok, detail=""):
    (passed if ok else failed).append(name)
    print(("ok: " if ok else "FAIL: ") + name + ("" if ok or not detail else "\n    " + detail.replace("\n", "\n    ")))
    return ok


def run(*cmd, **kw):
    return subprocess.run(list(cmd), capture_output=True, text=True, **kw)


def snmp_env():
    # No ~/.snmp of the caller, no MIBDIRS or MIBS: Net-SNMP's defaults.
    env = {k: v for k, v in os.environ.items() if k not in ("MIBDIRS", "MIBS", "SNMPCONFPATH")}
    env["HOME"] = snmp_home
    return env


def snmp(tool, *args, timeout=2):
    return run(tool, "-t", str(timeout), "-r", "1", *args, env=snmp_env())


def wait_for(predicate, seconds):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        result = predicate()
        if result:
            return result
        time.sleep(0.2)
    return predicate()


def installed_packages():
    out = run("dpkg-query", "-W", "-f", "${Package} ${Status}\n", *PACKAGES).stdout
    return [line.split()[0] for line in out.splitlines() if "installed" in line and "not-installed" not in line]


def main(debdir):
    global snmp_home
    if os.geteuid() != 0:
        print("SKIP: the package test installs packages and starts services: run it as root")
        return 0
    # It purges what it installs, configuration and state included: an
    # installation it did not make is left alone unless the caller says so.
    present = installed_packages()
    if present and os.environ.get("ZERVA_PACKAGE_TEST_REPLACES") != "1":
        print("SKIP: %s installed on this machine; the package test would purge them with their "
              "configuration and state (set ZERVA_PACKAGE_TEST_REPLACES=1 to let it)" % " ".join(present))
        return 0
    # Made readable for the services' user (the topology is read from here).
    work = tempfile.mkdtemp(prefix="zerva-pkg.")
    os.chmod(work, 0o755)
    snmp_home = os.path.join(work, "home")
    os.mkdir(snmp_home)
    try:
        return install_serve_purge(debdir, work)
    finally:
        shutil.rmtree(work, ignore_errors=True)


def install_serve_purge(debdir, work):
    # The packages, not their -dbgsym companions.
    debs = sorted(d for d in glob.glob(os.path.join(debdir, "*.deb")) if "-dbgsym_" not in d)
    names = sorted(re.sub(r"_.*", "", os.path.basename(d)) for d in debs)
    if not check("the three packages were built", names == sorted(PACKAGES), "found: %s" % debs):
        return 1
    leftover = installed_packages()
    if leftover:
        print("note: purging the installed packages, as ZERVA_PACKAGE_TEST_REPLACES=1 allows: %s" % " ".join(leftover))
        run("dpkg", "--purge", *leftover)

    # Install.
    got = run("dpkg", "-i", *debs, env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"))
    check("dpkg -i installs the packages", got.returncode == 0, got.stdout + got.stderr)
    files = {}
    for p in PACKAGES:
        listed = run("dpkg", "-L", p).stdout.split()
        files[p] = [f for f in listed if not os.path.isdir(f)]

    try:
        user = pwd.getpwnam("zerva")
        group = grp.getgrnam("zerva")
    except KeyError:
        check("the system user and group zerva exist", False, "no user or group zerva")
        return 1
    check("the system user and group zerva exist",
          user.pw_uid < 1000 and user.pw_gid == group.gr_gid and user.pw_dir == "/var/lib/zerva" and
          user.pw_shell == "/usr/sbin/nologin",
          str(user))
    st = os.stat(CONF)
    check("the configuration is a conffile readable by the group zerva only",
          (st.st_uid, st.st_gid, stat.S_IMODE(st.st_mode)) == (0, group.gr_gid, 0o640) and
          CONF in run("dpkg-query", "-W", "-f", "${Conffiles}", "zerva-snmp-agent").stdout,
          "%s: uid %d gid %d mode %o" % (CONF, st.st_uid, st.st_gid, stat.S_IMODE(st.st_mode)))
    check("the simulator's options are a conffile",
          "/etc/default/zerva-array-sim" in run("dpkg-query", "-W", "-f", "${Conffiles}", "zerva-array-sim").stdout)
    st = os.stat("/var/lib/zerva")
    check("the state directory belongs to zerva, mode 0750",
          (st.st_uid, st.st_gid, stat.S_IMODE(st.st_mode)) == (user.pw_uid, group.gr_gid, 0o750))
    elf_runpaths = {}
    for f in files["zerva-snmp-agent"] + files["zerva-array-sim"]:
        if not os.path.islink(f) and open(f, "rb").read(4) == b"\x7fELF":
            dyn = run("readelf", "-d", f).stdout
            elf_runpaths[f] = re.findall(r"\((RPATH|RUNPATH)\)\s+Library (?:rpath|runpath): \[(.*)\]", dyn)
    check("every installed program and library has a RUNPATH relative to $ORIGIN and nothing else",
          len(elf_runpaths) == 7 and all(len(v) == 1 and v[0][0] == "RUNPATH" and v[0][1].startswith("$ORIGIN")
                                         for v in elf_runpaths.values()),
          str(elf_runpaths))

    # The units.
    units = os.path.join(work, "units")
    os.makedirs(os.path.join(units, "zerva-snmp-agent.service.d"))
    shutil.copy(unit_runner.find_unit("zerva-snmp-agent.service"), units)
    shutil.copy("/usr/share/doc/zerva-snmp-agent/examples/agentx/zerva-snmp-agent.service.d-agentx.conf",
                os.path.join(units, "zerva-snmp-agent.service.d", "agentx.conf"))
    for unit in ("zerva-array-sim.service", "zerva-snmp-agent.service"):
        got = run("systemd-analyze", "verify", unit_runner.find_unit(unit))
        check("systemd-analyze verify accepts %s" % unit, got.returncode == 0 and got.stderr.strip() == "",
              got.stdout + got.stderr)
    # The AgentX drop-in on top of the installed unit.
    got = run("systemd-analyze", "verify", os.path.join(units, "zerva-snmp-agent.service"),
              env=dict(os.environ, SYSTEMD_UNIT_PATH=units + ":"))
    check("systemd-analyze verify accepts the agent's unit with the AgentX drop-in",
          got.returncode == 0 and got.stderr.strip() == "", got.stdout + got.stderr)

    topology = os.path.join(work, "array.conf")
    with open(topology, "w") as f:
        f.write(TOPOLOGY)
    os.chmod(topology, 0o644)
    with open("/etc/default/zerva-array-sim", "a") as f:
        f.write('SIM_OPTS="--topology %s --seed 5"\n' % topology)
    sim = unit_runner.Service("zerva-array-sim.service", os.path.join(work, "sim.log"))
    agent = unit_runner.Service("zerva-snmp-agent.service", os.path.join(work, "agent.log"))
    try:
        serve(sim, agent, user, group)
    finally:
        agent_status = agent.stop()
        sim_status = sim.stop()
    check("the agent stops with status 0 on SIGTERM and removes its pid file",
          agent_status == 0 and not os.path.exists("/run/zerva-snmp-agent/zerva-snmp-agent.pid"),
          "status %s\n%s" % (agent_status, agent.log()))
    check("the simulator stops with status 0 on SIGTERM", sim_status == 0, "status %s\n%s" % (sim_status, sim.log()))
    agent.remove_runtime_directories()
    sim.remove_runtime_directories()

    # Purge.
    got = run("dpkg", "--purge", "zerva-array-sim", "zerva-snmp-agent", "zerva-mibs")
    check("dpkg --purge removes the packages", got.returncode == 0 and installed_packages() == [],
          got.stdout + got.stderr)
    remaining = [f for p in PACKAGES for f in files[p] if os.path.lexists(f)]
    remaining += [d for d in ("/etc/zerva", "/var/lib/zerva", "/etc/default/zerva-array-sim",
                              "/usr/share/zerva", "/usr/lib/%s/zerva" % run("dpkg-architecture", "-qDEB_HOST_MULTIARCH")
                              .stdout.strip()) if os.path.lexists(d)]
    check("after the purge no installed file, configuration or state remains", remaining == [], str(remaining))
    check("after the purge no statoverride of ours remains",
          "/etc/zerva" not in run("dpkg-statoverride", "--list").stdout)
    print("%d passed, %d failed" % (len(passed), len(failed)))
    return 1 if failed else 0


def serve(sim, agent, user, group):
    sim_cmd = sim.start()
    check("the simulator's unit starts it on the agent's back-end socket with SIM_OPTS",
          sim_cmd[3:] == ["--topology", os.path.join(os.path.dirname(sim.log_path), "array.conf"), "--seed", "5"] and
          sim_cmd[:3] == ["/usr/sbin/zerva-array-sim", "--listen", "unix:/run/zerva-array-sim/array.sock"] and
          wait_for(lambda: "(2 controllers, 6 ports, 37 LUNs, 5 file systems" in sim.log(), 10),
          str(sim_cmd) + "\n" + sim.log())
    agent.start()

    def switch(community="public"):
        got = snmp("snmpget", "-v2c", "-c", community, PEER, "VEM-PERFORMANCE-MIB::vemPerfSwitch.0")
        return got.stdout.strip() if got.returncode == 0 else None

    answer = wait_for(switch, 20)
    check("snmpget names the object with the installed MIB alone and the agent answers",
          answer == "VEM-PERFORMANCE-MIB::vemPerfSwitch.0 = Gauge32: 1", "%s\n%s" % (answer, agent.log()))
    pid = agent.process.pid
    pidfile = "/run/zerva-snmp-agent/zerva-snmp-agent.pid"
    check("the pid file names the agent",
          os.path.exists(pidfile) and open(pidfile).read().strip() == str(pid))
    status = open("/proc/%d/status" % pid).read()
    uids = re.search(r"^Uid:\s+(\d+)\s+(\d+)\s+(\d+)", status, re.M).groups()
    cap_eff = int(re.search(r"^CapEff:\s+([0-9a-f]+)", status, re.M).group(1), 16)
    check("the agent runs as zerva with CAP_NET_BIND_SERVICE only",
          uids == (str(user.pw_uid),) * 3 and cap_eff == 1 << 10, "uids %s CapEff %x" % (uids, cap_eff))
    check("the agent does not run with the embedded simulator", "embedded" not in agent.log(), agent.log())

    walk = snmp("snmpbulkwalk", "-v2c", "-c", "public", "-Cr50", PEER, "VEM-PERFORMANCE-MIB::vemPerfLunTable")
    lun_ids = re.findall(r"^VEM-PERFORMANCE-MIB::vemPerfLunId\.\d+ = ", walk.stdout, re.M)
    check("snmpbulkwalk of the LUN table lists every LUN of the simulated array",
          walk.returncode == 0 and len(lun_ids) == LUNS, "%d of %d\n%s" % (len(lun_ids), LUNS, walk.stderr))
    table = snmp("snmptable", "-v2c", "-c", "public", "-Cf", "|", "localhost:1161",
                 "VEM-PERFORMANCE-MIB::vemPerfPortTable")
    lines = table.stdout.splitlines()
    names = [line.split("|")[-1] for line in lines[3:] if line.strip()]
    check("snmptable of the port table (the module named alone) lists the ports the array reports",
          table.returncode == 0 and lines[0] == "SNMP table: VEM-PERFORMANCE-MIB::vemPerfPortTable" and
          lines[2].startswith("vemPerfPortId|") and lines[2].endswith("|vemPerfPortName") and names == PORT_ROWS,
          "%s\n%s" % (table.stdout[:600], table.stderr))
    check("the installed configuration gives no write access",
          snmp("snmpset", "-v2c", "-c", "public", PEER, "VEM-PERFORMANCE-MIB::vemPerfSwitch.0", "u", "0")
          .returncode != 0 and switch() == "VEM-PERFORMANCE-MIB::vemPerfSwitch.0 = Gauge32: 1")

    # A community added to the installed configuration, taken up on reload.
    original = open(CONF).read()
    check("a community not configured yet is refused", switch("zerva-pkg-test") is None)
    with open(CONF, "a") as f:
        f.write("rocommunity zerva-pkg-test 127.0.0.1\n")
    command = agent.reload()
    got = wait_for(lambda: switch("zerva-pkg-test"), 10)
    check("ExecReload (SIGHUP) takes up a new community and the agent keeps serving",
          command == ["/bin/kill", "-HUP", str(pid)] and got is not None and agent.process.poll() is None and
          switch() is not None, "%s %s\n%s" % (command, got, agent.log()))
    # A broken configuration keeps the running one.
    with open(CONF, "a") as f:
        f.write("zervaLogLevel loud\n")
    lines = len(original.splitlines()) + 2
    agent.reload()
    logged = wait_for(lambda: "%s: line %d:" % (CONF, lines) in agent.log(), 10)
    check("a broken configuration on reload is logged and the running one kept",
          logged and switch("zerva-pkg-test") is not None and agent.process.poll() is None, agent.log())
    with open(CONF, "w") as f:
        f.write(original)

    # An SNMPv3 user made by root with --create-user, taken up on reload.
    made = run("/usr/sbin/zerva-snmp-agent", "--create-user", "pkgtest", "--auth-protocol", "SHA-256",
               input="pkg-auth-pass\npkg-priv-pass\n")
    users = "/var/lib/zerva/users.conf"
    st = os.stat(users) if os.path.exists(users) else None
    check("--create-user as root writes a users file of zerva, mode 0600",
          made.returncode == 0 and st is not None and
          (st.st_uid, st.st_gid, stat.S_IMODE(st.st_mode)) == (user.pw_uid, group.gr_gid, 0o600) and
          "pkg-auth-pass" not in open(users).read(), made.stdout + made.stderr)
    agent.reload()
    v3 = wait_for(lambda: snmp("snmpget", "-v3", "-l", "authPriv", "-u", "pkgtest", "-a", "SHA-256", "-A",
                               "pkg-auth-pass", "-x", "AES", "-X", "pkg-priv-pass", PEER,
                               "VEM-PERFORMANCE-MIB::vemPerfSwitch.0").returncode == 0, 10)
    check("the SNMPv3 user answers after a reload", bool(v3), agent.log())
    check("after three reloads the agent is the same process", agent.process.poll() is None and
          open(pidfile).read().strip() == str(pid))


if __name__ == "__main__":
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    sys.exit(main(sys.argv[1]))
