#!/usr/bin/env python3
"""Checks that the SMIv2 module's statistic columns follow the array's
statistic catalogue (docs/statistics.md).

Usage: check_mib_catalogue.py MIB SMIPATH CATALOGUE

Reads the module through smidump and the catalogue's "Items" table
(| Item | Name | Meaning | Unit | Range |). Findings:
- a descriptor named after a bare item number (vemPerf...Item78);
- a Gauge32 column without a UNITS clause;
- a column whose DESCRIPTION names no catalogue item ("Catalogue item N.")
  though it is a Gauge32 column (the few computed columns listed in
  COMPUTED excepted), or names an item the catalogue does not have;
- a column whose UNITS is not its item's unit, or whose descriptor does not
  end with the item's name.
Exit status: 0 clean, 1 findings, 77 when smidump is not installed.
"""

import re
import sys
import xml.etree.ElementTree as ET

sys.dont_write_bytecode = True
import mib_objects  # noqa: E402

# The catalogue's units and the UNITS clauses that say the same.
UNITS = {
    "percent": "percent",
    "µs": "microseconds",
    "IOPS": "I/O operations per second",
    "KB/s": "KB/s",
    "OPS": "operations per second",
    "requests": "requests",
}

# Gauge32 columns that are computed from items rather than carrying one.
COMPUTED = {"vemPerfLunReadIoRatio", "vemPerfLunWriteIoRatio"}

ITEM_ROW = re.compile(r"^\|\s*(\d+)\s*\|\s*(\w+)\s*\|[^|]*\|\s*([^|]+?)\s*\|[^|]*\|\s*$")
ITEM_REF = re.compile(r"Catalogue item (\d+)\.")


def catalogue_items(path):
    """item -> (name, UNITS text) from the catalogue's Items table."""
    items = {}
    in_items = False
    with open(path, encoding="utf-8") as f:
        for line in f:
            if line.startswith("## "):
                in_items = line.strip() == "## Items"
                continue
            match = ITEM_ROW.match(line.strip()) if in_items else None
            if match:
                unit = match.group(3)
                if unit not in UNITS:
                    raise mib_objects.CheckError("%s: item %s has unknown unit '%s'" % (path, match.group(1), unit))
                items[int(match.group(1))] = (match.group(2), UNITS[unit])
    if not items:
        raise mib_objects.CheckError("%s: no Items table" % path)
    return items


def main(argv):
    if len(argv) != 4:
        sys.stderr.write(__doc__)
        return 2
    mib_path, smipath, catalogue = argv[1:]
    if mib_objects.find_tool("smidump") is None:
        print("SKIP: smidump (Debian package smitools) is not installed")
        return mib_objects.SKIP
    try:
        items = catalogue_items(catalogue)
        root = ET.fromstring(mib_objects.smidump_xml(mib_path, smipath))
    except (mib_objects.CheckError, ET.ParseError, OSError) as err:
        print(err)
        return 1
    findings = []
    columns = 0
    for node in root.iter():
        name = node.get("name") or ""
        if node.tag in ("node", "scalar", "table", "row", "column") and re.search(r"Item\d", name):
            findings.append("%s: named after a bare item number" % name)
        if node.tag != "column":
            continue
        syntax = node.find("syntax/type")
        if syntax is None or syntax.get("name") != "Gauge32":
            continue
        columns += 1
        units = (node.findtext("units") or "").strip()
        description = " ".join((node.findtext("description") or "").split())
        if not units:
            findings.append("%s: no UNITS clause" % name)
        refs = [int(n) for n in ITEM_REF.findall(description)]
        if name in COMPUTED:
            continue
        if len(refs) != 1:
            findings.append("%s: the DESCRIPTION names %d catalogue items, not one" % (name, len(refs)))
            continue
        if refs[0] not in items:
            findings.append("%s: catalogue item %d is not in %s" % (name, refs[0], catalogue))
            continue
        item_name, item_units = items[refs[0]]
        if units and units != item_units:
            findings.append("%s: UNITS \"%s\", catalogue item %d is in \"%s\"" % (name, units, refs[0], item_units))
        if not name.endswith(item_name):
            findings.append("%s: catalogue item %d is %s" % (name, refs[0], item_name))
    if findings:
        print("\n".join(findings))
        return 1
    print("%d Gauge32 columns follow the catalogue of %d items" % (columns, len(items)))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
