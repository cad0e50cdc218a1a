#!/usr/bin/env python3
"""Shows that the MIB checks fail, with a clear diff, when the two MIB files
disagree, the SMIv2 module is broken or a column departs from the statistic
catalogue. Works on copies in a temporary directory; the real files are only
read.

Usage: test_mib_checks.py XML MIB BASEDIR CATALOGUE

Exit status: 0 when every deliberate mismatch is caught (and the unmodified
copies pass), 1 otherwise, 77 when smidump, smilint or snmptranslate is not
installed.
"""

import os
import shutil
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
import mib_objects  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
BASE = "1.3.6.1.4.1.32473.4.1.21"

# (what, file changed, old text, new text, lines the agreement diff must show);
# old and new may be tuples of several changes.
AGREEMENT_CASES = [
    ("the module's OID in the XML", "xml",
     '<mib module="VEM-PERFORMANCE-MIB" oid="%s">' % BASE,
     '<mib module="VEM-PERFORMANCE-MIB" oid="%s.99">' % BASE,
     ["-module VEM-PERFORMANCE-MIB %s.99" % BASE,
      "+module VEM-PERFORMANCE-MIB %s" % BASE]),
    ("a column syntax in the XML", "xml",
     '<column number="3" name="vemPerfLunTotalIops" syntax="Gauge32"',
     '<column number="3" name="vemPerfLunTotalIops" syntax="Counter64"',
     ["-column vemPerfLunTotalIops %s.4.1.3 Counter64 read-only" % BASE,
      "+column vemPerfLunTotalIops %s.4.1.3 Gauge32 read-only" % BASE]),
    ("the switch's access in the XML", "xml",
     'name="vemPerfSwitch" syntax="Unsigned32" access="read-write"',
     'name="vemPerfSwitch" syntax="Unsigned32" access="read-only"',
     ["-scalar vemPerfSwitch %s.1 Unsigned32 read-only" % BASE,
      "+scalar vemPerfSwitch %s.1 Unsigned32 read-write" % BASE]),
    ("an index encoding in the XML", "xml",
     'entry="vemPerfPortEntry" index="1" index-encoding="Integer"',
     'entry="vemPerfPortEntry" index="1" index-encoding="String"',
     ["-entry vemPerfPortEntry %s.5.1 index=vemPerfPortId encoding=String" % BASE,
      "+entry vemPerfPortEntry %s.5.1 index=vemPerfPortId encoding=Integer" % BASE]),
    ("a column missing from the XML", "xml",
     '    <column number="11" name="vemPerfPortName" syntax="DisplayString" access="read-only"/>\n',
     "",
     ["+column vemPerfPortName %s.5.1.11 DisplayString read-only" % BASE]),
    ("a column OID in the SMIv2 module", "mib",
     "::= { vemPerfCacheEntry 5 }",
     "::= { vemPerfCacheEntry 6 }",
     ["-column vemPerfCacheHitRatio %s.7.1.5 Gauge32 read-only" % BASE,
      "+column vemPerfCacheHitRatio %s.7.1.6 Gauge32 read-only" % BASE]),
    ("an INDEX clause in the SMIv2 module", "mib",
     "INDEX       { vemPerfLunId }",
     "INDEX       { vemPerfLunTotalIops }",
     ["-entry vemPerfLunEntry %s.4.1 index=vemPerfLunId encoding=Integer" % BASE,
      "+entry vemPerfLunEntry %s.4.1 index=vemPerfLunTotalIops encoding=Integer" % BASE]),
    ("a column syntax in the SMIv2 module (object and SEQUENCE)", "mib",
     ("vemPerfCacheReserved OBJECT-TYPE\n    SYNTAX      Integer32", "vemPerfCacheReserved       Integer32"),
     ("vemPerfCacheReserved OBJECT-TYPE\n    SYNTAX      Unsigned32", "vemPerfCacheReserved       Unsigned32"),
     ["-column vemPerfCacheReserved %s.7.1.4 Integer32 read-only" % BASE,
      "+column vemPerfCacheReserved %s.7.1.4 Unsigned32 read-only" % BASE]),
]

# (what, old text of the SMIv2 module, new text, the line the catalogue check
# must print)
CATALOGUE_CASES = [
    ("a column in a unit other than its item's",
     'vemPerfPortResponseTime OBJECT-TYPE\n    SYNTAX      Gauge32\n    UNITS       "microseconds"',
     'vemPerfPortResponseTime OBJECT-TYPE\n    SYNTAX      Gauge32\n    UNITS       "milliseconds"',
     'vemPerfPortResponseTime: UNITS "milliseconds", catalogue item 78 is in "microseconds"'),
    ("a column that names another item",
     'Catalogue item 307."\n    ::= { vemPerfPortEntry 10 }',
     'Catalogue item 5."\n    ::= { vemPerfPortEntry 10 }',
     'vemPerfPortQueueDepth: UNITS "requests", catalogue item 5 is in "percent"'),
]


def run(args):
    proc = subprocess.run([sys.executable] + args, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          universal_newlines=True, timeout=120, env=dict(os.environ, PYTHONDONTWRITEBYTECODE="1"))
    return proc.returncode, proc.stdout


def copy_with(src, dst, old, new):
    """Copies src to dst replacing the one occurrence of old (or of each of a
    tuple of olds by the matching new); False if one is not there exactly once."""
    with open(src) as f:
        text = f.read()
    olds, news = (old, new) if isinstance(old, tuple) else ((old,), (new,))
    for o, n in zip(olds, news):
        if o:
            if text.count(o) != 1:
                return False
            text = text.replace(o, n)
    with open(dst, "w") as f:
        f.write(text)
    return True


def main(argv):
    if len(argv) != 5:
        sys.stderr.write(__doc__)
        return 2
    xml, mib, base, catalogue = argv[1:]
    for tool in ("smidump", "smilint", "snmptranslate"):
        if mib_objects.find_tool(tool) is None:
            print("SKIP: %s is not installed" % tool)
            return mib_objects.SKIP
    agreement = os.path.join(HERE, "check_mib_agreement.py")
    lint = os.path.join(HERE, "check_mib_lint.py")
    netsnmp = os.path.join(HERE, "check_mib_netsnmp.py")
    catalogue_check = os.path.join(HERE, "check_mib_catalogue.py")
    failures = []
    with tempfile.TemporaryDirectory(prefix="mib-checks-") as tmp:
        txml = os.path.join(tmp, "VEM-PERFORMANCE.xml")
        tmib = os.path.join(tmp, "VEM-PERFORMANCE-MIB.txt")

        # The unmodified copies agree: a failure below is the change's doing.
        copy_with(xml, txml, "", "")
        copy_with(mib, tmib, "", "")
        rc, out = run([agreement, txml, tmib, base])
        if rc != 0:
            failures.append("unmodified copies: expected agreement, got %d:\n%s" % (rc, out))

        for what, which, old, new, expected in AGREEMENT_CASES:
            copy_with(xml, txml, "", "")
            copy_with(mib, tmib, "", "")
            if not copy_with(xml if which == "xml" else mib, txml if which == "xml" else tmib, old, new):
                failures.append("%s: the text to change is not in the file exactly once" % what)
                continue
            rc, out = run([agreement, txml, tmib, base])
            lines = out.splitlines()
            missing = [line for line in expected if line not in lines]
            if rc != 1 or missing:
                failures.append("%s: expected exit 1 with %s, got %d:\n%s" % (what, missing or expected, rc, out))
            else:
                print("caught %s" % what)

        # smilint: an object left out of every conformance group.
        copy_with(xml, txml, "", "")
        if not copy_with(mib, tmib, "        vemPerfSwitch\n", "        vemPerfNodeIndex\n"):
            failures.append("lint case: the text to change is not in the file exactly once")
        else:
            rc, out = run([lint, tmib, base])
            if rc != 1 or "vemPerfSwitch" not in out:
                failures.append("smilint: expected a finding about vemPerfSwitch, got %d:\n%s" % (rc, out))
            else:
                print("caught an object outside every group (smilint)")

        # The statistic catalogue: a unit or an item that is not the column's.
        copy_with(xml, txml, "", "")
        for what, old, new, expected in CATALOGUE_CASES:
            if not copy_with(mib, tmib, old, new):
                failures.append("%s: the text to change is not in the file exactly once" % what)
                continue
            rc, out = run([catalogue_check, tmib, base, catalogue])
            if rc != 1 or expected not in out.splitlines():
                failures.append("%s: expected exit 1 with '%s', got %d:\n%s" % (what, expected, rc, out))
            else:
                print("caught %s" % what)

        # snmptranslate: a name the SMIv2 module does not define.
        copy_with(mib, tmib, "", "")
        if not copy_with(xml, txml, 'name="vemPerfPortName"', 'name="vemPerfPortLabel"'):
            failures.append("netsnmp case: the text to change is not in the file exactly once")
        else:
            rc, out = run([netsnmp, txml, tmp, base, os.path.join(tmp, "snmp")])
            if rc != 1 or "vemPerfPortLabel" not in out:
                failures.append("snmptranslate: expected a finding about vemPerfPortLabel, got %d:\n%s" % (rc, out))
            else:
                print("caught a name Net-SNMP cannot resolve")
    if failures:
        print("\n\n".join(failures))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
