"""The objects of the MIB description (VEM-PERFORMANCE.xml) and of the SMIv2
module (VEM-PERFORMANCE-MIB.txt) in one comparable form.

Each object is one text line, and so is the module itself:

    module <name> <oid of its MODULE-IDENTITY>
    scalar <name> <oid> <syntax> <access>
    table  <name> <oid>
    entry  <name> <oid> index=<column name> encoding=<Integer|String>
    column <name> <oid> <syntax> <access>

with OIDs in dotted decimal and syntaxes named as in the XML format
(Integer32, Unsigned32, Gauge32, Counter32, Counter64, TimeTicks,
DisplayString, OctetString).
"""

import os
import shutil
import subprocess
import xml.etree.ElementTree as ET

# Exit code with which the checks tell CTest that a tool is missing.
SKIP = 77

SMI_BASE_TYPES = {"Integer32", "Unsigned32", "Gauge32", "Counter32", "Counter64", "TimeTicks"}


class CheckError(Exception):
    """A file or tool output that cannot be read as expected."""


def xml_objects(path):
    """The object lines of a MIB description file."""
    try:
        root = ET.parse(path).getroot()
    except (OSError, ET.ParseError) as err:
        raise CheckError("%s: %s" % (path, err))
    if root.tag != "mib":
        raise CheckError("%s: root element is <%s>, not <mib>" % (path, root.tag))
    lines = ["module %s %s" % (root.get("module"), root.get("oid"))]
    for obj in root:
        if obj.tag == "scalar":
            lines.append("scalar %s %s %s %s" % (obj.get("name"), obj.get("prefix"), obj.get("syntax"),
                                                 obj.get("access")))
        elif obj.tag == "table":
            prefix = obj.get("prefix")
            entry_oid = prefix + ".1"
            lines.append("table %s %s" % (obj.get("name"), prefix))
            index_name = None
            for col in obj.findall("column"):
                lines.append("column %s %s.%s %s %s" % (col.get("name"), entry_oid, col.get("number"),
                                                        col.get("syntax"), col.get("access")))
                if col.get("number") == obj.get("index"):
                    index_name = col.get("name")
            lines.append("entry %s %s index=%s encoding=%s" % (obj.get("entry"), entry_oid, index_name,
                                                               obj.get("index-encoding")))
        else:
            raise CheckError("%s: unknown element <%s>" % (path, obj.tag))
    return sorted(lines)


def find_tool(name):
    """The path of a tool, or None."""
    return shutil.which(name)


def smidump_xml(mib_path, smipath):
    """The smidump XML dump of an SMIv2 module, base modules found in smipath."""
    tool = find_tool("smidump")
    if tool is None:
        raise CheckError("smidump not found")
    env = dict(os.environ, SMIPATH=smipath)
    # -c /dev/null: no site configuration, only the base modules given.
    proc = subprocess.run([tool, "-c", "/dev/null", "-l", "3", "-f", "xml", mib_path], env=env,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True, timeout=60)
    if proc.returncode != 0 or not proc.stdout.strip():
        raise CheckError("smidump failed on %s:\n%s" % (mib_path, proc.stderr))
    return proc.stdout


def _syntax(node):
    """The XML-format syntax name of a smidump <column>/<scalar> node."""
    syntax = node.find("syntax")
    if syntax is None:
        return "?"
    typ = syntax.find("type")
    if typ is not None:
        name = typ.get("name")
        if name in SMI_BASE_TYPES or name in ("DisplayString", "OctetString"):
            return name
        return "?" + name
    typedef = syntax.find("typedef")
    if typedef is not None:
        parent = typedef.find("parent")
        parent_name = parent.get("name") if parent is not None else typedef.get("basetype")
        if parent_name in SMI_BASE_TYPES or parent_name in ("DisplayString", "OctetString"):
            return parent_name
        return "?" + str(parent_name)
    return "?"


def _access(node):
    text = (node.findtext("access") or "").strip()
    return {"readonly": "read-only", "readwrite": "read-write", "noaccess": "not-accessible"}.get(text, text)


def smi_objects(mib_path, smipath):
    """The object lines of an SMIv2 module, read through smidump."""
    try:
        root = ET.fromstring(smidump_xml(mib_path, smipath))
    except ET.ParseError as err:
        raise CheckError("smidump output of %s: %s" % (mib_path, err))
    nodes = root.find("nodes")
    if nodes is None:
        raise CheckError("smidump output of %s has no nodes" % mib_path)
    module = root.find("module")
    identity = None if module is None else module.find("identity")
    identity_oid = None
    if identity is not None:
        node = nodes.find("node[@name='%s']" % identity.get("node"))
        identity_oid = None if node is None else node.get("oid")
    lines = ["module %s %s" % (None if module is None else module.get("name"), identity_oid)]
    for scalar in nodes.findall("scalar"):
        lines.append("scalar %s %s %s %s" % (scalar.get("name"), scalar.get("oid"), _syntax(scalar),
                                             _access(scalar)))
    for table in nodes.findall("table"):
        lines.append("table %s %s" % (table.get("name"), table.get("oid")))
        for row in table.findall("row"):
            syntaxes = {}
            for col in row.findall("column"):
                syntaxes[col.get("name")] = _syntax(col)
                lines.append("column %s %s %s %s" % (col.get("name"), col.get("oid"), _syntax(col), _access(col)))
            linkage = row.find("linkage")
            indexes = [] if linkage is None else linkage.findall("index")
            names = [i.get("name") for i in indexes]
            index = ",".join(names) if names else None
            if len(names) == 1 and names[0] in syntaxes:
                text = syntaxes[names[0]] in ("DisplayString", "OctetString")
                encoding = "String" if text else "Integer"
                if linkage.get("implied") == "true":
                    encoding += "-IMPLIED"
            else:
                encoding = "?"
            lines.append("entry %s %s index=%s encoding=%s" % (row.get("name"), row.get("oid"), index, encoding))
    return sorted(lines)
