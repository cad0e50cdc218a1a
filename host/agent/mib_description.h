// The MIB description file a service module names (VEM-PERFORMANCE.xml):
// what the agent needs to turn handler rows into varbinds and SET requests
// into request packages.
#ifndef ZERVA_AGENT_MIB_DESCRIPTION_H_
#define ZERVA_AGENT_MIB_DESCRIPTION_H_

#include <string>
#include <vector>

namespace zerva_agent {

enum class MibSyntax {
  Integer32,
  Unsigned32,
  Gauge32,
  Counter32,
  Counter64,
  TimeTicks,
  DisplayString,  // text; a cell's terminating NUL is not part of the value
  OctetString,
};

// How a table's index column becomes the OID suffix of its rows.
enum class MibIndexEncoding {
  Integer,  // one sub-identifier, the column's unsigned value
  String,   // OCTET STRING index: length, then one sub-identifier per byte
};

struct MibColumn {
  unsigned int number = 0;  // the column's sub-identifier = the row cell's tag
  std::string name;
  MibSyntax syntax = MibSyntax::Integer32;
  bool writable = false;  // read-write (only scalars are writable in this module)
};

struct MibObject {
  enum Kind { Scalar, Table } kind = Scalar;
  std::string prefix;              // dotted decimal, no leading dot: the handler's registration prefix
  std::vector<unsigned long> oid;  // prefix as sub-identifiers
  std::string name;                // scalar object or table name
  // Scalar: its one column (number 0 = the value's cell tag); the instance
  // is prefix.0.
  // Table: entry = prefix.1, column c of row index i = prefix.1.c.i.
  std::string entryName;
  unsigned int indexColumn = 0;
  MibIndexEncoding indexEncoding = MibIndexEncoding::Integer;
  std::vector<MibColumn> columns;  // sorted by number, numbers unique

  const MibColumn* column(unsigned int number) const;
};

struct MibDescription {
  std::string moduleName;  // e.g. "VEM-PERFORMANCE-MIB"
  // The module's MODULE-IDENTITY OID (the oid attribute of <mib>), dotted
  // decimal: the agent lists it in sysORTable. "" when the file names none.
  std::string moduleOid;
  std::vector<unsigned long> moduleArcs;  // moduleOid's numbers
  std::vector<MibObject> objects;

  // The object registered under exactly this prefix, or null.
  const MibObject* find(const std::string& prefix) const;
};

// Reads and checks a description file. On failure returns false and sets
// *error to "<path>: <what is wrong>" (unknown syntax, duplicate column,
// missing index column, a prefix that is not an OID, ...).
bool LoadMibDescription(const std::string& path, MibDescription& out, std::string* error);
// The same from text already in memory (name is used in error texts).
bool ParseMibDescription(const std::string& xml, const std::string& name, MibDescription& out, std::string* error);

const char* MibSyntaxName(MibSyntax syntax);

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_MIB_DESCRIPTION_H_
