// A second, independent SNMP client implementation (pysnmp, through
// pysnmp_walk.py) walks the agent and sees exactly what Net-SNMP's snmpwalk
// sees: the same instances with the same types and values.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/e2e_support.h"

namespace zerva_e2e {
namespace {

// snmpwalk's instances in pysnmp_walk.py's form: "OID = TYPE: VALUE".
std::vector<std::string> Normalized(const ParsedWalk& walk) {
  std::vector<std::string> out;
  for (const WalkLine& l : walk.lines) out.push_back(OidText(l.oid) + " = " + ValueText(l.value));
  return out;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty()) out.push_back(line);
  }
  return out;
}

TEST(SecondClientTest, PysnmpWalkEqualsSnmpwalk) {
  const std::string python = ZERVA_E2E_PYTHON;
  int rc = -1;
  const std::string probe = zerva_test::RunShell("'" + python + "' -c 'import pysnmp'", &rc);
  if (rc != 0) {
    GTEST_SKIP() << "pysnmp cannot be imported by " << python << " (Debian package python3-pysnmp4): " << probe;
  }

  AgentUnderTest agent;
  AgentUnderTest::Options options = SmallArray();
  options.luns = 6;  // every table, a walk of a few hundred instances
  options.fileSystems = 11;
  std::string error;
  ASSERT_TRUE(agent.start(options, &error)) << error;

  // The ground truth's size: neither walk may be short or empty.
  size_t expected = 1;  // the switch
  for (const zerva_agent::MibObject* t : MibTables()) expected += Truth(agent, *t).instances.size();

  // stderr (warnings, errors) apart from the lines compared.
  const std::string errFile = agent.dir().path() + "/pysnmp.err";
  const std::string py = zerva_test::RunShell(
      "{ '" + python + "' " ZERVA_E2E_PYSNMP_WALK " --port " + std::to_string(agent.snmp().port()) +
          " --community public --timeout 2 --retries 1 " + zerva_test::kSubtree + " 2>'" + errFile + "'; }",
      &rc);
  ASSERT_EQ(0, rc) << py << zerva_test::ReadFile(errFile);
  const std::vector<std::string> pyLines = Lines(py);

  std::string raw;
  const ParsedWalk walk = Walk(agent, ParseOid(zerva_test::kSubtree), "snmpwalk", "", &rc, &raw);
  ASSERT_EQ(0, rc) << raw;
  const std::vector<std::string> netSnmp = Normalized(walk);

  EXPECT_EQ(expected, netSnmp.size());
  ASSERT_EQ(netSnmp.size(), pyLines.size());
  for (size_t i = 0; i < netSnmp.size(); ++i) {
    ASSERT_EQ(netSnmp[i], pyLines[i]) << "line " << i;
  }
}

}  // namespace
}  // namespace zerva_e2e
