// The groups every SNMP device serves, which network management systems
// start their discovery with: the standalone agent serves them from
// Net-SNMP's own MIB modules (system group, sysORTable, snmp group,
// snmpEngine, USM, VACM) and sends a coldStart to its trap sinks; as an
// AgentX sub-agent and as a dlmod module the groups stay snmpd's and only
// our sysORTable entry is added there.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/e2e_support.h"
#include "zerva_version.h"

namespace zerva_e2e {
namespace {

using zerva_test::FreeUdpPort;
using zerva_test::kSwitch;
using zerva_test::LinesWith;
using zerva_test::Process;
using zerva_test::ReadFile;
using zerva_test::Snmp;
using zerva_test::StockSnmpd;
using zerva_test::TempDir;

const char kSysDescr[] = ".1.3.6.1.2.1.1.1.0";
const char kSysObjectId[] = ".1.3.6.1.2.1.1.2.0";
const char kSysUpTime[] = ".1.3.6.1.2.1.1.3.0";
const char kSysContact[] = ".1.3.6.1.2.1.1.4.0";
const char kSysName[] = ".1.3.6.1.2.1.1.5.0";
const char kSysLocation[] = ".1.3.6.1.2.1.1.6.0";
const char kSysOREntry[] = ".1.3.6.1.2.1.1.9.1";
const char kSnmpInPkts[] = ".1.3.6.1.2.1.11.1.0";
const char kSnmpEngineBoots[] = ".1.3.6.1.6.3.10.2.1.2.0";
// VEM-PERFORMANCE-MIB::vemSnmpAgentProduct.
const char kProductOid[] = ".1.3.6.1.4.1.32473.4.2.1";
// The module's sysORTable row as SysORRows() gives it.
const char kModuleRow[] = ".1.3.6.1.4.1.32473.4.1.21 \"The MIB module VEM-PERFORMANCE-MIB\"";

// The value of one GET as snmpget prints it with -Oqv (strings quoted).
std::string ValueOf(const Snmp& snmp, const std::string& oid) {
  std::string out = snmp.tool("snmpget", "-v2c -c public", "-Oqv -On " + oid);
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

// The sysORTable rows as "sysORID sysORDescr" lines, in table order.
std::vector<std::string> SysORRows(const Snmp& snmp) {
  const std::string ids = snmp.tool("snmpwalk", "-v2c -c public", "-Oqv -On " + std::string(kSysOREntry) + ".2");
  const std::string descrs = snmp.tool("snmpwalk", "-v2c -c public", "-Oqv -On " + std::string(kSysOREntry) + ".3");
  std::vector<std::string> idLines = LinesWith(ids, ".");
  std::vector<std::string> descrLines = LinesWith(descrs, "\"");
  std::vector<std::string> rows;
  for (size_t i = 0; i < idLines.size() && i < descrLines.size(); ++i) rows.push_back(idLines[i] + " " + descrLines[i]);
  return rows;
}

bool HasRow(const std::vector<std::string>& rows, const std::string& row) {
  return std::find(rows.begin(), rows.end(), row) != rows.end();
}

class StandardGroupsTest : public ::testing::Test {
 protected:
  void start(const std::string& extraConfig) {
    AgentUnderTest::Options options = SmallArray();
    options.wholeView = true;
    options.extraConfig += extraConfig;
    std::string error;
    ASSERT_TRUE(agent_.start(options, &error)) << error;
  }
  AgentUnderTest agent_;
};

TEST_F(StandardGroupsTest, TheSystemGroupNamesThisProductAndTakesContactNameAndLocationFromTheConfiguration) {
  ASSERT_NO_FATAL_FAILURE(start("sysContact storage-ops@example.org\nsysName array-7\nsysLocation hall 2, rack 7\n"));
  const Snmp& snmp = agent_.snmp();
  EXPECT_EQ(ValueOf(snmp, kSysDescr), std::string("\"zerva-snmp-agent ") + ZERVA_VERSION +
                                          ": performance statistics of the Zerva storage array "
                                          "(VEM-PERFORMANCE-MIB)\"");
  EXPECT_EQ(ValueOf(snmp, kSysObjectId), kProductOid);
  EXPECT_EQ(ValueOf(snmp, kSysContact), "\"storage-ops@example.org\"");
  EXPECT_EQ(ValueOf(snmp, kSysName), "\"array-7\"");
  EXPECT_EQ(ValueOf(snmp, kSysLocation), "\"hall 2, rack 7\"");
}

TEST_F(StandardGroupsTest, SysUpTimeIsTheAgentsUpTimeAndGrows) {
  ASSERT_NO_FATAL_FAILURE(start(""));
  const Snmp& snmp = agent_.snmp();
  // -Ot: TimeTicks as hundredths of a second.
  const long a = std::stol(snmp.tool("snmpget", "-v2c -c public", "-Oqvt -On " + std::string(kSysUpTime)));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const long b = std::stol(snmp.tool("snmpget", "-v2c -c public", "-Oqvt -On " + std::string(kSysUpTime)));
  EXPECT_GE(b - a, 20) << a << " " << b;
  EXPECT_LT(a, 60 * 100) << "the agent started less than a minute ago";
}

TEST_F(StandardGroupsTest, SysORTableListsTheServedMibModuleBesideNetSnmpsOwn) {
  ASSERT_NO_FATAL_FAILURE(start(""));
  const std::vector<std::string> rows = SysORRows(agent_.snmp());
  EXPECT_TRUE(HasRow(rows, kModuleRow)) << ::testing::PrintToString(rows);
  EXPECT_TRUE(HasRow(rows, ".1.3.6.1.6.3.1 \"The MIB module for SNMPv2 entities\"")) << ::testing::PrintToString(rows);
  EXPECT_TRUE(HasRow(rows,
                     ".1.3.6.1.6.3.15.2.1.1 \"The management information definitions for the SNMP User-based "
                     "Security Model.\""))
      << ::testing::PrintToString(rows);
  EXPECT_TRUE(HasRow(rows, ".1.3.6.1.6.3.16.2.2.1 \"View-based Access Control Model for SNMP.\""))
      << ::testing::PrintToString(rows);
}

TEST_F(StandardGroupsTest, TheSnmpGroupCountsRequestsAndTheEngineUsmAndVacmGroupsAnswer) {
  ASSERT_NO_FATAL_FAILURE(start(""));
  const Snmp& snmp = agent_.snmp();
  const long before = std::stol(ValueOf(snmp, kSnmpInPkts));
  for (int i = 0; i < 5; ++i) ValueOf(snmp, kSwitch);
  const long after = std::stol(ValueOf(snmp, kSnmpInPkts));
  EXPECT_GE(after - before, 6) << before << " " << after;
  EXPECT_GE(std::stol(ValueOf(snmp, kSnmpEngineBoots)), 1);
  // usmStats (six counters), usmUserSpinLock and VACM's groups (the
  // communities' security names).
  EXPECT_EQ(LinesWith(snmp.tool("snmpwalk", "-v2c -c public", "-On .1.3.6.1.6.3.15.1.1"), " = Counter32: ").size(), 6u);
  EXPECT_EQ(LinesWith(snmp.tool("snmpget", "-v2c -c public", "-On .1.3.6.1.6.3.15.1.2.1.0"), " = INTEGER: ").size(),
            1u);
  EXPECT_FALSE(LinesWith(snmp.tool("snmpwalk", "-v2c -c public", "-On .1.3.6.1.6.3.16.1.2.1.3"), "STRING: ").empty());
}

TEST_F(StandardGroupsTest, AWalkGoesOnFromTheModuleToTheStandardGroupsAfterIt) {
  ASSERT_NO_FATAL_FAILURE(start(""));
  const Snmp& snmp = agent_.snmp();
  // The last instance of the module: the file-system table's last cell.
  const std::vector<std::string> module = LinesWith(snmp.walk(), " = ");
  ASSERT_FALSE(module.empty());
  const std::string last = module.back().substr(0, module.back().find(" = "));
  // Its successor is snmpSetSerialNo.0 (SNMPv2-MIB), the first standard
  // object after 1.3.6.1.4.1.
  const std::string next = snmp.tool("snmpgetnext", "-v2c -c public", "-On " + last);
  EXPECT_EQ(next.rfind(".1.3.6.1.6.3.1.1.6.1.0 = INTEGER: ", 0), 0u) << last << ": " << next;
  // And what comes before the module (the system group) leads into it.
  const std::string first = snmp.tool("snmpgetnext", "-v2c -c public", "-On .1.3.6.1.4.1.32473");
  EXPECT_EQ(first.rfind(std::string(kSwitch) + " = Gauge32: ", 0), 0u) << first;
}

TEST(StandardGroupsTrapTest, AColdStartReachesSnmptrapdAtTheConfiguredTrap2sink) {
  TempDir dir;
  const int trapPort = FreeUdpPort();
  const std::string trapLog = dir.path() + "/snmptrapd.log";
  const std::string trapConf = dir.file("snmptrapd.conf", "disableAuthorization yes\n");
  Process trapd({"/usr/sbin/snmptrapd", "-f", "-C", "-c", trapConf, "-M", "/dev/null", "-m", "", "-On", "-Lf", trapLog,
                 "udp:127.0.0.1:" + std::to_string(trapPort)},
                dir.path() + "/snmptrapd.out");
  // snmptrapd writes its start line once it listens.
  for (int i = 0; i < 100 && ReadFile(trapLog).find("NET-SNMP version") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_NE(ReadFile(trapLog).find("NET-SNMP version"), std::string::npos) << ReadFile(dir.path() + "/snmptrapd.out");

  AgentUnderTest agent;
  AgentUnderTest::Options options = SmallArray();
  options.extraConfig += "trap2sink 127.0.0.1:" + std::to_string(trapPort) + " public\n";
  std::string error;
  ASSERT_TRUE(agent.start(options, &error)) << error;
  bool received = false;
  for (int i = 0; i < 100 && !received; ++i) {
    received = ReadFile(trapLog).find(".1.3.6.1.6.3.1.1.4.1.0 = OID: .1.3.6.1.6.3.1.1.5.1") != std::string::npos;
    if (!received) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  const std::string log = ReadFile(trapLog);
  EXPECT_TRUE(received) << log;
  // One coldStart, from the agent (its sysUpTime first, as SNMPv2-Trap says).
  EXPECT_EQ(LinesWith(log, ".1.3.6.1.6.3.1.1.5.1").size(), 1u) << log;
  EXPECT_EQ(LinesWith(log, ".1.3.6.1.2.1.1.3.0 = Timeticks: ").size(), 1u) << log;
  EXPECT_EQ(0, agent.stop());
}

// Waits (at most about 10 s) until snmpd answers a GET of sysObjectID.
bool SnmpdAnswers(const Snmp& snmp) {
  for (int i = 0; i < 100; ++i) {
    if (ValueOf(snmp, kSysObjectId).rfind(".1.3.6.1.", 0) == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return false;
}

// rows with row added, sorted.
std::vector<std::string> With(std::vector<std::string> rows, const std::string& row) {
  rows.push_back(row);
  std::sort(rows.begin(), rows.end());
  return rows;
}

std::vector<std::string> Sorted(std::vector<std::string> rows) {
  std::sort(rows.begin(), rows.end());
  return rows;
}

TEST(StandardGroupsAgentXTest, AsSubAgentOnlyItsSysOREntryIsAddedToTheMastersGroups) {
  TempDir dir;
  const int port = FreeUdpPort();
  StockSnmpd snmpd(dir);
  std::string error;
  ASSERT_TRUE(snmpd.startMaster(port, "", &error)) << error;
  const Snmp master(dir.path(), port);
  ASSERT_TRUE(SnmpdAnswers(master)) << snmpd.log();
  const std::vector<std::string> before = SysORRows(master);
  ASSERT_FALSE(before.empty());
  const std::string objectId = ValueOf(master, kSysObjectId);
  AgentUnderTest agent;
  ASSERT_TRUE(agent.start(SubAgentOf(SmallArray(), snmpd, port), &error)) << error << snmpd.log();
  // The entry comes with an AgentX AddAgentCaps after the registrations.
  std::vector<std::string> rows;
  for (int i = 0; i < 50; ++i) {
    rows = SysORRows(master);
    if (HasRow(rows, kModuleRow)) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(With(before, kModuleRow), Sorted(rows));
  // The system group stays snmpd's.
  EXPECT_EQ(ValueOf(master, kSysObjectId), objectId);
  EXPECT_EQ(objectId.rfind(".1.3.6.1.4.1.8072.3.2.", 0), 0u) << objectId;
  EXPECT_EQ(0, agent.stop());
  // Gone from the master with the sub-agent, the master's own rows left.
  EXPECT_EQ(Sorted(before), Sorted(SysORRows(master)));
}

TEST(StandardGroupsDlmodTest, InsideSnmpdOnlyItsSysOREntryIsAddedToSnmpdsGroups) {
  if (ZERVA_AGENT_SANITIZED) GTEST_SKIP() << "a sanitized module cannot be loaded into an unsanitized snmpd";
  const std::string access = "rocommunity public 127.0.0.1\n";
  // The same snmpd without the module, then with it.
  std::vector<std::string> plainRows;
  std::string plainObjectId;
  {
    TempDir dir;
    const int port = FreeUdpPort();
    StockSnmpd snmpd(dir);
    std::string error;
    ASSERT_TRUE(snmpd.start(port, access, &error)) << error;
    Snmp snmp(dir.path(), port);
    ASSERT_TRUE(SnmpdAnswers(snmp)) << snmpd.log();
    plainRows = SysORRows(snmp);
    plainObjectId = ValueOf(snmp, kSysObjectId);
    EXPECT_EQ(0, snmpd.stop());
  }
  ASSERT_FALSE(plainRows.empty());
  TempDir dir;
  const int port = FreeUdpPort();
  StockSnmpd snmpd(dir);
  std::string error;
  ASSERT_TRUE(snmpd.start(port, access + StockSnmpd::DlmodLine() + "zervaSimLuns 10\nzervaSimFileSystems 2\n", &error))
      << error;
  Snmp snmp(dir.path(), port);
  ASSERT_TRUE(snmp.ready()) << snmpd.log();
  EXPECT_EQ(With(plainRows, kModuleRow), Sorted(SysORRows(snmp)));
  EXPECT_EQ(ValueOf(snmp, kSysObjectId), plainObjectId);
  EXPECT_EQ(0, snmpd.stop());
}

}  // namespace
}  // namespace zerva_e2e
