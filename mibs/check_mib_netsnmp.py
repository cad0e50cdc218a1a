#!/usr/bin/env python3
"""Checks that the Net-SNMP tools load the SMIv2 module and resolve every
object the MIB description (XML) names to the same OID, and the product
registrations (PRODUCTS) to theirs, and that each table entry carries the
index the description gives.

Usage: check_mib_netsnmp.py XML MIBDIR BASEDIR WORKDIR

Runs snmptranslate -M MIBDIR:BASEDIR -m VEM-PERFORMANCE-MIB with no site
configuration (SNMPCONFPATH and SNMP_PERSISTENT_DIR point into WORKDIR).
Fails on any MIB parser warning (-Pw) other than NOISE. Exit status: 0 fine, 1 findings, 77 when
snmptranslate is not installed.
"""

import os
import re
import subprocess
import sys
import xml.etree.ElementTree as ET

sys.dont_write_bytecode = True
import mib_objects  # noqa: E402

# What -Pw prints for every clean load: the base modules' macro definitions,
# which Net-SNMP skips, and the creation of its persistent directory.
NOISE = re.compile(r"^([A-Z-]+ MACRO \(lines \d+\.\.\d+ parsed and ignored\)\.|Created directory: .*)$")

# Objects of the module that the description does not list: the product
# registration the standalone agent reports as sysObjectID.0.
PRODUCTS = [("vemProducts", "1.3.6.1.4.1.32473.4.2"), ("vemSnmpAgentProduct", "1.3.6.1.4.1.32473.4.2.1")]


def snmptranslate(tool, mibdirs, module, env, args):
    cmd = [tool, "-M", mibdirs, "-m", module, "-Pw"] + args
    return subprocess.run(cmd, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True,
                          timeout=60)


def expected_objects(xml_path):
    """(name, oid) of every object the description names, and entry -> index name."""
    root = ET.parse(xml_path).getroot()
    names, indexes = [], {}
    for obj in root:
        prefix = obj.get("prefix")
        if obj.tag == "scalar":
            names.append((obj.get("name"), prefix))
            continue
        names.append((obj.get("name"), prefix))
        names.append((obj.get("entry"), prefix + ".1"))
        for col in obj.findall("column"):
            names.append((col.get("name"), "%s.1.%s" % (prefix, col.get("number"))))
            if col.get("number") == obj.get("index"):
                indexes[obj.get("entry")] = col.get("name")
    return root.get("module"), names, indexes


def main(argv):
    if len(argv) != 5:
        sys.stderr.write(__doc__)
        return 2
    xml_path, mibdir, basedir, workdir = argv[1:]
    tool = mib_objects.find_tool("snmptranslate")
    if tool is None:
        print("SKIP: snmptranslate (Debian package snmp) is not installed")
        return mib_objects.SKIP
    os.makedirs(workdir, exist_ok=True)
    env = dict(os.environ, SNMPCONFPATH=workdir, SNMP_PERSISTENT_DIR=workdir)
    for var in ("MIBS", "MIBDIRS", "MIBFILES"):
        env.pop(var, None)
    module, names, indexes = expected_objects(xml_path)
    names += PRODUCTS
    mibdirs = mibdir + ":" + basedir
    findings = []

    qualified = ["%s::%s" % (module, name) for name, _ in names]
    proc = snmptranslate(tool, mibdirs, module, env, ["-On"] + qualified)
    said = [line for line in proc.stderr.splitlines() if not NOISE.match(line)]
    if said:
        findings.append("snmptranslate said:\n" + "\n".join(said))
    got = proc.stdout.split()
    if len(got) != len(names):
        findings.append("resolved %d of %d names" % (len(got), len(names)))
    for (name, oid), resolved in zip(names, got):
        if resolved != "." + oid:
            findings.append("%s resolves to %s, the description says .%s" % (name, resolved, oid))

    for entry, index in sorted(indexes.items()):
        proc = snmptranslate(tool, mibdirs, module, env, ["-Td", "%s::%s" % (module, entry)])
        match = re.search(r"INDEX\s*\{\s*([^}]*?)\s*\}", proc.stdout)
        if match is None or match.group(1) != index:
            findings.append("%s: INDEX is %s, the description says %s" % (entry, match.group(1) if match else "missing",
                                                                          index))
    if findings:
        print("\n".join(findings))
        return 1
    print("snmptranslate resolves all %d objects of %s; %d table indexes agree" % (len(names), module, len(indexes)))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
