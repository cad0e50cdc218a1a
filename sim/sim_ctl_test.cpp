// zerva-sim-ctl, the program, against an in-process simulator on a Unix
// socket in a temporary directory (and against small socket peers that are
// no simulator). Every run is bounded by timeout(1) and the tool's own
// --timeout.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "sim/sim_server.h"
#include "sim/array_simulator.h"
#include "sim/sim_test_util.h"
#include "tests/support/fake_backend.h"
#include "snmpcommon/snmp_backend_frame.h"
#include "snmpcommon/snmp_configuration.h"
#include "snmpcommon/snmp_socket_transport.h"
#include "tests/process/process_harness.h"
#include "zerva_version.h"

namespace zerva_sim {
namespace {

using zerva_test::Rec;

struct CtlRun {
  int rc = -1;
  std::string output;  // stdout and stderr
};

// Runs the tool with these arguments (shell words), at most 20 s.
CtlRun Ctl(const std::string& args) {
  CtlRun r;
  r.output = zerva_test::RunShell(std::string("timeout 20 ") + SIM_CTL_PATH + " " + args, &r.rc);
  return r;
}

// The same, keeping only what the tool writes on stdout.
CtlRun CtlStdout(const std::string& args) {
  CtlRun r;
  r.output = zerva_test::RunShell(std::string("{ timeout 20 ") + SIM_CTL_PATH + " " + args + " 2>/dev/null; }", &r.rc);
  return r;
}

std::string Hex(unsigned long long v) {
  char buf[32];
  snprintf(buf, sizeof buf, "0x%llX", v);
  return buf;
}

class SimCtlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SimOptions o;
    o.listen = "unix:" + dir_.path() + "/sim.sock";
    o.luns = 40;
    server_.reset(new ArraySimServer(o));
    std::string error;
    ASSERT_TRUE(server_->start(&error)) << error;
    address_ = server_->address();
  }

  // One request to the simulator through the host's transport.
  int Call(const Rec& req) {
    CSnmpSocketTransportOptions t;
    std::string error;
    EXPECT_TRUE(CSnmpBackendAddress::parse(address_, t.address, &error)) << error;
    CSnmpSocketTransport transport(t);
    std::unique_ptr<CTLVPackage> pkg = req.package();
    CTLVPackage rsp;
    return transport.exchange(*pkg, rsp, false);
  }

  zerva_test::TempDir dir_;
  std::unique_ptr<ArraySimServer> server_;
  std::string address_;
};

TEST_F(SimCtlTest, CountsPrintIdentifierNameAndCountPerCommand) {
  const CommandCodes codes;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(Call(Rec(codes.getSwitch)), 0);
  ASSERT_EQ(Call(Rec(kLunBatchStatsCmd).u32(11, 11).str(12, "1,2").str(8, "22").u32(2, 4)), 0);
  ASSERT_EQ(Call(Rec(0x1234)), static_cast<int>(kSimErrUnknownCommand));

  const CtlRun r = Ctl(address_ + " counts");
  EXPECT_EQ(r.rc, 0) << r.output;
  // In identifier order; the counts request itself is counted before it is answered.
  EXPECT_EQ(r.output, "0x1234 UNKNOWN 1\n" + Hex(codes.getSwitch) + " GET_PERFORMANCE_SWITCH 3\n" +
                          Hex(kLunBatchStatsCmd) + " LUN_BATCH_STATS 1\n" + "0x53494D0000000001 SIM_CONTROL 1\n");
  EXPECT_EQ(server_->commandCounts().at(kSimControlCmd), 1u);
}

TEST_F(SimCtlTest, FreezeClockStopsTheModelTimeAndClockReadsIt) {
  CtlRun r = Ctl(address_ + " freeze-clock 3000000000");
  EXPECT_EQ(r.rc, 0) << r.output;
  EXPECT_EQ(r.output, "clock frozen at 3000000000\n");
  EXPECT_EQ(server_->array().nowMs(), 3000000000ULL);

  r = Ctl(address_ + " clock");
  EXPECT_EQ(r.rc, 0) << r.output;
  EXPECT_EQ(r.output, "3000000000\n");

  r = Ctl(address_ + " run-clock");
  EXPECT_EQ(r.rc, 0) << r.output;
  EXPECT_EQ(r.output, "clock running\n");
  const uint64_t t0 = server_->array().nowMs();
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_GT(server_->array().nowMs(), t0);
  EXPECT_GE(t0, 3000000000ULL);
}

TEST_F(SimCtlTest, FaultIsAddedListedAppliedAndCleared) {
  const CommandCodes codes;
  CtlRun r = Ctl(address_ + " fault close,cmd=GET_PERFORMANCE_SWITCH,count=2");
  EXPECT_EQ(r.rc, 0) << r.output;
  EXPECT_EQ(r.output, "fault added: close,cmd=GET_PERFORMANCE_SWITCH,count=2\n");
  ASSERT_EQ(server_->array().faults().size(), 1u);
  EXPECT_EQ(server_->array().faults()[0].command, codes.getSwitch);
  EXPECT_EQ(server_->array().faults()[0].count, 2u);

  r = Ctl(address_ + " fault refuse=0x53494D03,rate=0.5");
  EXPECT_EQ(r.rc, 0) << r.output;
  r = Ctl(address_ + " list-faults");
  EXPECT_EQ(r.rc, 0) << r.output;
  const std::vector<FaultRule> faults = server_->array().faults();
  ASSERT_EQ(faults.size(), 2u);
  EXPECT_EQ(r.output, FaultText(faults[0]) + "\n" + FaultText(faults[1]) + "\n");
  EXPECT_NE(r.output.find("close"), std::string::npos);

  EXPECT_EQ(Call(Rec(codes.getSwitch)), SNMP_TRANSPORT_E_CLOSED);

  r = Ctl(address_ + " clear-faults");
  EXPECT_EQ(r.rc, 0) << r.output;
  EXPECT_EQ(r.output, "faults cleared\n");
  EXPECT_TRUE(server_->array().faults().empty());
  EXPECT_EQ(Call(Rec(codes.getSwitch)), 0);
  r = Ctl(address_ + " list-faults");
  EXPECT_EQ(r.rc, 0) << r.output;
  EXPECT_EQ(r.output, "");
}

TEST_F(SimCtlTest, LatencyIsSetListedAppliedAndCleared) {
  const CommandCodes codes;
  CtlRun r = Ctl(address_ + " latency GET_CUR_STATISTIC_DATA=50");
  EXPECT_EQ(r.rc, 0) << r.output;
  EXPECT_EQ(r.output, "latency set: GET_CUR_STATISTIC_DATA=50\n");
  r = Ctl(address_ + " latency 2");
  EXPECT_EQ(r.rc, 0) << r.output;
  EXPECT_EQ(server_->array().latencies().size(), 2u);
  r = Ctl(address_ + " list-latency");
  EXPECT_EQ(r.rc, 0) << r.output;
  EXPECT_EQ(r.output, "2\n" + Hex(codes.getStats) + "=50\n");

  // The statistics command answers 50 ms late, not sooner.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Call(Rec(codes.getStats).str(0, "11:1").str(8, "22").u32(2, 4)), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));

  r = Ctl(address_ + " clear-latency");
  EXPECT_EQ(r.rc, 0) << r.output;
  EXPECT_EQ(r.output, "latency cleared\n");
  EXPECT_TRUE(server_->array().latencies().empty());
  r = Ctl(address_ + " latency NOPE=1");
  EXPECT_EQ(r.rc, 2) << r.output;
  EXPECT_NE(r.output.find("latency 'NOPE=1': unknown command 'NOPE'"), std::string::npos) << r.output;
}

TEST_F(SimCtlTest, BadCommandLinesExitTwoAndSendNothing) {
  const struct {
    std::string args;
    std::string message;
  } cases[] = {
      {"", "an address and an action are needed"},
      {address_, "an address and an action are needed"},
      {address_ + " reboot", "unknown action 'reboot'"},
      {address_ + " fault", "fault needs one argument"},
      {address_ + " counts extra", "counts takes no argument"},
      {address_ + " fault explode", "fault 'explode': "},
      {address_ + " fault close,cmd=NO_SUCH_COMMAND", "fault 'close,cmd=NO_SUCH_COMMAND': "},
      {address_ + " freeze-clock soon", "freeze-clock: a model time in milliseconds"},
      {address_ + " freeze-clock 1125899906842624", "freeze-clock: a model time in milliseconds"},
      {"udp:127.0.0.1:1 counts", "bad address 'udp:127.0.0.1:1'"},
      {"--timeout 0 " + address_ + " counts", "--timeout: a number of milliseconds"},
      {"--verbose " + address_ + " counts", "unknown option '--verbose'"},
      {"-q " + address_ + " counts", "unknown option '-q'"},
      {"--timeout=007x " + address_ + " counts", "--timeout: a number of milliseconds"},
      {address_ + " counts --timeout", "--timeout needs a value"},
      {"--version=1", "--version takes no value"},
  };
  for (const auto& c : cases) {
    const CtlRun r = Ctl(c.args);
    EXPECT_EQ(r.rc, 2) << c.args << "\n" << r.output;
    EXPECT_EQ(r.output.rfind(std::string("zerva-sim-ctl: ") + c.message, 0), 0u) << c.args << "\n" << r.output;
    EXPECT_NE(r.output.find("usage: "), std::string::npos) << c.args;
  }
  EXPECT_TRUE(server_->commandCounts().empty());
}

TEST_F(SimCtlTest, UnreachableSimulatorExitsOneWithTheTransportReason) {
  const std::string gone = "unix:" + dir_.path() + "/nobody.sock";
  const CtlRun r = Ctl("--timeout 500 " + gone + " counts");
  EXPECT_EQ(r.rc, 1) << r.output;
  EXPECT_EQ(r.output,
            "zerva-sim-ctl: " + gone + ": " + SnmpTransportErrorText(SNMP_TRANSPORT_E_CONNECT) + " (0x4E540002)\n");
}

TEST_F(SimCtlTest, HelpPrintsTheUsageAndExitsZero) {
  for (const char* help : {"--help", "-h"}) {
    const CtlRun r = CtlStdout(help);
    EXPECT_EQ(r.rc, 0) << help;
    EXPECT_EQ(r.output.rfind("usage: zerva-sim-ctl ", 0), 0u) << help << "\n" << r.output;
    EXPECT_NE(r.output.find("freeze-clock MS"), std::string::npos) << help;
    EXPECT_NE(r.output.find("--version"), std::string::npos) << help;
  }
}

TEST_F(SimCtlTest, VersionPrintsTheProjectVersionAndExitsZero) {
  const CtlRun r = CtlStdout("--version");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.output, std::string("zerva-sim-ctl ") + ZERVA_VERSION + "\n");
  EXPECT_TRUE(server_->commandCounts().empty());
}

TEST_F(SimCtlTest, LeadingZerosInNumbersAreReadAsTheValue) {
  CtlRun r = Ctl("--timeout 02000 " + address_ + " freeze-clock 000042");
  EXPECT_EQ(r.rc, 0) << r.output;
  EXPECT_EQ(r.output, "clock frozen at 42\n");
  EXPECT_EQ(server_->array().nowMs(), 42u);
}

// A peer on a Unix socket that is not the simulator: it takes one request
// frame and answers with a bare result code, or not at all, then closes.
class Peer {
 public:
  Peer(const std::string& path, bool answer, uint32_t code) {
    fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a = {};
    a.sun_family = AF_UNIX;
    snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && listen(fd_, 1) == 0;
    thread_ = std::thread([this, answer, code] { serve(answer, code); });
  }
  ~Peer() {
    stop_ = true;
    thread_.join();
    close(fd_);
  }
  bool bound() const { return bound_; }
  bool gotRequest() const { return gotRequest_; }

 private:
  void serve(bool answer, uint32_t code) {
    pollfd p = {fd_, POLLIN, 0};
    if (!bound_ || poll(&p, 1, 10000) != 1) return;
    const int conn = accept(fd_, nullptr, nullptr);
    if (conn < 0) return;
    std::vector<unsigned char> frame;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    gotRequest_ = ReadBackendFrame(conn, frame, SNMP_FRAME_DEFAULT_MAX_BODY, deadline) == 0;
    if (gotRequest_ && answer) {
      CTLVPackage rsp;
      rsp.head().hdrWord0 = code;
      std::vector<unsigned char> bytes(TLVMsgHeadV3::SIZE);
      rsp.encode(bytes.data(), static_cast<unsigned>(bytes.size()));
      WriteBackendFrame(conn, bytes.data(), bytes.size(), deadline);
    }
    // Hold the connection until the client gives up or the test ends.
    for (int i = 0; i < 100 && !stop_; ++i) {
      pollfd c = {conn, POLLIN, 0};
      if (poll(&c, 1, 100) == 1) break;
    }
    close(conn);
  }

  int fd_ = -1;
  bool bound_ = false;
  std::atomic<bool> stop_{false};
  std::atomic<bool> gotRequest_{false};
  std::thread thread_;
};

TEST_F(SimCtlTest, BackEndWithoutTheControlCommandExitsOne) {
  const std::string path = dir_.path() + "/array.sock";
  Peer peer(path, true, kSimErrUnknownCommand);
  ASSERT_TRUE(peer.bound());
  const CtlRun r = Ctl("unix:" + path + " counts");
  EXPECT_TRUE(peer.gotRequest());
  EXPECT_EQ(r.rc, 1) << r.output;
  EXPECT_EQ(r.output,
            "zerva-sim-ctl: unix:" + path + ": counts: unknown command (is this a zerva-array-sim?) (0x53494D01)\n");
}

TEST_F(SimCtlTest, SilentPeerTimesOutAndExitsOne) {
  const std::string path = dir_.path() + "/silent.sock";
  Peer peer(path, false, 0);
  ASSERT_TRUE(peer.bound());
  const auto start = std::chrono::steady_clock::now();
  const CtlRun r = Ctl("--timeout 300 unix:" + path + " clock");
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(r.rc, 1) << r.output;
  EXPECT_EQ(r.output, "zerva-sim-ctl: unix:" + path + ": " + SnmpTransportErrorText(SNMP_TRANSPORT_E_TIMEOUT) +
                          " (0x4E540003)\n");
  EXPECT_LT(took, std::chrono::seconds(5));
}

}  // namespace
}  // namespace zerva_sim
