#!/usr/bin/env python3
"""Writes the seed corpora of mib_description_fuzz and agent_config_fuzz.

    fuzz/make_text_seeds.py [corpus dir]      (default: fuzz/corpus)

into <corpus dir>/mib_description and <corpus dir>/agent_config.

mib_description: the shipped mibs/VEM-PERFORMANCE.xml, smaller documents cut
from it (one scalar, one table of each index encoding, objects and columns
in reverse order, comments everywhere, UTF-16), and one document for each
kind of mistake the loader refuses.

agent_config: the lines of host/agent/demo.conf, every token with
a good value, the edges of every number range, back-end addresses, token
spellings Net-SNMP still hands over (case, quotes, backslashes), values with
blanks, comments and CR line ends, and lines without a value.
"""

import os
import re
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
SHIPPED_MIB = os.path.join(ROOT, "mibs", "VEM-PERFORMANCE.xml")
SHIPPED_CONF = os.path.join(ROOT, "host", "agent", "demo.conf")


def mib_objects(text):
    """The <scalar .../> and <table ...>...</table> elements of the shipped file."""
    return re.findall(r"<scalar [^>]*/>|<table [^>]*>.*?</table>", text, re.S)


def mib(objects, module="VEM-PERFORMANCE-MIB", oid=None):
    body = "".join("  " + o.strip() + "\n" for o in objects)
    oid_attr = "" if oid is None else ' oid="%s"' % oid
    return '<?xml version="1.0"?>\n<mib module="%s"%s>\n%s</mib>\n' % (module, oid_attr, body)


def reverse_columns(table):
    head, rest = table.split(">", 1)
    columns = re.findall(r"<column [^>]*/>", rest)
    return head + ">\n" + "".join("    " + c + "\n" for c in reversed(columns)) + "  </table>"


SCALAR = '<scalar prefix="1.3.6.1.4.1.99.1" name="perfSwitch" syntax="Unsigned32" access="read-write"/>'
ID_COLUMN = '<column number="1" name="portId" syntax="Unsigned32" access="read-only"/>'


def table(columns, attrs='prefix="1.3.6.1.4.1.99.5" name="portTable" entry="portEntry" index="1" '
                         'index-encoding="Integer"'):
    return "<table %s>\n%s  </table>" % (attrs, "".join("    " + c + "\n" for c in columns))


def mib_seeds():
    with open(SHIPPED_MIB, encoding="utf-8") as f:
        shipped = f.read()
    objects = mib_objects(shipped)
    scalars = [o for o in objects if o.startswith("<scalar")]
    tables = [o for o in objects if o.startswith("<table")]
    integer_table = next(t for t in tables if 'index-encoding="Integer"' in t)
    string_table = next(t for t in tables if 'index-encoding="String"' in t)
    out = {}
    out["shipped.xml"] = shipped
    out["one_scalar.xml"] = mib(scalars[:1])
    out["module_oid.xml"] = mib(scalars[:1], oid="1.3.6.1.4.1.32473.4.1.21")
    out["integer_index.xml"] = mib([integer_table])
    out["string_index.xml"] = mib([string_table])
    out["reverse_order.xml"] = mib([reverse_columns(t) for t in reversed(tables[:2])] + scalars)
    out["comments.xml"] = ('<?xml version="1.0"?>\n<!-- before -->\n<mib module="M"><!-- in -->\n'
                           '  %s<!-- between -->\n  %s\n<!-- last --></mib>\n<!-- after -->\n'
                           % (SCALAR, table([ID_COLUMN, "<!-- c -->"])))
    utf16 = mib([SCALAR], module="UTF16-MIB")
    out["utf16.xml"] = "\ufeff" + utf16  # written as UTF-16LE below
    out["entities_in_module.xml"] = mib([SCALAR], module="A&amp;B &#x41;&lt;&#10;")
    out["highest_arcs.xml"] = mib([
        '<scalar prefix="2.4294967295" name="top" syntax="TimeTicks" access="read-only"/>',
        table(['<column number="4095" name="lastId" syntax="OctetString" access="read-only"/>'],
              'prefix="0.0" name="lowTable" entry="lowEntry" index="4095" index-encoding="String"'),
    ])
    # Mistakes, one each.
    out["err_duplicate_column.xml"] = mib([SCALAR, table([ID_COLUMN, ID_COLUMN.replace("portId", "portX")])])
    out["err_nested_prefix.xml"] = mib([SCALAR, SCALAR.replace("99.1", "99.1.2").replace("perfSwitch", "other")])
    out["err_leading_zero_arc.xml"] = mib([SCALAR.replace("99.1", "99.01")])
    out["err_writable_column.xml"] = mib([table([ID_COLUMN.replace("read-only", "read-write")])])
    out["err_misspelt_attribute.xml"] = mib([SCALAR.replace("syntax=", "sytax=")])
    out["err_index_not_column.xml"] = mib([table([ID_COLUMN.replace('number="1"', 'number="2"')])])
    out["err_string_index_on_number.xml"] = mib([table([ID_COLUMN]).replace("Integer", "String")])
    out["err_duplicate_name.xml"] = mib([SCALAR, table([ID_COLUMN.replace("portId", "perfSwitch")])])
    out["err_no_objects.xml"] = '<mib module="M"><!-- nothing --></mib>\n'
    out["err_wrong_root.xml"] = '<mibs module="M">%s</mibs>\n' % SCALAR
    out["err_not_well_formed.xml"] = mib([SCALAR])[:-12]
    out["err_text_in_table.xml"] = mib([table([ID_COLUMN, "text"])])
    out["err_module_oid.xml"] = mib([SCALAR], oid="1.3.x")
    return out


def conf_seeds():
    with open(SHIPPED_CONF, encoding="utf-8") as f:
        shipped = f.read()
    out = {}
    out["shipped.conf"] = shipped
    out["every_token.conf"] = "\n".join([
        "zervaModule /usr/lib/zerva/libsnmp_zerva_performance.so",
        "zervaMibDir /usr/share/zerva/mibs",
        "zervaBackend unix:/run/array/mgmt.sock",
        "zervaBackendTimeout 250",
        "zervaSnapshotSeconds 0",
        "zervaWalkSeconds 0",
        "zervaBatchRows 16",
        "zervaLogLevel debug",
        "zervaKitLogLevel 4 error",
        "zervaKitLogLevel 255 OFF",
        "zervaLogFoldSeconds 5",
        "zervaLogFile /var/log/zerva-agent.log",
        "zervaSyslog yes",
        "zervaDeviceConfig /etc/zerva/vem-device.xml",
        "zervaSimTopology /etc/zerva/topology.txt",
        "zervaSimLuns 400",
        "zervaSimFileSystems 12",
        "zervaSimFeatures 7",
        "zervaSimSeed 99",
        "zervaRole agentx",
    ]) + "\n"
    out["number_edges.conf"] = "\n".join([
        "zervaBackendTimeout 0", "zervaBackendTimeout 1", "zervaBackendTimeout 3600000",
        "zervaBackendTimeout 3600001",
        "zervaSnapshotSeconds 86400", "zervaSnapshotSeconds 86401", "zervaSnapshotSeconds -1",
        "zervaWalkSeconds 86400", "zervaWalkSeconds 86401",
        "zervaBatchRows 0", "zervaBatchRows 10000", "zervaBatchRows 10001", "zervaBatchRows ten",
        "zervaSimLuns 1000000", "zervaSimLuns 1000001", "zervaSimFileSystems 0",
        "zervaSimFeatures 8", "zervaSimFeatures 07",
        "zervaSimSeed 18446744073709551615", "zervaSimSeed 18446744073709551616",
        "zervaSimSeed 00000000000000000001", "zervaSimSeed 000000000000000000001",
        "zervaSimSeed 99999999999999999999", "zervaSnapshotSeconds +3", "zervaSnapshotSeconds 0x10",
        "zervaLogFoldSeconds 86400", "zervaKitLogLevel 0 trace",
    ]) + "\n"
    out["backends.conf"] = "\n".join([
        "zervaBackend embedded", "zervaBackend unix:/run/x.sock", "zervaBackend tcp:127.0.0.1:9000",
        "zervaBackend tcp:[::1]:7000", "zervaBackend tcp:[::1]7000", "zervaBackend tcp:::1:7000",
        "zervaBackend tcp:host:65536", "zervaBackend tcp:host:", "zervaBackend tcp::80",
        "zervaBackend unix:", "zervaBackend unix:/" + "s" * 120, "zervaBackend http://x",
        "zervaBackend Embedded",
    ]) + "\n"
    out["spellings.conf"] = "\n".join([
        "ZERVABACKEND embedded", '"zervaRole" agentx', "zerva\\Role master", "'zervaSyslog' no",
        "\tzervaLogLevel\tWARN\t", "zervaSnapshotSeconds 3 # three seconds", "zervaBatchRows 8\r",
        "   # zervaRole agentx", "zervaLogFile   /tmp/with blanks.log   ",
    ]) + "\n"
    out["no_values.conf"] = "zervaModule\nzervaBackend   \nzervaRole\t\nzervaSimSeed \"\"\nzervaLogLevel ''\n"
    out["role_lines.conf"] = ("rocommunity public\nzervaRole master\nzervaRole agentx\n"
                              "zervaRole boss\nzervaRole Agentx\n")
    out["log_and_syslog.conf"] = "\n".join(
        ["zervaLogLevel " + l for l in ("trace", "DEBUG", "Warn", "error", "off", "loud")] +
        ["zervaSyslog " + v for v in ("yes", "TRUE", "on", "1", "no", "False", "OFF", "0", "maybe", "2")]) + "\n"
    return out


def write(outdir, seeds):
    os.makedirs(outdir, exist_ok=True)
    for name, text in sorted(seeds.items()):
        data = text.encode("utf-16-le") if name == "utf16.xml" else text.encode("utf-8")
        with open(os.path.join(outdir, name), "wb") as f:
            f.write(data)
        print("%-40s %5d bytes" % (os.path.join(os.path.basename(outdir), name), len(data)))


def main():
    corpus = sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "corpus")
    write(os.path.join(corpus, "mib_description"), mib_seeds())
    write(os.path.join(corpus, "agent_config"), conf_seeds())


if __name__ == "__main__":
    main()
