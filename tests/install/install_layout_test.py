#!/usr/bin/env python3
"""`cmake --install` of a build puts the product in its layout, and the
installed copy runs from wherever it was installed.

usage: install_layout_test.py BUILD_DIR SOURCE_DIR [sanitized]

Installs BUILD_DIR (stripped) under a temporary prefix and checks:
  - the files are exactly the product's, each where the layout says;
  - every ELF file finds the private libraries through a RUNPATH relative to
    $ORIGIN, and no installed file holds the path of the source or the build
    tree (RUNPATH, compiled-in defaults, __FILE__ texts);
  - the installed agent, started from there without LD_LIBRARY_PATH or any
    path option, loads the installed module, MIB description and device
    configuration and answers a GET, which Net-SNMP's snmpget names with the
    installed SMIv2 module alone;
  - the installed simulator and zerva-sim-ctl start from there too.
"""
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

BUILD = os.path.realpath(sys.argv[1]) if len(sys.argv) > 2 else ""
SOURCE = os.path.realpath(sys.argv[2]) if len(sys.argv) > 2 else ""
# A sanitizer build records the source files' paths in its instrumentation
# (for its reports) whatever the compiler's path maps say; it is never
# installed, and the product build is checked for paths.
SANITIZED = len(sys.argv) > 3 and sys.argv[3] == "sanitized"

# The layout under the prefix (CMAKE_INSTALL_PREFIX other than /usr: lib,
# not lib/<multiarch>; etc under the prefix).
EXPECTED = {
    "sbin/zerva-snmp-agent",
    "sbin/zerva-array-sim",
    "bin/zerva-sim-ctl",
    "lib/zerva/libvempub.so.0",
    "lib/zerva/libsnmpcommon.so.0",
    "lib/zerva/libsnmp_zerva_performance.so",
    "lib/zerva/libzerva_snmp_dlmod.so",
    "share/zerva/mibs/VEM-PERFORMANCE.xml",
    "share/zerva/vem-device.xml",
    "share/zerva/topologies/default.conf",
    "share/zerva/topologies/large.conf",
    "share/snmp/mibs/VEM-PERFORMANCE-MIB.txt",
    "share/snmp/mibs/SNMPv2-SMI.mib",
    "share/snmp/mibs/SNMPv2-TC.mib",
    "share/snmp/mibs/SNMPv2-CONF.mib",
    "share/man/man1/zerva-sim-ctl.1",
    "share/man/man5/zerva-snmp-agent.conf.5",
    "share/man/man8/zerva-snmp-agent.8",
    "share/man/man8/zerva-array-sim.8",
    "etc/zerva/zerva-snmp-agent.conf",
}
RUNPATHS = {
    "sbin/zerva-snmp-agent": "$ORIGIN/../lib/zerva",
    "sbin/zerva-array-sim": "$ORIGIN/../lib/zerva",
    "bin/zerva-sim-ctl": "$ORIGIN/../lib/zerva",
    "lib/zerva/libvempub.so.0": "$ORIGIN",
    "lib/zerva/libsnmpcommon.so.0": "$ORIGIN",
    "lib/zerva/libsnmp_zerva_performance.so": "$ORIGIN",
    "lib/zerva/libzerva_snmp_dlmod.so": "$ORIGIN",
}


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def dynamic_tags(path):
    """The (tag, value) pairs of readelf -d for the RPATH/RUNPATH tags."""
    out = subprocess.run(["readelf", "-d", path], check=True, capture_output=True, text=True).stdout
    tags = []
    for line in out.splitlines():
        for tag in ("RPATH", "RUNPATH"):
            if "(%s)" % tag in line:
                tags.append((tag, line.split("[", 1)[1].rsplit("]", 1)[0]))
    return tags


def clean_env():
    """The environment without any library or MIB search path of ours."""
    env = {k: v for k, v in os.environ.items() if k not in ("LD_LIBRARY_PATH", "MIBDIRS", "MIBS")}
    env["HOME"] = tempfile.gettempdir()
    return env


class InstalledTree(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory(prefix="zerva-install.")
        cls.prefix = os.path.join(cls.tmp.name, "usr")
        subprocess.run(["cmake", "--install", BUILD, "--prefix", cls.prefix, "--strip"], check=True,
                       capture_output=True, text=True)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def installed(self):
        files = set()
        for root, _, names in os.walk(self.prefix):
            for name in names:
                files.add(os.path.relpath(os.path.join(root, name), self.prefix))
        return files

    def path(self, rel):
        return os.path.join(self.prefix, rel)

    def test_the_installed_files_are_the_products_in_their_layout(self):
        self.assertEqual(sorted(self.installed()), sorted(EXPECTED))

    def test_every_program_and_library_finds_the_private_libraries_relative_to_itself(self):
        found = {rel: dynamic_tags(self.path(rel)) for rel in RUNPATHS}
        self.assertEqual(found, {rel: [("RUNPATH", rp)] for rel, rp in RUNPATHS.items()})

    @unittest.skipIf(SANITIZED, "a sanitizer build's instrumentation names its source files")
    def test_no_installed_file_holds_a_path_of_the_source_or_build_tree(self):
        offenders = []
        for rel in sorted(self.installed()):
            with open(self.path(rel), "rb") as f:
                data = f.read()
            for tree in (SOURCE, BUILD):
                if tree.encode() in data:
                    offenders.append("%s holds %s" % (rel, tree))
        self.assertEqual(offenders, [])

    def test_the_installed_agent_serves_from_where_it_was_installed(self):
        port = free_udp_port()
        conf = os.path.join(self.tmp.name, "agent.conf")
        with open(conf, "w") as f:
            f.write("agentaddress udp:127.0.0.1:%d\nrocommunity public 127.0.0.1\nzervaBackend embedded\n" % port)
        state = os.path.join(self.tmp.name, "state")
        agent = subprocess.Popen([self.path("sbin/zerva-snmp-agent"), "-f", "-L", "-c", conf, "--state-dir", state],
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, env=clean_env(),
                                 cwd="/")
        try:
            answer = None
            deadline = time.monotonic() + 20
            while time.monotonic() < deadline and agent.poll() is None:
                # The installed SMIv2 module alone names the object.
                env = clean_env()
                env["MIBDIRS"] = self.path("share/snmp/mibs")
                got = subprocess.run(["snmpget", "-v2c", "-c", "public", "-t", "1", "-r", "0",
                                      "127.0.0.1:%d" % port, "VEM-PERFORMANCE-MIB::vemPerfSwitch.0"],
                                     capture_output=True, text=True, env=env)
                if got.returncode == 0:
                    answer = got.stdout.strip()
                    break
                time.sleep(0.2)
            self.assertEqual(answer, "VEM-PERFORMANCE-MIB::vemPerfSwitch.0 = Gauge32: 1")
        finally:
            agent.send_signal(signal.SIGTERM)
            log, _ = agent.communicate(timeout=30)
        self.assertEqual(agent.returncode, 0, log)
        self.assertIn("serving %s (MIB VEM-PERFORMANCE-MIB from %s" %
                      (self.path("lib/zerva/libsnmp_zerva_performance.so"),
                       self.path("share/zerva/mibs/VEM-PERFORMANCE.xml")), log)
        # The device configuration was found: no kit 1 error about it.
        self.assertNotIn("device configuration", log)

    def test_the_installed_simulator_and_its_control_tool_run_from_where_they_were_installed(self):
        sock = os.path.join(self.tmp.name, "array.sock")
        sim = subprocess.Popen([self.path("sbin/zerva-array-sim"), "--listen", "unix:" + sock, "--topology",
                                self.path("share/zerva/topologies/large.conf")],
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, env=clean_env())
        try:
            first = sim.stdout.readline()
            self.assertEqual(first.split(" (")[0], "zerva-array-sim listening on unix:" + sock)
            counts = subprocess.run([self.path("bin/zerva-sim-ctl"), "unix:" + sock, "counts"], capture_output=True,
                                    text=True, env=clean_env())
            self.assertEqual(counts.returncode, 0, counts.stderr)
        finally:
            sim.send_signal(signal.SIGTERM)
            rest, _ = sim.communicate(timeout=30)
        self.assertEqual(sim.returncode, 0, rest)
        # The simulator found the installed device configuration: nothing on
        # its output but the two lines.
        self.assertEqual(rest, "zerva-array-sim stopped (signal 15)\n")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
