// libFuzzer target for the MIB description loader.
//
// Arbitrary bytes go to ParseMibDescription as the text of a description
// file. Whatever the input, the loader must not crash, leak or hit undefined
// behaviour, and:
//
// - a refused text comes with an error "<name>: [line N: ]<what>", N a line
//   of the text, and leaves the caller's description exactly as it was;
// - an accepted text gives what the loader promises the agent (docs/mib.md):
//   a module name, at least one object, objects sorted by OID, no prefix
//   equal to or under another, every prefix a valid OID spelt exactly as its
//   arcs, names that are descriptors and unique in the file, a scalar with
//   one column numbered 0 carrying its name, a table with read-only columns
//   sorted by unique numbers 1 to 4095 and an index column whose syntax fits
//   the index encoding; find() and column() answer every object and column
//   and nothing else;
// - an accepted description, written back as XML, parses to the very same
//   description, and parsing the text into a fresh description or into one
//   that already held objects gives the same result.
//
// Any broken expectation traps, which libFuzzer reports as a crash and saves
// the input.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "host/agent/mib_description.h"
#include "vempub/vem_decimal.h"

namespace {

using zerva_agent::MibColumn;
using zerva_agent::MibDescription;
using zerva_agent::MibIndexEncoding;
using zerva_agent::MibObject;
using zerva_agent::MibSyntax;

const char kName[] = "fuzz.xml";

// What the caller held before a parse: must survive every refused text.
const char kHeld[] = R"(<mib module="HELD-MIB">
  <scalar prefix="2.999.1" name="heldSwitch" syntax="Unsigned32" access="read-write"/>
  <table prefix="2.999.2" name="heldTable" entry="heldEntry" index="2" index-encoding="String">
    <column number="2" name="heldName" syntax="OctetString" access="read-only"/>
    <column number="1" name="heldCount" syntax="Counter64" access="read-only"/>
  </table>
</mib>
)";

bool SameColumn(const MibColumn& a, const MibColumn& b) {
  return a.number == b.number && a.name == b.name && a.syntax == b.syntax && a.writable == b.writable;
}

bool SameObject(const MibObject& a, const MibObject& b) {
  if (a.kind != b.kind || a.prefix != b.prefix || a.oid != b.oid || a.name != b.name || a.entryName != b.entryName ||
      a.indexColumn != b.indexColumn || a.indexEncoding != b.indexEncoding || a.columns.size() != b.columns.size()) {
    return false;
  }
  for (size_t i = 0; i < a.columns.size(); ++i) {
    if (!SameColumn(a.columns[i], b.columns[i])) return false;
  }
  return true;
}

bool SameDescription(const MibDescription& a, const MibDescription& b) {
  if (a.moduleName != b.moduleName || a.objects.size() != b.objects.size()) return false;
  for (size_t i = 0; i < a.objects.size(); ++i) {
    if (!SameObject(a.objects[i], b.objects[i])) return false;
  }
  return true;
}

// An SMIv2 descriptor: a lower-case letter, then letters and digits, at
// most 64 characters.
bool IsDescriptor(const std::string& s) {
  if (s.empty() || s.size() > 64 || s[0] < 'a' || s[0] > 'z') return false;
  for (char c : s) {
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))) return false;
  }
  return true;
}

std::string Dotted(const std::vector<unsigned long>& oid) {
  std::string s;
  for (size_t i = 0; i < oid.size(); ++i) {
    if (i > 0) s += '.';
    s += std::to_string(oid[i]);
  }
  return s;
}

bool IsPrefixOf(const std::vector<unsigned long>& a, const std::vector<unsigned long>& b) {
  return a.size() <= b.size() && std::equal(a.begin(), a.end(), b.begin());
}

bool KnownSyntax(MibSyntax syntax) { return std::string(zerva_agent::MibSyntaxName(syntax)) != "unknown"; }

// Everything the loader promises about an accepted description.
void CheckAccepted(const MibDescription& mib) {
  FUZZ_CHECK(!mib.moduleName.empty());
  FUZZ_CHECK(!mib.objects.empty());
  std::set<std::string> names;
  for (size_t i = 0; i < mib.objects.size(); ++i) {
    const MibObject& obj = mib.objects[i];
    // A valid OID, spelt exactly as its arcs.
    FUZZ_CHECK(obj.oid.size() >= 2 && obj.oid.size() <= 128);
    FUZZ_CHECK(obj.oid[0] <= 2);
    for (unsigned long arc : obj.oid) FUZZ_CHECK(arc <= 4294967295UL);
    FUZZ_CHECK(obj.prefix == Dotted(obj.oid));
    // Sorted by OID; no prefix equal to or under another one.
    if (i > 0) FUZZ_CHECK(mib.objects[i - 1].oid < obj.oid);
    for (size_t j = 0; j < i; ++j) {
      FUZZ_CHECK(!IsPrefixOf(mib.objects[j].oid, obj.oid));
      FUZZ_CHECK(!IsPrefixOf(obj.oid, mib.objects[j].oid));
    }
    FUZZ_CHECK(mib.find(obj.prefix) == &obj);

    FUZZ_CHECK(IsDescriptor(obj.name));
    FUZZ_CHECK(names.insert(obj.name).second);
    FUZZ_CHECK(!obj.columns.empty());
    if (obj.kind == MibObject::Scalar) {
      FUZZ_CHECK(obj.columns.size() == 1);
      const MibColumn& value = obj.columns[0];
      FUZZ_CHECK(value.number == 0);
      FUZZ_CHECK(value.name == obj.name);
      FUZZ_CHECK(KnownSyntax(value.syntax));
      FUZZ_CHECK(obj.entryName.empty());
      FUZZ_CHECK(obj.column(0) == &value);
      FUZZ_CHECK(obj.column(1) == nullptr);
      continue;
    }
    FUZZ_CHECK(obj.kind == MibObject::Table);
    FUZZ_CHECK(IsDescriptor(obj.entryName));
    FUZZ_CHECK(names.insert(obj.entryName).second);
    for (size_t c = 0; c < obj.columns.size(); ++c) {
      const MibColumn& col = obj.columns[c];
      FUZZ_CHECK(col.number >= 1 && col.number <= 4095);
      if (c > 0) FUZZ_CHECK(obj.columns[c - 1].number < col.number);
      FUZZ_CHECK(!col.writable);
      FUZZ_CHECK(KnownSyntax(col.syntax));
      FUZZ_CHECK(IsDescriptor(col.name));
      FUZZ_CHECK(names.insert(col.name).second);
      FUZZ_CHECK(obj.column(col.number) == &col);
      // The numbers between two columns are no column.
      if (c > 0 && obj.columns[c - 1].number + 1 < col.number) FUZZ_CHECK(obj.column(col.number - 1) == nullptr);
    }
    FUZZ_CHECK(obj.column(0) == nullptr);
    FUZZ_CHECK(obj.column(4096) == nullptr);
    const MibColumn* index = obj.column(obj.indexColumn);
    FUZZ_CHECK(index != nullptr);
    if (obj.indexEncoding == MibIndexEncoding::Integer) {
      FUZZ_CHECK(index->syntax == MibSyntax::Integer32 || index->syntax == MibSyntax::Unsigned32);
    } else {
      FUZZ_CHECK(obj.indexEncoding == MibIndexEncoding::String);
      FUZZ_CHECK(index->syntax == MibSyntax::DisplayString || index->syntax == MibSyntax::OctetString);
    }
  }
  FUZZ_CHECK(mib.find("") == nullptr);
}

// Text as an XML attribute value: markup characters and control bytes as
// character references, everything else as it is.
std::string Attr(const std::string& text) {
  std::string out;
  for (char ch : text) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if (c < 0x20 || c == '&' || c == '<' || c == '>' || c == '"' || c == '\'') {
      out += "&#" + std::to_string(c) + ";";
    } else {
      out += ch;
    }
  }
  return out;
}

const char* Access(bool writable) { return writable ? "read-write" : "read-only"; }

// An accepted description written back in the file format.
std::string ToXml(const MibDescription& mib) {
  std::string xml = "<mib module=\"" + Attr(mib.moduleName) + "\">\n";
  for (const MibObject& obj : mib.objects) {
    if (obj.kind == MibObject::Scalar) {
      const MibColumn& value = obj.columns[0];
      xml += "  <scalar prefix=\"" + obj.prefix + "\" name=\"" + value.name + "\" syntax=\"" +
             zerva_agent::MibSyntaxName(value.syntax) + "\" access=\"" + Access(value.writable) + "\"/>\n";
      continue;
    }
    xml += "  <table prefix=\"" + obj.prefix + "\" name=\"" + obj.name + "\" entry=\"" + obj.entryName + "\" index=\"" +
           std::to_string(obj.indexColumn) + "\" index-encoding=\"" +
           (obj.indexEncoding == MibIndexEncoding::Integer ? "Integer" : "String") + "\">\n";
    for (const MibColumn& col : obj.columns) {
      xml += "    <column number=\"" + std::to_string(col.number) + "\" name=\"" + col.name + "\" syntax=\"" +
             zerva_agent::MibSyntaxName(col.syntax) + "\" access=\"" + Access(col.writable) + "\"/>\n";
    }
    xml += "  </table>\n";
  }
  return xml + "</mib>\n";
}

// A refusal: "<name>: ", then "line N: " with N a line of the text (or
// none), then a reason.
void CheckError(const std::string& text, const std::string& error) {
  const std::string head = std::string(kName) + ": ";
  FUZZ_CHECK(error.compare(0, head.size(), head) == 0);
  std::string rest = error.substr(head.size());
  if (rest.compare(0, 5, "line ") == 0) {
    const size_t colon = rest.find(": ");
    FUZZ_CHECK(colon != std::string::npos && colon > 5);
    const std::string number = rest.substr(5, colon - 5);
    uint64_t line = 0;
    FUZZ_CHECK(ParseDecimal(number, UINT64_MAX, &line));
    FUZZ_CHECK(number[0] != '0');  // written by std::to_string
    const size_t lines = 1 + static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    FUZZ_CHECK(line >= 1 && line <= lines);
    rest = rest.substr(colon + 2);
  }
  FUZZ_CHECK(!rest.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static MibDescription held = [] {
    MibDescription mib;
    std::string error;
    FUZZ_CHECK(zerva_agent::ParseMibDescription(kHeld, "held.xml", mib, &error));
    return mib;
  }();

  const std::string text(reinterpret_cast<const char*>(data), size);

  // Parsed over a description that already holds objects.
  MibDescription out = held;
  std::string error;
  const bool accepted = zerva_agent::ParseMibDescription(text, kName, out, &error);
  if (!accepted) {
    CheckError(text, error);
    FUZZ_CHECK(SameDescription(out, held));
    return 0;
  }
  CheckAccepted(out);

  // Into a fresh description: the same result, whatever was there before.
  MibDescription fresh;
  std::string freshError;
  FUZZ_CHECK(zerva_agent::ParseMibDescription(text, kName, fresh, &freshError));
  FUZZ_CHECK(SameDescription(fresh, out));

  // Written back and read again: the same description.
  const std::string xml = ToXml(out);
  MibDescription again;
  std::string againError;
  const bool reparsed = zerva_agent::ParseMibDescription(xml, kName, again, &againError);
  if (!reparsed) std::fprintf(stderr, "mib_description_fuzz: written back: %s\n%s", againError.c_str(), xml.c_str());
  FUZZ_CHECK(reparsed);
  FUZZ_CHECK(SameDescription(again, out));
  return 0;
}
