// walk_latency against the baseline agent: a GETNEXT walk and a GETBULK walk
// of the LUN table count the varbinds snmpwalk finds and time every
// request; a bad command line exits 2 with the usage.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <string>
#include <thread>

#include "tests/process/process_harness.h"
#include "tests/support/temp_dir.h"

namespace {

const char kLunTable[] = "1.3.6.1.4.1.32473.4.1.21.4";

// The number after "name": in walk_latency's JSON line (-1 when absent).
long long Field(const std::string& json, const std::string& name) {
  std::smatch m;
  if (!std::regex_search(json, m, std::regex("\"" + name + "\": ([0-9]+)"))) return -1;
  return std::stoll(m[1].str());
}

TEST(WalkLatencyTest, BadCommandLineExitsTwoWithTheUsage) {
  int rc = 0;
  const std::string out = zerva_test::RunShell(std::string(WALK_LATENCY_PATH) + " 127.0.0.1:1 public", &rc);
  EXPECT_EQ(2, rc);
  EXPECT_NE(std::string::npos, out.find("usage: ")) << out;
}

TEST(WalkLatencyTest, WalksCountWhatSnmpwalkFindsAndTimeEveryRequest) {
  zerva_test::TempDir dir;
  const int port = zerva_test::FreeUdpPort();
  const std::string address = "127.0.0.1:" + std::to_string(port);
  zerva_test::Process agent({BASELINE_AGENT_PATH, "--mib", ZERVA_MIB_XML, "--listen", "udp:" + address, "--luns", "25",
                             "--ports", "1", "--controllers", "1", "--filesystems", "1"},
                            dir.path() + "/agent.log");
  const std::string env = "MIBS= SNMP_PERSISTENT_DIR=" + dir.path() + " SNMPCONFPATH=" + dir.path() + " ";
  std::string walked;
  for (int i = 0; i < 100; ++i) {
    walked = zerva_test::RunShell(env + "snmpwalk -v2c -c public -On -t 1 -r 1 " + address + " " + kLunTable);
    if (walked.find("Gauge32") != std::string::npos) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  size_t varbinds = 0;
  for (size_t at = walked.find("\n."); at != std::string::npos; at = walked.find("\n.", at + 1)) ++varbinds;
  if (walked.rfind(".", 0) == 0) ++varbinds;
  ASSERT_GT(varbinds, 25u) << walked;

  for (const char* mode : {"getnext", "bulk"}) {
    int rc = -1;
    const std::string json = zerva_test::RunShell(
        env + WALK_LATENCY_PATH + " " + address + " public " + kLunTable + " " + mode + " 10 2>&1", &rc);
    EXPECT_EQ(0, rc) << json;
    EXPECT_EQ(static_cast<long long>(varbinds), Field(json, "varbinds")) << mode << " " << json;
    EXPECT_EQ(0, Field(json, "errors")) << json;
    EXPECT_EQ(0, Field(json, "timeouts")) << json;
    // GETNEXT: one request per varbind and one past the table; GETBULK of
    // 10: a tenth of that, rounded up.
    const long long requests = std::string(mode) == "getnext" ? varbinds + 1 : (varbinds + 10) / 10;
    EXPECT_EQ(requests, Field(json, "requests")) << mode << " " << json;
    EXPECT_GT(Field(json, "max_us"), 0) << json;
    EXPECT_LE(Field(json, "p50_us"), Field(json, "p99_us")) << json;
    EXPECT_LE(Field(json, "p99_us"), Field(json, "max_us")) << json;
  }
}

}  // namespace
