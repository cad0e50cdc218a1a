// Loader of the MIB description file (format: docs/mib.md).
//
// The file is checked as a whole before anything is handed out: an error
// names the file, the line and what is wrong, and the caller's description is
// left untouched.
#include "host/agent/mib_description.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <pugixml.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "vempub/vem_decimal.h"

namespace zerva_agent {

namespace {

// Cell tags are 12 bits wide, so a column number is 1..4095 (0 is the
// value cell of a scalar).
const unsigned long kMaxColumnNumber = 4095;
// SNMP sub-identifiers are unsigned 32-bit numbers.
const unsigned long kMaxSubIdentifier = 4294967295UL;
// SMIv2 descriptors are at most 64 characters long.
const size_t kMaxNameLength = 64;

struct SyntaxEntry {
  MibSyntax syntax;
  const char* name;
};

const SyntaxEntry kSyntaxes[] = {
    {MibSyntax::Integer32, "Integer32"},
    {MibSyntax::Unsigned32, "Unsigned32"},
    {MibSyntax::Gauge32, "Gauge32"},
    {MibSyntax::Counter32, "Counter32"},
    {MibSyntax::Counter64, "Counter64"},
    {MibSyntax::TimeTicks, "TimeTicks"},
    {MibSyntax::DisplayString, "DisplayString"},
    {MibSyntax::OctetString, "OctetString"},
};

// A validation failure: where (a node of the document) and what.
class Checker {
 public:
  Checker(const std::string& name, const std::string& text) : name_(name), text_(text) {}

  // Records the first failure; later ones are ignored. Always returns false.
  bool Fail(const pugi::xml_node& where, const std::string& what) {
    if (message_.empty()) {
      message_ = name_ + ": ";
      if (where) message_ += "line " + std::to_string(LineOf(where.offset_debug())) + ": ";
      message_ += what;
    }
    return false;
  }
  // The same for a failure with no node to point at.
  bool FailAt(ptrdiff_t offset, const std::string& what) {
    if (message_.empty()) {
      message_ = name_ + ": ";
      if (offset >= 0) message_ += "line " + std::to_string(LineOf(offset)) + ": ";
      message_ += what;
    }
    return false;
  }
  const std::string& message() const { return message_; }

 private:
  // The 1-based line of a byte offset into the text.
  size_t LineOf(ptrdiff_t offset) const {
    if (offset < 0) return 0;
    const size_t end = std::min(static_cast<size_t>(offset), text_.size());
    return 1 + static_cast<size_t>(std::count(text_.begin(), text_.begin() + end, '\n'));
  }

  const std::string& name_;
  const std::string& text_;
  std::string message_;
};

// Sub-identifiers (OID arcs, column numbers) are identifiers and must be
// written in canonical form, as the registry and the SMIv2 module spell them:
// no leading zero but "0" itself ("1.3.06" is not "1.3.6").
bool HasLeadingZero(const std::string& text) { return text.size() > 1 && text[0] == '0'; }

// Splits a dotted-decimal OID ("1.3.6", no leading dot) into sub-identifiers.
bool ParseOid(const std::string& text, std::vector<unsigned long>* out) {
  std::vector<unsigned long> arcs;
  size_t start = 0;
  while (true) {
    const size_t dot = text.find('.', start);
    const std::string arc = text.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
    uint64_t value = 0;
    if (HasLeadingZero(arc) || !ParseDecimal(arc, kMaxSubIdentifier, &value)) return false;
    arcs.push_back(static_cast<unsigned long>(value));
    if (dot == std::string::npos) break;
    start = dot + 1;
  }
  if (arcs.size() < 2 || arcs.size() > 128 || arcs[0] > 2) return false;
  *out = std::move(arcs);
  return true;
}

bool ParseSyntax(const std::string& text, MibSyntax* out) {
  for (const SyntaxEntry& entry : kSyntaxes) {
    if (text == entry.name) {
      *out = entry.syntax;
      return true;
    }
  }
  return false;
}

// True for an SMIv2 descriptor: a lower-case letter, then letters and digits.
bool IsDescriptor(const std::string& text) {
  if (text.empty() || text.size() > kMaxNameLength) return false;
  if (text[0] < 'a' || text[0] > 'z') return false;
  for (char c : text) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!ok) return false;
  }
  return true;
}

bool IsTextSyntax(MibSyntax syntax) { return syntax == MibSyntax::DisplayString || syntax == MibSyntax::OctetString; }

std::string Quoted(const std::string& text) { return "'" + text + "'"; }

// Checks that an element has only the attributes listed.
bool CheckAttributes(Checker& check, const pugi::xml_node& node, std::initializer_list<const char*> allowed) {
  for (const pugi::xml_attribute& attr : node.attributes()) {
    bool known = false;
    for (const char* name : allowed) known = known || std::strcmp(attr.name(), name) == 0;
    if (!known) {
      return check.Fail(node, "<" + std::string(node.name()) + ">: unknown attribute " + Quoted(attr.name()));
    }
  }
  return true;
}

// Reads a required, non-empty attribute into *out.
bool Required(Checker& check, const pugi::xml_node& node, const char* attr, const std::string& what, std::string* out) {
  const pugi::xml_attribute a = node.attribute(attr);
  if (!a) return check.Fail(node, what + ": missing attribute " + Quoted(attr));
  *out = a.value();
  if (out->empty()) return check.Fail(node, what + ": empty attribute " + Quoted(attr));
  return true;
}

// Reads an access attribute: true into *writable for "read-write".
bool ParseAccess(Checker& check, const pugi::xml_node& node, const std::string& what, bool* writable) {
  std::string access;
  if (!Required(check, node, "access", what, &access)) return false;
  if (access == "read-only") {
    *writable = false;
  } else if (access == "read-write") {
    *writable = true;
  } else {
    return check.Fail(node, what + ": unknown access " + Quoted(access) + " (read-only or read-write)");
  }
  return true;
}

// Reads the name and syntax attributes of a scalar or column.
bool ParseNameAndSyntax(Checker& check, const pugi::xml_node& node, const std::string& what, MibColumn* col) {
  if (!Required(check, node, "name", what, &col->name)) return false;
  if (!IsDescriptor(col->name)) {
    return check.Fail(
        node, what + ": bad name " + Quoted(col->name) + " (a lower-case letter, then letters and digits, at most 64)");
  }
  std::string syntax;
  if (!Required(check, node, "syntax", what, &syntax)) return false;
  if (!ParseSyntax(syntax, &col->syntax)) return check.Fail(node, what + ": unknown syntax " + Quoted(syntax));
  return true;
}

// Reads the prefix attribute of an object into obj->prefix and obj->oid.
bool ParsePrefix(Checker& check, const pugi::xml_node& node, const std::string& what, MibObject* obj) {
  if (!Required(check, node, "prefix", what, &obj->prefix)) return false;
  if (!ParseOid(obj->prefix, &obj->oid)) {
    return check.Fail(node, what + ": prefix " + Quoted(obj->prefix) +
                                " is not an OID (dotted decimal, no leading dot, at least two arcs)");
  }
  return true;
}

// <scalar prefix name syntax access/>: one value cell, tag 0.
bool ParseScalar(Checker& check, const pugi::xml_node& node, MibObject* obj) {
  const std::string what = "<scalar>";
  if (!CheckAttributes(check, node, {"prefix", "name", "syntax", "access"})) return false;
  if (node.first_child()) return check.Fail(node, what + ": unexpected content");
  obj->kind = MibObject::Scalar;
  if (!ParsePrefix(check, node, what, obj)) return false;
  MibColumn value;
  value.number = 0;
  if (!ParseNameAndSyntax(check, node, what, &value)) return false;
  if (!ParseAccess(check, node, what + " " + Quoted(value.name), &value.writable)) return false;
  obj->name = value.name;
  obj->columns.push_back(value);
  return true;
}

// <column number name syntax access/> of a table.
bool ParseColumn(Checker& check, const pugi::xml_node& node, const std::string& table, MibColumn* col) {
  const std::string what = "table " + Quoted(table) + ": <column>";
  if (!CheckAttributes(check, node, {"number", "name", "syntax", "access"})) return false;
  if (node.first_child()) return check.Fail(node, what + ": unexpected content");
  std::string number;
  if (!Required(check, node, "number", what, &number)) return false;
  uint64_t value = 0;
  if (HasLeadingZero(number) || !ParseDecimal(number, kMaxColumnNumber, &value) || value == 0) {
    return check.Fail(node, what + ": bad column number " + Quoted(number) + " (1 to 4095)");
  }
  col->number = static_cast<unsigned int>(value);
  if (!ParseNameAndSyntax(check, node, what, col)) return false;
  const std::string column = "table " + Quoted(table) + ": column " + std::to_string(col->number);
  if (!ParseAccess(check, node, column, &col->writable)) return false;
  // The agent answers table reads only; a writable column would promise a
  // SET that nothing can carry out.
  if (col->writable) return check.Fail(node, column + ": table columns must be read-only");
  return true;
}

// Checks the index attributes of a table against its (sorted) columns.
bool CheckIndex(Checker& check, const pugi::xml_node& node, const std::string& index, const std::string& encoding,
                MibObject* obj) {
  const std::string what = "table " + Quoted(obj->name);
  uint64_t number = 0;
  if (HasLeadingZero(index) || !ParseDecimal(index, kMaxColumnNumber, &number) || number == 0) {
    return check.Fail(node, what + ": bad index column number " + Quoted(index));
  }
  obj->indexColumn = static_cast<unsigned int>(number);
  const MibColumn* column = obj->column(obj->indexColumn);
  if (column == nullptr) {
    return check.Fail(node, what + ": index column " + index + " is not one of its columns");
  }
  if (encoding == "Integer") {
    obj->indexEncoding = MibIndexEncoding::Integer;
    if (column->syntax != MibSyntax::Integer32 && column->syntax != MibSyntax::Unsigned32) {
      return check.Fail(node, what + ": Integer index column " + index + " must be Integer32 or Unsigned32, not " +
                                  MibSyntaxName(column->syntax));
    }
  } else if (encoding == "String") {
    obj->indexEncoding = MibIndexEncoding::String;
    if (!IsTextSyntax(column->syntax)) {
      return check.Fail(node, what + ": String index column " + index + " must be DisplayString or OctetString, not " +
                                  MibSyntaxName(column->syntax));
    }
  } else {
    return check.Fail(node, what + ": unknown index-encoding " + Quoted(encoding) + " (Integer or String)");
  }
  return true;
}

// <table prefix name entry index index-encoding> with <column> children.
bool ParseTable(Checker& check, const pugi::xml_node& node, MibObject* obj) {
  if (!CheckAttributes(check, node, {"prefix", "name", "entry", "index", "index-encoding"})) return false;
  obj->kind = MibObject::Table;
  if (!Required(check, node, "name", "<table>", &obj->name)) return false;
  const std::string what = "table " + Quoted(obj->name);
  if (!IsDescriptor(obj->name)) return check.Fail(node, "<table>: bad name " + Quoted(obj->name));
  if (!ParsePrefix(check, node, what, obj)) return false;
  if (!Required(check, node, "entry", what, &obj->entryName)) return false;
  if (!IsDescriptor(obj->entryName)) return check.Fail(node, what + ": bad entry name " + Quoted(obj->entryName));
  std::string index, encoding;
  if (!Required(check, node, "index", what, &index)) return false;
  if (!Required(check, node, "index-encoding", what, &encoding)) return false;

  for (const pugi::xml_node& child : node.children()) {
    if (child.type() == pugi::node_comment) continue;
    if (child.type() != pugi::node_element || std::strcmp(child.name(), "column") != 0) {
      return check.Fail(child, what + ": unexpected " +
                                   (child.type() == pugi::node_element ? "<" + std::string(child.name()) + ">"
                                                                       : std::string("text")));
    }
    MibColumn col;
    if (!ParseColumn(check, child, obj->name, &col)) return false;
    if (obj->column(col.number) != nullptr) {
      return check.Fail(child, what + ": duplicate column number " + std::to_string(col.number));
    }
    // Keep the columns sorted as they come in so column() can search.
    auto pos = std::lower_bound(obj->columns.begin(), obj->columns.end(), col.number,
                                [](const MibColumn& c, unsigned int n) { return c.number < n; });
    obj->columns.insert(pos, col);
  }
  if (obj->columns.empty()) return check.Fail(node, what + ": has no columns");
  return CheckIndex(check, node, index, encoding, obj);
}

// True when prefix a is b or lies under b (or the other way round).
bool Overlaps(const std::vector<unsigned long>& a, const std::vector<unsigned long>& b) {
  const size_t n = std::min(a.size(), b.size());
  return std::equal(a.begin(), a.begin() + static_cast<ptrdiff_t>(n), b.begin());
}

// Checks what concerns the file as a whole: unique names and prefixes that
// do not nest. REQUIRES: nodes[i] is the element of objects[i].
bool CheckWhole(Checker& check, const std::vector<MibObject>& objects, const std::vector<pugi::xml_node>& nodes) {
  std::set<std::string> names;
  for (size_t i = 0; i < objects.size(); ++i) {
    const MibObject& obj = objects[i];
    for (size_t j = 0; j < i; ++j) {
      if (objects[j].oid == obj.oid) return check.Fail(nodes[i], "duplicate prefix " + Quoted(obj.prefix));
      if (Overlaps(objects[j].oid, obj.oid)) {
        return check.Fail(nodes[i], "prefix " + Quoted(obj.prefix) + " overlaps prefix " + Quoted(objects[j].prefix));
      }
    }
    std::vector<std::string> own = {obj.name};
    if (obj.kind == MibObject::Table) {
      own.push_back(obj.entryName);
      for (const MibColumn& col : obj.columns) own.push_back(col.name);
    }
    for (const std::string& name : own) {
      if (!names.insert(name).second) return check.Fail(nodes[i], "duplicate name " + Quoted(name));
    }
  }
  return true;
}

// Parses the document into *out. REQUIRES: out != nullptr.
bool ParseDocument(Checker& check, const pugi::xml_document& doc, MibDescription* out) {
  const pugi::xml_node root = doc.document_element();
  if (std::strcmp(root.name(), "mib") != 0) {
    return check.Fail(root, "the root element must be <mib>, not <" + std::string(root.name()) + ">");
  }
  if (!CheckAttributes(check, root, {"module", "oid"})) return false;
  if (!Required(check, root, "module", "<mib>", &out->moduleName)) return false;
  if (root.attribute("oid")) {
    out->moduleOid = root.attribute("oid").value();
    if (!ParseOid(out->moduleOid, &out->moduleArcs)) {
      return check.Fail(root, "<mib>: oid " + Quoted(out->moduleOid) +
                                  " is not an OID (dotted decimal, no leading dot, at least two arcs)");
    }
  }

  std::vector<pugi::xml_node> nodes;
  for (const pugi::xml_node& child : root.children()) {
    if (child.type() == pugi::node_comment) continue;
    if (child.type() != pugi::node_element) return check.Fail(child, "<mib>: unexpected text");
    MibObject obj;
    if (std::strcmp(child.name(), "scalar") == 0) {
      if (!ParseScalar(check, child, &obj)) return false;
    } else if (std::strcmp(child.name(), "table") == 0) {
      if (!ParseTable(check, child, &obj)) return false;
    } else {
      return check.Fail(child, "<mib>: unknown element <" + std::string(child.name()) + ">");
    }
    out->objects.push_back(std::move(obj));
    nodes.push_back(child);
  }
  if (out->objects.empty()) return check.Fail(root, "<mib>: describes no objects");
  if (!CheckWhole(check, out->objects, nodes)) return false;
  std::sort(out->objects.begin(), out->objects.end(),
            [](const MibObject& a, const MibObject& b) { return a.oid < b.oid; });
  return true;
}

void SetError(std::string* error, const std::string& message) {
  if (error != nullptr) *error = message;
}

}  // namespace

const MibColumn* MibObject::column(unsigned int number) const {
  auto pos = std::lower_bound(columns.begin(), columns.end(), number,
                              [](const MibColumn& c, unsigned int n) { return c.number < n; });
  return pos != columns.end() && pos->number == number ? &*pos : nullptr;
}

const MibObject* MibDescription::find(const std::string& prefix) const {
  for (const MibObject& obj : objects) {
    if (obj.prefix == prefix) return &obj;
  }
  return nullptr;
}

const char* MibSyntaxName(MibSyntax syntax) {
  for (const SyntaxEntry& entry : kSyntaxes) {
    if (entry.syntax == syntax) return entry.name;
  }
  return "unknown";
}

bool ParseMibDescription(const std::string& xml, const std::string& name, MibDescription& out, std::string* error) {
  Checker check(name, xml);
  pugi::xml_document doc;
  const pugi::xml_parse_result parsed =
      doc.load_buffer(xml.data(), xml.size(), pugi::parse_default | pugi::parse_comments);
  if (!parsed) {
    check.FailAt(parsed.offset, std::string("not well-formed XML: ") + parsed.description());
    SetError(error, check.message());
    return false;
  }
  MibDescription result;
  if (!ParseDocument(check, doc, &result)) {
    SetError(error, check.message());
    return false;
  }
  out = std::move(result);
  return true;
}

bool LoadMibDescription(const std::string& path, MibDescription& out, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    SetError(error, path + ": cannot open: " + std::strerror(errno));
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) {
    SetError(error, path + ": cannot read");
    return false;
  }
  return ParseMibDescription(text.str(), path, out, error);
}

}  // namespace zerva_agent
