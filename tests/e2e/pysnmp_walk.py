#!/usr/bin/env python3
"""Walks an SNMP subtree with pysnmp (SNMPv2c GETNEXT) and prints one line per
instance in the form the end-to-end tests compare with snmpwalk's output:

    .1.3.6.1.4.1.32473.4.1.21.5.1.1.3 = Gauge32: 3
    .1.3.6.1.4.1.32473.4.1.21.7.1.4.0 = INTEGER: -1
    .1.3.6.1.4.1.32473.4.1.21.5.1.11.3 = OCTETS: 65746832

Types are named as snmpwalk names them (INTEGER, Gauge32, Counter32,
Counter64, Timeticks, OID, IpAddress); octet strings are OCTETS followed by
their bytes in lower-case hex. Exit status 0 after the end of the subtree,
1 on a timeout or an SNMP error (reported on stderr), 2 for bad arguments,
3 when pysnmp cannot be imported.
"""

import argparse
import sys

try:
    from pysnmp.hlapi import (CommunityData, ContextData, ObjectIdentity, ObjectType, SnmpEngine,
                              UdpTransportTarget, nextCmd)
    from pysnmp.proto import rfc1902
    from pyasn1.type import univ
except ImportError as e:  # pragma: no cover - depends on the machine
    print("pysnmp is not available: %s" % e, file=sys.stderr)
    sys.exit(3)

# Most instances printed: a bound on the walk whatever the agent does.
MAX_ROWS = 200000


def normalize(value):
    """The (type, text) pair of a value, as the tests compare them."""
    # Application types first: they derive from INTEGER / OCTET STRING.
    if isinstance(value, rfc1902.Counter64):
        return "Counter64", str(int(value))
    if isinstance(value, rfc1902.Counter32):
        return "Counter32", str(int(value))
    if isinstance(value, rfc1902.TimeTicks):
        return "Timeticks", str(int(value))
    if isinstance(value, (rfc1902.Gauge32, rfc1902.Unsigned32)):
        return "Gauge32", str(int(value))
    if isinstance(value, rfc1902.IpAddress):
        return "IpAddress", ".".join(str(b) for b in value.asOctets())
    if isinstance(value, univ.OctetString):
        return "OCTETS", value.asOctets().hex()
    if isinstance(value, univ.Integer):
        return "INTEGER", str(int(value))
    if isinstance(value, univ.ObjectIdentifier):
        return "OID", "." + ".".join(str(arc) for arc in value.asTuple())
    return type(value).__name__, value.prettyPrint()


def oid_text(name):
    """".1.3.6.1..." of a varbind name (an ObjectName, or an ObjectIdentity)."""
    if hasattr(name, "getOid"):
        name = name.getOid()
    return "." + ".".join(str(arc) for arc in name.asTuple())


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--community", default="public")
    parser.add_argument("--timeout", type=float, default=2.0, help="seconds per request")
    parser.add_argument("--retries", type=int, default=1)
    parser.add_argument("root", help="the subtree, dotted decimal")
    args = parser.parse_args()

    root = args.root.lstrip(".")
    walk = nextCmd(SnmpEngine(),
                   CommunityData(args.community, mpModel=1),  # SNMPv2c
                   UdpTransportTarget((args.host, args.port), timeout=args.timeout, retries=args.retries),
                   ContextData(),
                   ObjectType(ObjectIdentity(root)),
                   lexicographicMode=False,  # stop at the end of the subtree
                   lookupMib=False,
                   maxRows=MAX_ROWS)
    for error_indication, error_status, error_index, var_binds in walk:
        if error_indication:
            print("error: %s" % error_indication, file=sys.stderr)
            return 1
        if error_status:
            print("error: %s at %s" % (error_status.prettyPrint(), error_index), file=sys.stderr)
            return 1
        for name, value in var_binds:
            kind, text = normalize(value)
            print("%s = %s: %s" % (oid_text(name), kind, text))
    return 0


if __name__ == "__main__":
    sys.exit(main())
