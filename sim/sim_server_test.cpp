#include "sim/sim_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>

#include "sim/array_simulator.h"
#include "sim/sim_test_util.h"
#include "tests/support/fake_backend.h"
#include "snmpcommon/snmp_socket_transport.h"
#include "tests/support/temp_dir.h"

namespace zerva_sim {
namespace {

using testing::Num;
using testing::Text;
using zerva_test::Rec;

using zerva_test::TempDir;

// The address of the test's socket in its temporary directory.
std::string SocketIn(const TempDir& dir) { return "unix:" + dir.path() + "/s"; }

class SimServerTest : public ::testing::Test {
 protected:
  void SetUp() override { StartServer(); }

  void StartServer() {
    SimOptions o;
    o.listen = SocketIn(dir_);
    o.seed = 3;
    server_.reset(new ArraySimServer(o));
    std::string error;
    ASSERT_TRUE(server_->start(&error)) << error;
    server_->array().freezeClock(kT);
  }

  std::unique_ptr<CSnmpSocketTransport> Transport() {
    CSnmpSocketTransportOptions t;
    std::string error;
    EXPECT_TRUE(CSnmpBackendAddress::parse(server_->address(), t.address, &error)) << error;
    t.retryInterval = std::chrono::milliseconds(50);
    return std::unique_ptr<CSnmpSocketTransport>(new CSnmpSocketTransport(t));
  }

  // One exchange: the result code; rsp receives the answer.
  int Call(CSnmpSocketTransport& t, const Rec& req, CTLVPackage* rsp, bool listing = false) {
    std::unique_ptr<CTLVPackage> pkg = req.package();
    return t.exchange(*pkg, *rsp, listing);
  }

  void AddFault(const std::string& text) {
    FaultRule f;
    std::string error;
    ASSERT_TRUE(server_->array().parseFault(text, &f, &error)) << error;
    server_->array().addFault(f);
  }

  static const uint64_t kT = 3000000000ULL;
  TempDir dir_;
  CommandCodes codes_;
  std::unique_ptr<ArraySimServer> server_;
};

TEST_F(SimServerTest, ServesEveryCommandOverTheSocket) {
  auto t = Transport();
  {
    CTLVPackage rsp;
    ASSERT_EQ(Call(*t, Rec(codes_.getSwitch), &rsp), 0);
    EXPECT_EQ(Num(*rsp[0], 0), 1u);
  }
  {
    CTLVPackage rsp;
    ASSERT_EQ(Call(*t, Rec(codes_.setSwitch).u32(0, 0), &rsp), 0);
    EXPECT_EQ(server_->array().switchState(), 0u);
    server_->array().setSwitch(true);
  }
  {
    CTLVPackage rsp;
    ASSERT_EQ(Call(*t, Rec(codes_.getStats).str(0, "207:0A").str(8, "110,120,303").u32(2, 4), &rsp), 0);
    std::vector<uint32_t> truth;
    server_->array().statistics(207, "0A", {110, 120, 303}, &truth);
    EXPECT_EQ(Text(*rsp[0], 9),
              std::to_string(truth[0]) + "," + std::to_string(truth[1]) + "," + std::to_string(truth[2]));
  }
  {
    CTLVPackage rsp;
    ASSERT_EQ(Call(*t, Rec(codes_.getFeatures), &rsp), 0);
    EXPECT_EQ(rsp.size(), 3u);
  }
  {
    CTLVPackage rsp;
    ASSERT_EQ(Call(*t, Rec(kListingCmd).t6(0, 212), &rsp, true), 0);
    EXPECT_EQ(rsp.size(), 8u);
  }
  {
    CTLVPackage rsp;
    ASSERT_EQ(Call(*t, Rec(kListingCmd).t6(0, 11).str(1, "300"), &rsp, true), 0);
    EXPECT_EQ(rsp.size(), 100u);
  }
  {
    CTLVPackage rsp;
    ASSERT_EQ(Call(*t, Rec(kSortedListingCmd).t6(0, 40).str(15, "{\"sortby\":\"1 ASC\"}"), &rsp, true), 0);
    EXPECT_EQ(rsp.size(), 49u);
  }
  {
    CTLVPackage rsp;
    ASSERT_EQ(Call(*t, Rec(kLunBatchStatsCmd).u32(11, 11).str(12, "1,2").str(8, "22").t6(2, 4), &rsp), 0);
    ASSERT_EQ(rsp.size(), 2u);
    EXPECT_EQ(Text(*rsp[1], 13), "2");
  }
  {
    CTLVPackage rsp;
    EXPECT_EQ(Call(*t, Rec(4242), &rsp), static_cast<int>(kSimErrUnknownCommand));
  }
  const auto counts = server_->commandCounts();
  EXPECT_EQ(counts.at(codes_.getSwitch), 1u);
  EXPECT_EQ(counts.at(kListingCmd), 2u);
  EXPECT_EQ(counts.at(4242), 1u);
  EXPECT_EQ(t->connectCount(), 1u);
}

TEST_F(SimServerTest, EachFaultGivesItsTransportCodeAndClearsAway) {
  const std::pair<const char*, int> cases[] = {
      {"refuse=0x1234", 0x1234},
      {"delay=700", SNMP_TRANSPORT_E_TIMEOUT},
      {"close", SNMP_TRANSPORT_E_CLOSED},
      {"garbage", SNMP_TRANSPORT_E_BAD_FRAME},
      {"truncate", SNMP_TRANSPORT_E_CLOSED},
      {"bad-magic", SNMP_TRANSPORT_E_BAD_FRAME},
      {"bad-version", SNMP_TRANSPORT_E_BAD_FRAME},
      {"huge-len", SNMP_TRANSPORT_E_TOO_LARGE},
      {"bad-body", SNMP_TRANSPORT_E_BAD_FRAME},
  };
  auto t = Transport();
  for (const auto& c : cases) {
    AddFault(std::string(c.first) + ",cmd=GET_PERFORMANCE_SWITCH");
    CTLVPackage rsp;
    EXPECT_EQ(Call(*t, Rec(codes_.getSwitch), &rsp), c.second) << c.first;
    server_->array().clearFaults();
    // After a timeout the transport answers at once for its retry interval
    // (50 ms here) before it asks the back end again.
    if (c.second == SNMP_TRANSPORT_E_TIMEOUT) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    CTLVPackage again;
    EXPECT_EQ(Call(*t, Rec(codes_.getSwitch), &again), 0) << "after " << c.first;
  }
}

TEST_F(SimServerTest, FaultForOneCommandLeavesOthersAlone) {
  AddFault("close,cmd=LISTING");
  auto t = Transport();
  CTLVPackage a, b;
  EXPECT_EQ(Call(*t, Rec(codes_.getSwitch), &a), 0);
  EXPECT_EQ(Call(*t, Rec(kListingCmd).t6(0, 207), &b, true), SNMP_TRANSPORT_E_CLOSED);
}

TEST_F(SimServerTest, ControlCommandOverTheSocketSetsAndClearsFaults) {
  auto t = Transport();
  CTLVPackage r1, r2, r3, r4;
  ASSERT_EQ(Call(*t, Rec(kSimControlCmd).str(0, "fault").str(1, "refuse=77,cmd=GET_SNMP_FEATURES"), &r1), 0);
  EXPECT_EQ(Call(*t, Rec(codes_.getFeatures), &r2), 77);
  ASSERT_EQ(Call(*t, Rec(kSimControlCmd).str(0, "clear-faults"), &r3), 0);
  EXPECT_EQ(Call(*t, Rec(codes_.getFeatures), &r4), 0);
}

TEST_F(SimServerTest, HugeDataLenIsRefusedBeforeAllocation) {
  // The host's limit is small here: the 4 GiB announced body is refused by
  // its length alone, with nothing allocated or read.
  CSnmpSocketTransportOptions o;
  std::string error;
  ASSERT_TRUE(CSnmpBackendAddress::parse(server_->address(), o.address, &error));
  o.maxBody = 1024;
  CSnmpSocketTransport t(o);
  AddFault("huge-len,count=1");
  CTLVPackage rsp;
  EXPECT_EQ(Call(t, Rec(codes_.getSwitch), &rsp), SNMP_TRANSPORT_E_TOO_LARGE);
  EXPECT_TRUE(rsp.empty());
  CTLVPackage again;
  EXPECT_EQ(Call(t, Rec(codes_.getSwitch), &again), 0);
}

TEST_F(SimServerTest, RestartOnTheSameAddressIsSurvived) {
  auto t = Transport();
  CTLVPackage a;
  ASSERT_EQ(Call(*t, Rec(codes_.getSwitch), &a), 0);
  server_->stop();
  CTLVPackage b;
  const int down = Call(*t, Rec(codes_.getSwitch), &b);
  EXPECT_TRUE(down == SNMP_TRANSPORT_E_CLOSED || down == SNMP_TRANSPORT_E_CONNECT) << down;
  StartServer();
  std::this_thread::sleep_for(std::chrono::milliseconds(60));  // past the transport's retry interval
  CTLVPackage c;
  EXPECT_EQ(Call(*t, Rec(codes_.getSwitch), &c), 0);
  EXPECT_GE(t->connectCount(), 2u);
}

TEST_F(SimServerTest, ServesSeveralConnectionsAtOnce) {
  // One connection waits on a delayed answer while another is served.
  AddFault("delay=300,cmd=GET_SNMP_FEATURES,count=1");
  auto slow = Transport();
  auto fast = Transport();
  int slowResult = -1;
  std::thread th([&] {
    CTLVPackage rsp;
    slowResult = Call(*slow, Rec(codes_.getFeatures), &rsp);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  CTLVPackage rsp;
  EXPECT_EQ(Call(*fast, Rec(codes_.getSwitch), &rsp), 0);
  th.join();
  EXPECT_EQ(slowResult, 0);
}

TEST_F(SimServerTest, BadRequestFrameIsAnsweredThenClosed) {
  // A transport whose request decodes to zero records: the simulator
  // answers "malformed".
  auto t = Transport();
  CTLVPackage empty, rsp;
  EXPECT_EQ(t->exchange(empty, rsp, false), static_cast<int>(kSimErrMalformed));
}

TEST(SimServerStartTest, RefusesBadAddressesAndTopologies) {
  std::string error;
  SimOptions a;
  a.listen = "udp:1";
  EXPECT_FALSE(ArraySimServer(a).start(&error));
  EXPECT_FALSE(error.empty());
  SimOptions b;
  b.listen = "tcp:127.0.0.1:0";
  b.topologyFile = "/nonexistent.conf";
  EXPECT_FALSE(ArraySimServer(b).start(&error));
  EXPECT_NE(error.find("/nonexistent.conf"), std::string::npos);
}

TEST(SimServerStartTest, FaultsAndLatenciesOfTheOptionsAreInForceFromTheStart) {
  SimOptions o;
  o.listen = "tcp:127.0.0.1:0";
  o.faults = {"refuse=5,cmd=GET_PERFORMANCE_SWITCH"};
  o.latencies = {"GET_CUR_STATISTIC_DATA=5", "2"};
  ArraySimServer s(o);
  std::string error;
  bool badOption = true;
  ASSERT_TRUE(s.start(&error, &badOption)) << error;
  EXPECT_FALSE(badOption);
  EXPECT_EQ(s.array().faults().size(), 1u);
  std::vector<std::string> latencies;
  for (const LatencySetting& l : s.array().latencies()) latencies.push_back(LatencyText(l));
  std::sort(latencies.begin(), latencies.end());
  LatencySetting stats;
  stats.anyCommand = false;
  stats.command = CommandCodes().getStats;
  stats.ms = 5;
  EXPECT_EQ(latencies, (std::vector<std::string>{LatencyText(stats), "2"}));
}

TEST(SimServerStartTest, ABadFaultOrLatencyIsABadOptionAndNothingListens) {
  const std::string socket = "/tmp/zerva-sim-start-test." + std::to_string(getpid()) + ".sock";
  for (const char* which : {"fault", "latency"}) {
    SimOptions o;
    o.listen = "unix:" + socket;
    (std::string(which) == "fault" ? o.faults : o.latencies) = {"NO_SUCH_COMMAND=1"};
    ArraySimServer s(o);
    std::string error;
    bool badOption = false;
    EXPECT_FALSE(s.start(&error, &badOption));
    EXPECT_TRUE(badOption) << which;
    EXPECT_EQ(error.rfind(std::string(which) + " NO_SUCH_COMMAND=1: ", 0), 0u) << error;
    EXPECT_NE(0, access(socket.c_str(), F_OK)) << which;  // nothing listens
  }
  SimOptions bad;
  bad.listen = "udp:1";
  std::string error;
  bool badOption = true;
  EXPECT_FALSE(ArraySimServer(bad).start(&error, &badOption));
  EXPECT_FALSE(badOption);  // an address, not an option text
}

TEST(SimServerStartTest, TcpPortZeroReportsTheBoundPort) {
  SimOptions o;
  o.listen = "tcp:127.0.0.1:0";
  o.luns = 10;
  o.features = 0;
  o.switchOn = 0;
  ArraySimServer s(o);
  std::string error;
  ASSERT_TRUE(s.start(&error)) << error;
  EXPECT_EQ(s.address().compare(0, 14, "tcp:127.0.0.1:"), 0);
  EXPECT_NE(s.address(), "tcp:127.0.0.1:0");
  EXPECT_EQ(s.array().topology().luns.size(), 10u);
  EXPECT_TRUE(s.array().topology().features.empty());
  EXPECT_EQ(s.array().switchState(), 0u);
  CSnmpSocketTransportOptions t;
  ASSERT_TRUE(CSnmpBackendAddress::parse(s.address(), t.address, &error));
  CSnmpSocketTransport transport(t);
  std::unique_ptr<CTLVPackage> req = Rec(CommandCodes().getSwitch).package();
  CTLVPackage rsp;
  EXPECT_EQ(transport.exchange(*req, rsp, false), 0);
  EXPECT_EQ(Num(*rsp[0], 0), 0u);
}

TEST(SimServerStartTest, ASecondServerOnALiveSocketIsRefused) {
  TempDir dir;
  SimOptions o;
  o.listen = SocketIn(dir);
  ArraySimServer first(o), second(o);
  std::string error;
  ASSERT_TRUE(first.start(&error)) << error;
  EXPECT_FALSE(second.start(&error));
  EXPECT_NE(error.find("in use"), std::string::npos);
}

}  // namespace
}  // namespace zerva_sim
