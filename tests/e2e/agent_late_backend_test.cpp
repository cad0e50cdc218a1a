// A back end that is late, restarts or changes its features: the agent asks
// the array's feature list again until it answers, and once more whenever
// its connection to the back end is opened again; when the answer changes
// what the module was built with, the module is loaded again between two
// requests and the NFS, SMB and file-system tables (and the node table's two
// file-system columns) follow. Standalone, as an AgentX sub-agent of a stock
// snmpd, and as a dlmod module of a stock snmpd; the array is a simulator in
// this process that the test starts late, stops and starts again.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sim/sim_server.h"
#include "tests/e2e/e2e_support.h"
#include "tests/process/agent_under_test.h"
#include "tests/process/process_harness.h"
#include "tests/process/snmp_message.h"
#include "tests/process/stock_snmpd.h"

namespace zerva_e2e {
namespace {

using zerva_test::FreeUdpPort;
using zerva_test::Snmp;
using zerva_test::StockSnmpd;
using zerva_test::TempDir;

const long kAllFeatures = 7;  // 48, 49, 602
const long kNoFeatures = 0;

// The tables served only with a feature: NFSv3, NFSv4, SMBv1, SMBv2, file
// systems, NFSv4.1 (sub-identifiers under the subtree).
const std::set<unsigned long> kOptionalTables = {10, 11, 12, 13, 14, 15};
const unsigned long kNodeTable = 3;

// The array: a simulator on a Unix socket in the test's directory, started
// and stopped by the test.
class TestArray {
 public:
  explicit TestArray(const TempDir& dir) : dir_(dir) {}
  ~TestArray() { stop(); }
  std::string address() const { return "unix:" + dir_.path() + "/array.sock"; }

  bool start(long features, std::string* error) {
    stop();
    zerva_sim::SimOptions o;
    o.topologyFile = dir_.file("topology.conf", kSmallTopology);
    o.features = features;
    o.seed = 7;
    o.listen = address();
    o.deviceConfig = ZERVA_DEVICE_CONFIG;
    sim_.reset(new zerva_sim::ArraySimServer(o));
    std::string why;
    if (!sim_->start(&why)) {
      *error = "simulator: " + why;
      return false;
    }
    return true;
  }
  // Its socket disappears, its connections are cut.
  void stop() {
    if (sim_) sim_->stop();
    sim_.reset();
  }

 private:
  const TempDir& dir_;
  std::unique_ptr<zerva_sim::ArraySimServer> sim_;
};

enum class Mode { kStandalone, kAgentX, kDlmod };

const char* ModeName(Mode mode) {
  switch (mode) {
    case Mode::kStandalone:
      return "Standalone";
    case Mode::kAgentX:
      return "AgentX";
    case Mode::kDlmod:
      return "Dlmod";
  }
  return "Unknown";
}

void PrintTo(Mode mode, std::ostream* os) { *os << ModeName(mode); }

// The agent in one of its modes, its back end the test's array.
class ServedAgent {
 public:
  ServedAgent() : snmpd_(snmpdDir_) {}

  bool start(Mode mode, const std::string& backend, std::string* error) {
    mode_ = mode;
    port_ = FreeUdpPort();
    AgentUnderTest::Options o;
    o.array = AgentUnderTest::Array::kExternal;
    o.backend = backend;
    switch (mode) {
      case Mode::kStandalone:
        o.port = port_;
        return agent_.start(o, error);
      case Mode::kAgentX:
        if (!snmpd_.startMaster(port_, "", error)) return false;
        return agent_.start(SubAgentOf(o, snmpd_, port_), error);
      case Mode::kDlmod: {
        const std::string lines =
            "rocommunity public 127.0.0.1\n" + StockSnmpd::DlmodLine() + "zervaBackend " + backend + "\n";
        if (!snmpd_.start(port_, lines, error)) return false;
        for (int i = 0; i < 50 && log().find("serving ") == std::string::npos; ++i) {
          std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (log().find("serving ") == std::string::npos) {
          *error = "the dlmod module logs no start-up line; snmpd's log:\n" + log();
          return false;
        }
        return true;
      }
    }
    return false;
  }

  // The client: on the agent's own port, or on snmpd's.
  Snmp snmp() const { return Snmp(snmpdDir_.path(), port_); }
  int port() const { return port_; }
  // What the agent logs (in dlmod mode: snmpd's output).
  std::string log() const { return mode_ == Mode::kDlmod ? snmpd_.log() : agent_.log(); }

 private:
  Mode mode_ = Mode::kStandalone;
  int port_ = 0;
  TempDir snmpdDir_;
  StockSnmpd snmpd_;      // stopped after the agent
  AgentUnderTest agent_;  // stopped first
};

// What one walk of the subtree shows.
struct Served {
  std::set<unsigned long> tables;       // objects with instances, by sub-identifier under the subtree
  std::set<unsigned long> nodeColumns;  // columns of the node table with instances
  bool timedOut = false;                // the client got no answer
  bool clean = false;                   // exit 0, no error
  std::string raw;
};

Served WalkSubtree(const Snmp& snmp) {
  Served s;
  int rc = -1;
  s.raw = snmp.tool("snmpwalk", kReadCommunity, zerva_test::kSubtree, &rc);
  s.timedOut = s.raw.find("Timeout") != std::string::npos;
  s.clean = rc == 0 && s.raw.find("Error") == std::string::npos && !s.timedOut;
  const Oid subtree = ParseOid(zerva_test::kSubtree);
  std::istringstream in(s.raw);
  std::string line;
  while (std::getline(in, line)) {
    const size_t eq = line.find(" = ");
    if (line.empty() || line[0] != '.' || eq == std::string::npos) continue;
    const Oid oid = ParseOid(line.substr(0, eq));
    if (!Under(oid, subtree) || oid.size() <= subtree.size()) continue;
    const unsigned long object = oid[subtree.size()];
    s.tables.insert(object);
    // prefix.1.column.index
    if (object == kNodeTable && oid.size() > subtree.size() + 2) s.nodeColumns.insert(oid[subtree.size() + 2]);
  }
  return s;
}

// True when the walk shows what the features give: every optional table
// and twelve node columns with all of them, none and ten without.
bool Shows(const Served& s, long features) {
  std::set<unsigned long> optional;
  for (unsigned long t : s.tables) {
    if (kOptionalTables.count(t) != 0) optional.insert(t);
  }
  if (!s.clean || s.tables.count(kNodeTable) == 0) return false;
  if (features == kAllFeatures) return optional == kOptionalTables && s.nodeColumns.size() == 12;
  return optional.empty() && s.nodeColumns.size() == 10;
}

// Walks again and again (each walk crossing whatever the agent does
// meanwhile) until a walk shows what the features give, for at most
// `limit`. Every walk must have had its answers.
Served WalkUntil(const Snmp& snmp, long features, std::chrono::seconds limit, int* walks) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  Served s;
  *walks = 0;
  do {
    s = WalkSubtree(snmp);
    ++*walks;
    EXPECT_FALSE(s.timedOut) << "walk " << *walks << " got no answer:\n" << s.raw;
    if (Shows(s, features)) return s;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  } while (std::chrono::steady_clock::now() < deadline);
  return s;
}

// A manager whose walk is in progress whatever the agent does meanwhile: on
// its own thread it walks the subtree one GETNEXT per client run, round and
// round, and keeps every answer.
class SlowWalker {
 public:
  struct Answer {
    std::string asked;
    std::string output;
    int rc = -1;
  };

  explicit SlowWalker(const Snmp& snmp) : snmp_(snmp) {}
  ~SlowWalker() { stop(); }
  void start() {
    thread_ = std::thread([this] { run(); });
  }
  void stop() {
    {
      std::lock_guard<std::mutex> lock(mu_);
      stopping_ = true;
    }
    if (thread_.joinable()) thread_.join();
  }
  // Waits (at most 10 s) until it has had n answers.
  bool waitForAnswers(size_t n) {
    std::unique_lock<std::mutex> lock(mu_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return answers_.size() >= n; });
  }
  size_t count() {
    std::lock_guard<std::mutex> lock(mu_);
    return answers_.size();
  }
  std::vector<Answer> answers() {
    std::lock_guard<std::mutex> lock(mu_);
    return answers_;
  }

 private:
  void run() {
    const Oid subtree = ParseOid(zerva_test::kSubtree);
    std::string next = zerva_test::kSubtree;
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mu_);
        if (stopping_) return;
      }
      Answer a;
      a.asked = next;
      a.output = snmp_.tool("snmpgetnext", kReadCommunity, next, &a.rc);
      // Where the walk goes on: after the OID answered, or from the start
      // again at the end of the subtree and after an error.
      next = zerva_test::kSubtree;
      const size_t eq = a.output.find(" = ");
      if (a.rc == 0 && !a.output.empty() && a.output[0] == '.' && eq != std::string::npos) {
        const std::string name = a.output.substr(0, eq);
        if (Under(ParseOid(name), subtree)) next = name;
      }
      std::lock_guard<std::mutex> lock(mu_);
      answers_.push_back(a);
      changed_.notify_all();
    }
  }

  const Snmp& snmp_;
  std::thread thread_;
  std::mutex mu_;
  std::condition_variable changed_;
  bool stopping_ = false;
  std::vector<Answer> answers_;
};

// A GET of a row of each optional table: "No Such Object" while the table
// is not registered (whatever the back end does).
std::string OptionalTablesRegistered(const Snmp& snmp) {
  std::string registered;
  for (unsigned long table : kOptionalTables) {
    const std::string oid = std::string(zerva_test::kSubtree) + "." + std::to_string(table) + ".1.2.1";
    const std::string out = snmp.get(oid);
    if (out.find("No Such Object") == std::string::npos) registered += out;
  }
  return registered;
}

// ---------------------------------------------------------------- many requests at once

// An SNMPv2c GetNextRequest of one OID with community public.
std::string GetNextMessage(long requestId, const Oid& oid) {
  return zerva_test::SnmpV2cRequest(0xA1, "public", requestId, oid);
}

// GETNEXTs of a few OIDs sent again and again from one UDP socket, each
// round without waiting for the answers of the one before: an AgentX
// master has requests out to its sub-agent nearly all the time.
class RequestFlood {
 public:
  RequestFlood(int port, std::vector<Oid> names) : port_(port), names_(std::move(names)) {}
  ~RequestFlood() { stop(); }
  void start() {
    thread_ = std::thread([this] { run(); });
  }
  void stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
  }
  size_t sent() const { return sent_; }
  size_t answered() const { return answered_; }

 private:
  void run() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    if (fd < 0) return;
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port_));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
      long id = 1;
      char buf[65536];
      while (!stopping_) {
        for (const Oid& name : names_) {
          const std::string m = GetNextMessage(id++, name);
          if (send(fd, m.data(), m.size(), 0) == static_cast<ssize_t>(m.size())) ++sent_;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        while (recv(fd, buf, sizeof buf, 0) > 0) ++answered_;
      }
    }
    close(fd);
  }

  const int port_;
  const std::vector<Oid> names_;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::atomic<size_t> sent_{0};
  std::atomic<size_t> answered_{0};
};

// An environment variable for the processes the test starts meanwhile.
class ChildEnvironment {
 public:
  ChildEnvironment(const char* name, const char* value) : name_(name) {
    const char* old = getenv(name);
    had_ = old != nullptr;
    if (had_) old_ = old;
    setenv(name, value, 1);
  }
  ~ChildEnvironment() {
    if (had_) {
      setenv(name_.c_str(), old_.c_str(), 1);
    } else {
      unsetenv(name_.c_str());
    }
  }
  ChildEnvironment(const ChildEnvironment&) = delete;
  ChildEnvironment& operator=(const ChildEnvironment&) = delete;

 private:
  std::string name_;
  std::string old_;
  bool had_ = false;
};

class LateBackendTest : public ::testing::TestWithParam<Mode> {
 protected:
  void SetUp() override {
    if (GetParam() == Mode::kDlmod && ZERVA_AGENT_SANITIZED) {
      GTEST_SKIP() << "a sanitized module cannot be loaded into an unsanitized snmpd";
    }
  }
};

TEST_P(LateBackendTest, TablesAppearWhenTheBackEndStartsAfterTheAgent) {
  TempDir dir;
  TestArray array(dir);
  ServedAgent agent;
  std::string error;
  ASSERT_TRUE(agent.start(GetParam(), array.address(), &error)) << error;
  const Snmp snmp = agent.snmp();

  // Nothing listens: the module was built without an answer.
  EXPECT_EQ("", OptionalTablesRegistered(snmp));
  EXPECT_NE(std::string::npos, agent.log().find("every feature reads as unsupported until the back end answers"))
      << agent.log();

  ASSERT_TRUE(array.start(kAllFeatures, &error)) << error;
  const auto started = std::chrono::steady_clock::now();
  int walks = 0;
  const Served s = WalkUntil(snmp, kAllFeatures, std::chrono::seconds(10), &walks);
  EXPECT_TRUE(Shows(s, kAllFeatures)) << s.raw << agent.log();
  // The agent asks 1 s, 3 s, 7 s ... after it started.
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(7));
  const std::string log = agent.log();
  EXPECT_NE(std::string::npos, log.find("the array's features changed from no answer to {48,49,602}; module "
                                        "loaded again, serving "))
      << log;
  EXPECT_NE(std::string::npos, log.find(" 11 handlers ")) << log;
}

TEST_P(LateBackendTest, TablesFollowABackEndRestartedWithOtherFeatures) {
  TempDir dir;
  TestArray array(dir);
  std::string error;
  ASSERT_TRUE(array.start(kAllFeatures, &error)) << error;
  ServedAgent agent;
  ASSERT_TRUE(agent.start(GetParam(), array.address(), &error)) << error;
  const Snmp snmp = agent.snmp();
  int walks = 0;
  Served s = WalkUntil(snmp, kAllFeatures, std::chrono::seconds(5), &walks);
  ASSERT_TRUE(Shows(s, kAllFeatures)) << s.raw << agent.log();
  EXPECT_EQ(1, walks);  // served from the start

  struct Step {
    long features;
    const char* change;
  };
  const Step steps[] = {
      {kNoFeatures, "the array's features changed from {48,49,602} to {}; module loaded again, serving "},
      {kAllFeatures, "the array's features changed from {} to {48,49,602}; module loaded again, serving "},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE("features " + std::to_string(step.features));
    array.stop();
    ASSERT_TRUE(array.start(step.features, &error)) << error;
    // The walker's first request connects again, so the module is loaded
    // again after it, while the walker goes on.
    SlowWalker walker(snmp);
    walker.start();
    ASSERT_TRUE(walker.waitForAnswers(1));
    s = WalkUntil(snmp, step.features, std::chrono::seconds(10), &walks);
    EXPECT_TRUE(Shows(s, step.features)) << s.raw << agent.log();
    EXPECT_NE(std::string::npos, agent.log().find(step.change)) << agent.log();
    // The module has been loaded again: a few more steps of the walk. (The
    // request of the next answer may have been sent before; the one after
    // it was not.)
    const size_t loaded = walker.count() + 1;
    ASSERT_TRUE(walker.waitForAnswers(loaded + 3));
    walker.stop();

    // Every request of the walk across the reload got an answer; from the
    // reload on, every answer is a value.
    const std::vector<SlowWalker::Answer> answers = walker.answers();
    for (size_t i = 0; i < answers.size(); ++i) {
      const SlowWalker::Answer& a = answers[i];
      EXPECT_EQ(std::string::npos, a.output.find("Timeout")) << "GETNEXT " << a.asked << ":\n" << a.output;
      if (i >= loaded) {
        EXPECT_EQ(0, a.rc) << "GETNEXT " << a.asked << ":\n" << a.output;
        EXPECT_EQ(std::string::npos, a.output.find("Error")) << "GETNEXT " << a.asked << ":\n" << a.output;
      }
    }
  }
}

// A sub-agent whose module is loaded again while its master has requests
// out to it for the tables that go (and come back): the master keeps
// answering, the sub-agent stays connected to it, and Net-SNMP's callback
// lists are never changed while it runs through them.
TEST(LateBackendReloadTest, SubAgentReloadsWhileItsMasterHasRequestsOutToIt) {
  // The master and the agent fill freed memory with a pattern: one of
  // them using memory freed under it crashes rather than going on with
  // stale data.
  ChildEnvironment perturb("MALLOC_PERTURB_", "165");
  TempDir dir;
  TestArray array(dir);
  std::string error;
  ASSERT_TRUE(array.start(kAllFeatures, &error)) << error;
  ServedAgent agent;
  ASSERT_TRUE(agent.start(Mode::kAgentX, array.address(), &error)) << error;
  const Snmp snmp = agent.snmp();
  int walks = 0;
  Served s = WalkUntil(snmp, kAllFeatures, std::chrono::seconds(5), &walks);
  ASSERT_TRUE(Shows(s, kAllFeatures)) << s.raw << agent.log();

  // GETNEXTs into each optional table, and of the subtree (whose first
  // object asks the back end: the agent connects to a restarted array and
  // sees its features).
  const Oid subtree = ParseOid(zerva_test::kSubtree);
  std::vector<Oid> names = {subtree};
  for (unsigned long table : kOptionalTables) {
    Oid name = subtree;
    name.push_back(table);
    names.push_back(name);
  }
  RequestFlood flood(agent.port(), names);
  flood.start();
  const long order[] = {kNoFeatures, kAllFeatures, kNoFeatures, kAllFeatures};
  for (long features : order) {
    SCOPED_TRACE("features " + std::to_string(features));
    array.stop();
    ASSERT_TRUE(array.start(features, &error)) << error;
    s = WalkUntil(snmp, features, std::chrono::seconds(10), &walks);
    ASSERT_TRUE(Shows(s, features)) << s.raw << agent.log();
  }
  flood.stop();
  EXPECT_GT(flood.answered(), 0u);

  const std::string log = agent.log();
  EXPECT_EQ(std::string::npos, log.find("lock in _callback_lock")) << log;
  EXPECT_EQ(std::string::npos, log.find("Failed to connect to the agentx master")) << log;
  EXPECT_NE(std::string::npos, log.find("the array's features changed from {} to {48,49,602}; module loaded again"))
      << log;
}

// A reload that fails is logged and tried again; the agent keeps running,
// serving nothing meanwhile.
TEST(LateBackendReloadTest, FailedReloadIsLoggedAndTriedAgain) {
  TempDir dir;
  TestArray array(dir);
  // The module's MIB description, from a directory of the test's.
  const std::string mib = zerva_test::ReadFile(ZERVA_E2E_SOURCE_DIR "/mibs/VEM-PERFORMANCE.xml");
  ASSERT_FALSE(mib.empty());
  const std::string mibPath = dir.file("VEM-PERFORMANCE.xml", mib);
  AgentUnderTest agent;
  AgentUnderTest::Options o;
  o.array = AgentUnderTest::Array::kExternal;
  o.backend = array.address();
  o.extraConfig = "zervaMibDir " + dir.path() + "\n";
  std::string error;
  ASSERT_TRUE(agent.start(o, &error)) << error;
  const Snmp& snmp = agent.snmp();

  // The array comes up; loading the module again cannot find the MIB
  // description.
  ASSERT_EQ(0, unlink(mibPath.c_str()));
  ASSERT_TRUE(array.start(kAllFeatures, &error)) << error;
  const std::string failed =
      "the array's features changed from no answer to {48,49,602}, but loading the module again failed: cannot "
      "load the MIB description";
  for (int i = 0; i < 100 && agent.log().find(failed) == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_NE(std::string::npos, agent.log().find(failed)) << agent.log();
  EXPECT_NE(std::string::npos, agent.log().find("; serving nothing, trying again in 1 s")) << agent.log();
  // Running, serving nothing.
  EXPECT_NE(std::string::npos, snmp.get(zerva_test::kSwitch).find("No Such Object")) << agent.log();

  // Back: the next attempt serves everything.
  dir.file("VEM-PERFORMANCE.xml", mib);
  int walks = 0;
  const Served s = WalkUntil(snmp, kAllFeatures, std::chrono::seconds(10), &walks);
  EXPECT_TRUE(Shows(s, kAllFeatures)) << s.raw << agent.log();
  EXPECT_NE(std::string::npos,
            agent.log().find("nothing is served since a load of the module failed; the array's features are "
                             "{48,49,602}; module loaded again, serving "))
      << agent.log();
}

INSTANTIATE_TEST_SUITE_P(EveryMode, LateBackendTest, ::testing::Values(Mode::kStandalone, Mode::kAgentX, Mode::kDlmod),
                         [](const ::testing::TestParamInfo<Mode>& info) { return std::string(ModeName(info.param)); });

}  // namespace
}  // namespace zerva_e2e
