#include "host/agent/mib_description.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "module/snmp_zerva_performance_module.h"
#include "snmpcommon/snmp_capability.h"
#include "tests/support/fake_backend.h"
#include "tests/support/kit_log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using zerva_agent::LoadMibDescription;
using zerva_agent::MibColumn;
using zerva_agent::MibDescription;
using zerva_agent::MibIndexEncoding;
using zerva_agent::MibObject;
using zerva_agent::MibSyntax;
using zerva_agent::MibSyntaxName;
using zerva_agent::ParseMibDescription;

// ---------------------------------------------------------------------------
// The loader on documents written here.

// A valid document: a table whose columns come out of order, a scalar, and a
// table with a text index, in no particular OID order.
const char kValid[] = R"(<?xml version="1.0"?>
<mib module="TEST-MIB">
  <!-- a comment is fine anywhere -->
  <table prefix="1.3.6.1.4.1.99.5" name="portTable" entry="portEntry" index="1" index-encoding="Integer">
    <column number="3" name="portName" syntax="DisplayString" access="read-only"/>
    <column number="1" name="portId" syntax="Unsigned32" access="read-only"/>
    <column number="2" name="portIops" syntax="Gauge32" access="read-only"/>
  </table>
  <scalar prefix="1.3.6.1.4.1.99.1" name="perfSwitch" syntax="Unsigned32" access="read-write"/>
  <table prefix="1.3.6.1.4.1.99.10" name="nfsTable" entry="nfsEntry" index="1" index-encoding="String">
    <column number="1" name="nfsCtrlId" syntax="DisplayString" access="read-only"/>
    <column number="2" name="nfsOps" syntax="Counter64" access="read-only"/>
  </table>
</mib>
)";

// A document of one scalar and the given table element.
std::string WithTable(const std::string& table) {
  return "<mib module=\"TEST-MIB\">\n"
         "  <scalar prefix=\"1.3.6.1.4.1.99.1\" name=\"perfSwitch\" syntax=\"Unsigned32\" access=\"read-write\"/>\n" +
         table + "</mib>\n";
}

// A table of the given attributes and column lines.
std::string Table(const std::string& attrs, const std::string& columns) {
  return "  <table " + attrs + ">\n" + columns + "  </table>\n";
}

const char kTableAttrs[] =
    R"(prefix="1.3.6.1.4.1.99.5" name="portTable" entry="portEntry" index="1" index-encoding="Integer")";
const char kIdColumn[] = "    <column number=\"1\" name=\"portId\" syntax=\"Unsigned32\" access=\"read-only\"/>\n";

// A column line.
std::string Column(const std::string& number, const std::string& name, const std::string& syntax,
                   const std::string& access = "read-only") {
  return "    <column number=\"" + number + "\" name=\"" + name + "\" syntax=\"" + syntax + "\" access=\"" + access +
         "\"/>\n";
}

// The error text of parsing xml as "test.xml", or "parsed" when it parses.
std::string ErrorOf(const std::string& xml) {
  MibDescription out;
  std::string error;
  if (ParseMibDescription(xml, "test.xml", out, &error)) return "parsed";
  return error;
}

// The error text of a document whose table has the ID column and then this
// column line (see ErrorOf).
std::string ErrorOfColumn(const std::string& column) {
  return ErrorOf(WithTable(Table(kTableAttrs, kIdColumn + column)));
}

TEST(MibDescriptionTest, ParsesScalarsAndTablesWithTheirColumnsSortedByNumber) {
  MibDescription mib;
  std::string error;
  ASSERT_TRUE(ParseMibDescription(kValid, "test.xml", mib, &error)) << error;
  EXPECT_EQ(mib.moduleName, "TEST-MIB");
  ASSERT_EQ(mib.objects.size(), 3u);

  const MibObject* port = mib.find("1.3.6.1.4.1.99.5");
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->kind, MibObject::Table);
  EXPECT_EQ(port->name, "portTable");
  EXPECT_EQ(port->entryName, "portEntry");
  EXPECT_EQ(port->oid, (std::vector<unsigned long>{1, 3, 6, 1, 4, 1, 99, 5}));
  EXPECT_EQ(port->indexColumn, 1u);
  EXPECT_EQ(port->indexEncoding, MibIndexEncoding::Integer);
  ASSERT_EQ(port->columns.size(), 3u);
  EXPECT_EQ(port->columns[0].number, 1u);
  EXPECT_EQ(port->columns[0].name, "portId");
  EXPECT_EQ(port->columns[0].syntax, MibSyntax::Unsigned32);
  EXPECT_EQ(port->columns[1].number, 2u);
  EXPECT_EQ(port->columns[1].syntax, MibSyntax::Gauge32);
  EXPECT_EQ(port->columns[2].number, 3u);
  EXPECT_EQ(port->columns[2].name, "portName");
  EXPECT_EQ(port->columns[2].syntax, MibSyntax::DisplayString);
  for (const MibColumn& col : port->columns) EXPECT_FALSE(col.writable) << col.name;

  const MibObject* nfs = mib.find("1.3.6.1.4.1.99.10");
  ASSERT_NE(nfs, nullptr);
  EXPECT_EQ(nfs->indexEncoding, MibIndexEncoding::String);
  EXPECT_EQ(nfs->column(2)->syntax, MibSyntax::Counter64);
}

TEST(MibDescriptionTest, AScalarHasOneColumnNumberedZeroWithItsNameSyntaxAndAccess) {
  MibDescription mib;
  ASSERT_TRUE(ParseMibDescription(kValid, "test.xml", mib, nullptr));
  const MibObject* scalar = mib.find("1.3.6.1.4.1.99.1");
  ASSERT_NE(scalar, nullptr);
  EXPECT_EQ(scalar->kind, MibObject::Scalar);
  EXPECT_EQ(scalar->name, "perfSwitch");
  ASSERT_EQ(scalar->columns.size(), 1u);
  EXPECT_EQ(scalar->columns[0].number, 0u);
  EXPECT_EQ(scalar->columns[0].name, "perfSwitch");
  EXPECT_EQ(scalar->columns[0].syntax, MibSyntax::Unsigned32);
  EXPECT_TRUE(scalar->columns[0].writable);
}

TEST(MibDescriptionTest, ObjectsAreInOidOrderWhateverTheirOrderInTheFile) {
  MibDescription mib;
  ASSERT_TRUE(ParseMibDescription(kValid, "test.xml", mib, nullptr));
  std::vector<std::string> prefixes;
  for (const MibObject& obj : mib.objects) prefixes.push_back(obj.prefix);
  // Numeric order: .10 after .5.
  EXPECT_THAT(prefixes, ElementsAre("1.3.6.1.4.1.99.1", "1.3.6.1.4.1.99.5", "1.3.6.1.4.1.99.10"));
}

TEST(MibDescriptionTest, ColumnAndFindAnswerNullForWhatIsNotThere) {
  MibDescription mib;
  ASSERT_TRUE(ParseMibDescription(kValid, "test.xml", mib, nullptr));
  EXPECT_EQ(mib.find("1.3.6.1.4.1.99.7"), nullptr);
  EXPECT_EQ(mib.find("1.3.6.1.4.1.99"), nullptr);
  EXPECT_EQ(mib.find(".1.3.6.1.4.1.99.5"), nullptr);
  const MibObject* port = mib.find("1.3.6.1.4.1.99.5");
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->column(0), nullptr);
  EXPECT_EQ(port->column(4), nullptr);
  ASSERT_NE(port->column(3), nullptr);
  EXPECT_EQ(port->column(3)->name, "portName");
}

TEST(MibDescriptionTest, EverySyntaxNameParsesToTheSyntaxItNames) {
  const std::map<std::string, MibSyntax> all = {
      {"Integer32", MibSyntax::Integer32},
      {"Unsigned32", MibSyntax::Unsigned32},
      {"Gauge32", MibSyntax::Gauge32},
      {"Counter32", MibSyntax::Counter32},
      {"Counter64", MibSyntax::Counter64},
      {"TimeTicks", MibSyntax::TimeTicks},
      {"DisplayString", MibSyntax::DisplayString},
      {"OctetString", MibSyntax::OctetString},
  };
  for (const auto& entry : all) {
    EXPECT_STREQ(MibSyntaxName(entry.second), entry.first.c_str());
    MibDescription mib;
    std::string error;
    ASSERT_TRUE(ParseMibDescription(WithTable(Table(kTableAttrs, kIdColumn + Column("2", "portValue", entry.first))),
                                    "test.xml", mib, &error))
        << error;
    EXPECT_EQ(mib.objects[1].column(2)->syntax, entry.second) << entry.first;
  }
}

TEST(MibDescriptionTest, UnknownSyntaxIsRefusedWithFileLineAndSyntax) {
  EXPECT_EQ(ErrorOfColumn(Column("2", "portIops", "Gauge")),
            "test.xml: line 5: table 'portTable': <column>: unknown syntax 'Gauge'");
  EXPECT_EQ(ErrorOfColumn(Column("2", "portIops", "gauge32")),
            "test.xml: line 5: table 'portTable': <column>: unknown syntax 'gauge32'");
}

TEST(MibDescriptionTest, DuplicateColumnNumberIsRefused) {
  EXPECT_EQ(ErrorOf(WithTable(
                Table(kTableAttrs, kIdColumn + Column("2", "portA", "Gauge32") + Column("2", "portB", "Gauge32")))),
            "test.xml: line 6: table 'portTable': duplicate column number 2");
}

TEST(MibDescriptionTest, MissingIndexAttributeIsRefused) {
  EXPECT_EQ(
      ErrorOf(WithTable(Table(
          R"(prefix="1.3.6.1.4.1.99.5" name="portTable" entry="portEntry" index-encoding="Integer")", kIdColumn))),
      "test.xml: line 3: table 'portTable': missing attribute 'index'");
}

TEST(MibDescriptionTest, IndexThatIsNotAColumnIsRefused) {
  EXPECT_EQ(ErrorOf(WithTable(Table(
                R"(prefix="1.3.6.1.4.1.99.5" name="portTable" entry="portEntry" index="7" index-encoding="Integer")",
                kIdColumn))),
            "test.xml: line 3: table 'portTable': index column 7 is not one of its columns");
  EXPECT_EQ(ErrorOf(WithTable(Table(
                R"(prefix="1.3.6.1.4.1.99.5" name="portTable" entry="portEntry" index="x" index-encoding="Integer")",
                kIdColumn))),
            "test.xml: line 3: table 'portTable': bad index column number 'x'");
}

TEST(MibDescriptionTest, IndexEncodingMustBeKnownAndFitTheIndexColumnSyntax) {
  const std::string text = Column("1", "portId", "DisplayString");
  EXPECT_EQ(ErrorOf(WithTable(Table(kTableAttrs, text))),
            "test.xml: line 3: table 'portTable': Integer index column 1 must be Integer32 or Unsigned32, not "
            "DisplayString");
  EXPECT_EQ(ErrorOf(WithTable(Table(
                R"(prefix="1.3.6.1.4.1.99.5" name="portTable" entry="portEntry" index="1" index-encoding="String")",
                kIdColumn))),
            "test.xml: line 3: table 'portTable': String index column 1 must be DisplayString or OctetString, not "
            "Unsigned32");
  EXPECT_EQ(ErrorOf(WithTable(Table(
                R"(prefix="1.3.6.1.4.1.99.5" name="portTable" entry="portEntry" index="1" index-encoding="Implied")",
                kIdColumn))),
            "test.xml: line 3: table 'portTable': unknown index-encoding 'Implied' (Integer or String)");
  EXPECT_EQ(ErrorOf(WithTable(Table(
                R"(prefix="1.3.6.1.4.1.99.5" name="portTable" entry="portEntry" index="1" index-encoding="String")",
                Column("1", "portId", "OctetString")))),
            "parsed");
}

TEST(MibDescriptionTest, PrefixThatIsNotAnOidIsRefused) {
  for (const std::string bad : {".1.3.6.1.4.1.99.5", "1.3.6.1.4.1.99.5.", "1..3", "1.3.a", "1", "1.3.4294967296",
                                "1.3.06", "1.3.-1", "1.3. 6", "3.1", "iso.3"}) {
    const std::string attrs =
        "prefix=\"" + bad + "\" name=\"portTable\" entry=\"portEntry\" index=\"1\" index-encoding=\"Integer\"";
    EXPECT_EQ(ErrorOf(WithTable(Table(attrs, kIdColumn))),
              "test.xml: line 3: table 'portTable': prefix '" + bad +
                  "' is not an OID (dotted decimal, no leading dot, at least two arcs)");
  }
  // The largest sub-identifier is fine.
  EXPECT_EQ(ErrorOf(WithTable(Table("prefix=\"1.3.4294967295\" name=\"portTable\" entry=\"portEntry\" index=\"1\" "
                                    "index-encoding=\"Integer\"",
                                    kIdColumn))),
            "parsed");
}

TEST(MibDescriptionTest, TheModuleOidIsReadWhenGivenAndEmptyWhenNot) {
  MibDescription mib;
  std::string error;
  const std::string scalar =
      "  <scalar prefix=\"1.3.6.1.4.1.99.1\" name=\"perfSwitch\" syntax=\"Unsigned32\" access=\"read-write\"/>\n";
  ASSERT_TRUE(ParseMibDescription("<mib module=\"TEST-MIB\" oid=\"1.3.6.1.4.1.99\">\n" + scalar + "</mib>\n",
                                  "test.xml", mib, &error))
      << error;
  EXPECT_EQ(mib.moduleOid, "1.3.6.1.4.1.99");
  EXPECT_EQ(mib.moduleArcs, (std::vector<unsigned long>{1, 3, 6, 1, 4, 1, 99}));
  MibDescription without;
  ASSERT_TRUE(ParseMibDescription(kValid, "test.xml", without, &error)) << error;
  EXPECT_EQ(without.moduleOid, "");
  EXPECT_TRUE(without.moduleArcs.empty());
}

TEST(MibDescriptionTest, AModuleOidThatIsNotAnOidIsRefused) {
  for (const std::string bad : {".1.3.6", "1", "1.3.x", ""}) {
    EXPECT_EQ(
        ErrorOf("<mib module=\"TEST-MIB\" oid=\"" + bad +
                "\">\n  <scalar prefix=\"1.3.6.1.4.1.99.1\" name=\"s\" syntax=\"Unsigned32\" "
                "access=\"read-only\"/>\n</mib>\n"),
        "test.xml: line 1: <mib>: oid '" + bad + "' is not an OID (dotted decimal, no leading dot, at least two arcs)");
  }
}

TEST(MibDescriptionTest, DuplicatePrefixesAreRefused) {
  EXPECT_EQ(ErrorOf(WithTable(Table(
                R"(prefix="1.3.6.1.4.1.99.1" name="portTable" entry="portEntry" index="1" index-encoding="Integer")",
                kIdColumn))),
            "test.xml: line 3: duplicate prefix '1.3.6.1.4.1.99.1'");
}

TEST(MibDescriptionTest, PrefixUnderAnotherObjectsPrefixIsRefused) {
  EXPECT_EQ(ErrorOf(WithTable(Table(
                R"(prefix="1.3.6.1.4.1.99.1.4" name="portTable" entry="portEntry" index="1" index-encoding="Integer")",
                kIdColumn))),
            "test.xml: line 3: prefix '1.3.6.1.4.1.99.1.4' overlaps prefix '1.3.6.1.4.1.99.1'");
}

TEST(MibDescriptionTest, TableWithoutColumnsIsRefused) {
  EXPECT_EQ(ErrorOf(WithTable(Table(kTableAttrs, ""))), "test.xml: line 3: table 'portTable': has no columns");
  EXPECT_EQ(ErrorOf(WithTable("  <table " + std::string(kTableAttrs) + "/>\n")),
            "test.xml: line 3: table 'portTable': has no columns");
}

TEST(MibDescriptionTest, BadColumnNumbersAreRefused) {
  for (const std::string bad : {"0", "-1", "+2", "abc", "", "4096", "2x", " 2", "02", "99999999999"}) {
    EXPECT_EQ(ErrorOfColumn(Column(bad, "portIops", "Gauge32")),
              bad.empty()
                  ? "test.xml: line 5: table 'portTable': <column>: empty attribute 'number'"
                  : "test.xml: line 5: table 'portTable': <column>: bad column number '" + bad + "' (1 to 4095)");
  }
  EXPECT_EQ(ErrorOfColumn(Column("4095", "portIops", "Gauge32")), "parsed");
}

TEST(MibDescriptionTest, DuplicateNamesAreRefused) {
  EXPECT_EQ(ErrorOfColumn(Column("2", "portId", "Gauge32")), "test.xml: line 3: duplicate name 'portId'");
  EXPECT_EQ(ErrorOfColumn(Column("2", "perfSwitch", "Gauge32")), "test.xml: line 3: duplicate name 'perfSwitch'");
}

TEST(MibDescriptionTest, BadNamesAreRefused) {
  EXPECT_EQ(ErrorOfColumn(Column("2", "Port-Iops", "Gauge32")),
            "test.xml: line 5: table 'portTable': <column>: bad name 'Port-Iops' (a lower-case letter, then letters "
            "and digits, at most 64)");
  EXPECT_EQ(
      ErrorOf(WithTable(Table(
          R"(prefix="1.3.6.1.4.1.99.5" name="portTable" entry="" index="1" index-encoding="Integer")", kIdColumn))),
      "test.xml: line 3: table 'portTable': empty attribute 'entry'");
}

TEST(MibDescriptionTest, TableColumnsMustBeReadOnlyAndAccessMustBeKnown) {
  EXPECT_EQ(ErrorOfColumn(Column("2", "portIops", "Gauge32", "read-write")),
            "test.xml: line 5: table 'portTable': column 2: table columns must be read-only");
  EXPECT_EQ(ErrorOfColumn(Column("2", "portIops", "Gauge32", "write-only")),
            "test.xml: line 5: table 'portTable': column 2: unknown access 'write-only' (read-only or read-write)");
  EXPECT_EQ(ErrorOf(R"(<mib module="M"><scalar prefix="1.3.1" name="s" syntax="Integer32"/></mib>)"),
            "test.xml: line 1: <scalar> 's': missing attribute 'access'");
}

TEST(MibDescriptionTest, UnknownElementsAndAttributesAreRefused) {
  EXPECT_EQ(ErrorOf(WithTable("  <row prefix=\"1.3.6.1.4.1.99.5\"/>\n")),
            "test.xml: line 3: <mib>: unknown element <row>");
  EXPECT_EQ(ErrorOf(WithTable(Table(kTableAttrs, std::string(kIdColumn) + "    <col number=\"2\"/>\n"))),
            "test.xml: line 5: table 'portTable': unexpected <col>");
  EXPECT_EQ(ErrorOf(WithTable(Table(kTableAttrs,
                                    "    <column number=\"1\" name=\"portId\" sytax=\"Unsigned32\" "
                                    "access=\"read-only\"/>\n"))),
            "test.xml: line 4: <column>: unknown attribute 'sytax'");
  EXPECT_EQ(
      ErrorOf(
          R"(<mib module="M" version="2"><scalar prefix="1.3.1" name="s" syntax="Integer32" access="read-only"/></mib>)"),
      "test.xml: line 1: <mib>: unknown attribute 'version'");
}

TEST(MibDescriptionTest, DocumentsThatAreNotAMibDescriptionAreRefused) {
  EXPECT_EQ(ErrorOf("<mib module=\"M\">\n  <scalar>\n</mib>\n"),
            "test.xml: line 3: not well-formed XML: Start-end tags mismatch");
  EXPECT_EQ(ErrorOf(""), "test.xml: line 1: not well-formed XML: No document element found");
  EXPECT_EQ(ErrorOf("<mibs module=\"M\"/>"), "test.xml: line 1: the root element must be <mib>, not <mibs>");
  EXPECT_EQ(ErrorOf("<mib/>"), "test.xml: line 1: <mib>: missing attribute 'module'");
  EXPECT_EQ(ErrorOf("<mib module=\"M\">\n</mib>"), "test.xml: line 1: <mib>: describes no objects");
  EXPECT_EQ(ErrorOf("<mib module=\"M\">text</mib>"), "test.xml: line 1: <mib>: unexpected text");
}

TEST(MibDescriptionTest, AFailedParseLeavesTheDescriptionAsItWas) {
  MibDescription mib;
  ASSERT_TRUE(ParseMibDescription(kValid, "test.xml", mib, nullptr));
  std::string error;
  EXPECT_FALSE(ParseMibDescription(WithTable(Table(kTableAttrs, "")), "test.xml", mib, &error));
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(mib.moduleName, "TEST-MIB");
  EXPECT_EQ(mib.objects.size(), 3u);
  // A null error pointer is allowed.
  EXPECT_FALSE(ParseMibDescription("<mib/>", "test.xml", mib, nullptr));
}

// A file in a fresh temporary directory, removed with the object.
class TempFile {
 public:
  explicit TempFile(const std::string& content) : path_(dir_.file("VEM-TEST.xml", content)) {}
  const std::string& path() const { return path_; }
  std::string missing() const { return dir_.path() + "/missing.xml"; }

 private:
  zerva_test::TempDir dir_;
  std::string path_;
};

TEST(MibDescriptionTest, LoadReadsAFileAndNamesItInErrors) {
  TempFile good(kValid);
  MibDescription mib;
  std::string error;
  ASSERT_TRUE(LoadMibDescription(good.path(), mib, &error)) << error;
  EXPECT_EQ(mib.objects.size(), 3u);

  TempFile bad(WithTable(Table(kTableAttrs, kIdColumn + Column("2", "portIops", "Float"))));
  EXPECT_FALSE(LoadMibDescription(bad.path(), mib, &error));
  EXPECT_EQ(error, bad.path() + ": line 5: table 'portTable': <column>: unknown syntax 'Float'");
}

TEST(MibDescriptionTest, LoadOfAMissingFileSaysItCannotOpenIt) {
  TempFile dir("");
  MibDescription mib;
  std::string error;
  EXPECT_FALSE(LoadMibDescription(dir.missing(), mib, &error));
  EXPECT_EQ(error, dir.missing() + ": cannot open: No such file or directory");
}

// ---------------------------------------------------------------------------
// The shipped VEM-PERFORMANCE.xml against the module.

const std::set<int> kAllFeatures = {SNMP_FEATURE_NFS, SNMP_FEATURE_CIFS, SNMP_FEATURE_FILESYSTEM_PERF};

// The shipped description, loaded once per test.
MibDescription Shipped() {
  MibDescription mib;
  std::string error;
  EXPECT_TRUE(LoadMibDescription(ZERVA_SHIPPED_MIB_XML, mib, &error)) << error;
  return mib;
}

// The host's list with every feature supported; deletes the handlers.
struct AllHandlers {
  CSnmpHandlerList entries;
  explicit AllHandlers(zerva_test::BackendFixture& fixture) {
    (void)fixture;  // the fixture's capability set is what the registry asks
    CSNMP_ZervaPerformanceSvcModule module;
    module.getSvcHandler(entries);
  }
  ~AllHandlers() {
    for (auto& entry : entries) delete entry.second;
  }
};

TEST(ShippedMibTest, LoadsAndNamesTheSmiModuleAndItsIdentity) {
  MibDescription mib = Shipped();
  EXPECT_EQ(mib.moduleName, "VEM-PERFORMANCE-MIB");
  EXPECT_EQ(mib.moduleOid, "1.3.6.1.4.1.32473.4.1.21");
}

TEST(ShippedMibTest, DescribesExactlyThePrefixesTheModuleRegistersWithAllFeatures) {
  zerva_test::BackendFixture fixture(kAllFeatures);
  AllHandlers handlers(fixture);
  std::set<std::string> registered;
  for (const auto& entry : handlers.entries) registered.insert(entry.first);
  ASSERT_EQ(registered.size(), 11u);
  std::set<std::string> described;
  for (const MibObject& obj : Shipped().objects) described.insert(obj.prefix);
  EXPECT_EQ(described, registered);
}

TEST(ShippedMibTest, LeafHandlersAreScalarsAndTableHandlersAreTables) {
  zerva_test::BackendFixture fixture(kAllFeatures);
  AllHandlers handlers(fixture);
  MibDescription mib = Shipped();
  for (const auto& entry : handlers.entries) {
    const MibObject* obj = mib.find(entry.first);
    ASSERT_NE(obj, nullptr) << entry.first;
    const bool leaf = dynamic_cast<CSnmpLeafHandler*>(entry.second) != nullptr;
    EXPECT_EQ(obj->kind, leaf ? MibObject::Scalar : MibObject::Table) << entry.first;
  }
}

TEST(ShippedMibTest, OnlyTheCollectionSwitchIsWritable) {
  MibDescription mib = Shipped();
  std::vector<std::string> writable;
  for (const MibObject& obj : mib.objects) {
    for (const MibColumn& col : obj.columns) {
      if (col.writable) writable.push_back(col.name);
    }
  }
  EXPECT_THAT(writable, ElementsAre("vemPerfSwitch"));
  const MibObject* sw = mib.find("1.3.6.1.4.1.32473.4.1.21.1");
  ASSERT_NE(sw, nullptr);
  EXPECT_EQ(sw->kind, MibObject::Scalar);
}

// Scripts the back end so that every handler answers one full row: the
// switch is on, each listing names one object and each statistics query
// answers as many values as its table asks for.
void ScriptOneRowEach(zerva_test::FakeBackend& backend) {
  using zerva_test::Answer;
  using zerva_test::Rec;
  for (unsigned long long type : {213ULL, 212ULL, 252ULL}) {
    const std::string id = std::to_string(type);
    backend.onListing(type, Answer{Rec().str(1, id).str(6, "P" + id).u32(64, 0)});
    backend.onStats(id + ":" + id, "1,2,3,4,5,6,7,8,9");
  }
  backend.onListing(235, Answer{Rec().str(1, "235").str(2, "FC1")});
  backend.onStats("235:235", "1,2,3,4,5,6,7,8,9");
  backend.onListing(207, Answer{Rec().str(1, "0A")});
  // The fake answers by object key, so the cache table gets the node's eleven
  // values for its three items and uses the first three.
  backend.onStats("207:0A", "1,2,3,4,5,6,7,8,9,10,11");
  for (const char* type : {"1000", "1001", "57636", "1002", "1003"}) backend.onStats(std::string(type) + ":0A", "1,2");
  // LUNs: one listed LUN, then the batch statistics command of the LUN table.
  backend.onListing(11, Answer{Rec().str(1, "7"), Rec().u32(4095, 1)});
  backend.on(59594907720ULL, Answer{Rec().str(13, "7").str(9, "1,2,3,4,5,6,7,8,9,10,11,12,13"), Rec().u32(4095, 1)});
  // File systems: the sorted listing.
  backend.on(55834583059ULL, Answer{Rec().str(1, "12"), Rec().u32(4095, 1)});
  backend.onStats("40:12", "1,2,3,4,5,6,7,8");
}

// The rows each handler answers, by prefix.
std::map<std::string, std::vector<std::unique_ptr<CTLVPackage>>> RowsOfEveryHandler() {
  zerva_test::KitLogCapture log;  // the LUN table logs each batch it fetches
  zerva_test::BackendFixture fixture(kAllFeatures);
  fixture.setSwitch(1);
  ScriptOneRowEach(fixture.backend());
  AllHandlers handlers(fixture);
  MibDescription mib = Shipped();
  std::map<std::string, std::vector<std::unique_ptr<CTLVPackage>>> rows;
  for (const auto& entry : handlers.entries) {
    const MibObject* obj = mib.find(entry.first);
    if (obj == nullptr) continue;  // reported by the prefix test
    std::unique_ptr<CTLVPackage> rsp(new CTLVPackage());
    CVEM_SnmpContext ctx;
    CTLVPackage req;
    const int rc = obj->kind == MibObject::Scalar ? entry.second->OnQueryLeaf(ctx, req, *rsp)
                                                  : entry.second->OnQueryTable(ctx, req, *rsp);
    EXPECT_EQ(rc, 0) << entry.first;
    EXPECT_FALSE(rsp->empty()) << entry.first;
    rows[entry.first].push_back(std::move(rsp));
  }
  return rows;
}

// Whether a cell of this TLV type and length can carry a value of the syntax.
bool CellFitsSyntax(const CTLVCell& cell, MibSyntax syntax) {
  switch (syntax) {
    case MibSyntax::DisplayString:
    case MibSyntax::OctetString:
      return cell.type() == CTLVCell::TLV_TYPE_STRING;
    case MibSyntax::Integer32:
      return cell.type() == CTLVCell::TLV_TYPE_INT && cell.length() <= 4;
    case MibSyntax::Counter64:
      return (cell.type() == CTLVCell::TLV_TYPE_UINT || cell.type() == CTLVCell::TLV_TYPE_UINT64) && cell.length() <= 8;
    default:
      return cell.type() == CTLVCell::TLV_TYPE_UINT && cell.length() <= 4;
  }
}

TEST(ShippedMibTest, EveryCellEveryHandlerAnswersIsADescribedColumnOfAFittingSyntax) {
  auto rows = RowsOfEveryHandler();
  ASSERT_EQ(rows.size(), 11u);
  MibDescription mib = Shipped();
  for (const auto& entry : rows) {
    const MibObject* obj = mib.find(entry.first);
    ASSERT_NE(obj, nullptr);
    for (const auto& pkg : entry.second) {
      for (const CTLVRecordV3* record : pkg->records()) {
        for (const CTLVCell* cell : record->cells()) {
          const MibColumn* col = obj->column(cell->tag());
          ASSERT_NE(col, nullptr) << entry.first << ": cell tag " << cell->tag() << " is not described";
          EXPECT_TRUE(CellFitsSyntax(*cell, col->syntax))
              << entry.first << " column " << col->number << " (" << col->name << "): cell type " << cell->type()
              << ", length " << cell->length() << " does not fit " << MibSyntaxName(col->syntax);
        }
      }
    }
  }
}

TEST(ShippedMibTest, EveryDescribedColumnIsAnsweredByItsHandler) {
  auto rows = RowsOfEveryHandler();
  MibDescription mib = Shipped();
  for (const MibObject& obj : mib.objects) {
    std::set<unsigned int> answered;
    for (const auto& pkg : rows[obj.prefix]) {
      for (const CTLVRecordV3* record : pkg->records()) {
        for (const CTLVCell* cell : record->cells()) answered.insert(cell->tag());
      }
    }
    for (const MibColumn& col : obj.columns) {
      EXPECT_EQ(answered.count(col.number), 1u)
          << obj.prefix << ": column " << col.number << " (" << col.name << ") is never answered";
    }
  }
}

TEST(ShippedMibTest, TextIndexedTablesAreExactlyThoseWhoseIndexCellIsText) {
  auto rows = RowsOfEveryHandler();
  MibDescription mib = Shipped();
  for (const MibObject& obj : mib.objects) {
    if (obj.kind != MibObject::Table) continue;
    for (const auto& pkg : rows[obj.prefix]) {
      for (const CTLVRecordV3* record : pkg->records()) {
        const CTLVCell* index = (*record)[static_cast<unsigned short>(obj.indexColumn)];
        ASSERT_NE(index, nullptr) << obj.prefix;
        const bool text = index->type() == CTLVCell::TLV_TYPE_STRING;
        EXPECT_EQ(obj.indexEncoding, text ? MibIndexEncoding::String : MibIndexEncoding::Integer) << obj.prefix;
      }
    }
  }
}

}  // namespace
