#!/usr/bin/env python3
"""Checks that the MIB description (XML) and the SMIv2 module describe the same
objects: names, OIDs, syntaxes, access and table indexes.

Usage: check_mib_agreement.py XML MIB SMIPATH

Exit status: 0 when they agree, 1 with a unified diff (XML on the "-" side,
SMIv2 on the "+" side) when they do not, 2 when a file cannot be read, 77
when smidump is not installed.
"""

import difflib
import sys

sys.dont_write_bytecode = True
import mib_objects  # noqa: E402


def main(argv):
    if len(argv) != 4:
        sys.stderr.write(__doc__)
        return 2
    xml_path, mib_path, smipath = argv[1:]
    if mib_objects.find_tool("smidump") is None:
        print("SKIP: smidump (Debian package smitools) is not installed")
        return mib_objects.SKIP
    try:
        xml = mib_objects.xml_objects(xml_path)
        smi = mib_objects.smi_objects(mib_path, smipath)
    except mib_objects.CheckError as err:
        print("error: %s" % err)
        return 2
    if xml == smi:
        print("%s and %s agree on %d objects" % (xml_path, mib_path, len(xml)))
        return 0
    print("%s and %s disagree:" % (xml_path, mib_path))
    for line in difflib.unified_diff(xml, smi, fromfile=xml_path, tofile=mib_path, lineterm="", n=0):
        print(line)
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
