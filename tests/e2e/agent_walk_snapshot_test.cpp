// One walk on one snapshot, and no table read twice for one request: the
// simulator counts the commands the agent sends while a manager walks.
//
// - A walk of 700 LUNs that lasts longer than the snapshot time is answered
//   from the rows read when it began: one pass over the LUNs, as many batch
//   statistics commands as batches of 160, whatever the clock says.
// - With the walk extension switched off (zervaWalkSeconds 0) the same walk
//   reads rows again once the snapshot time is up.
// - A GETNEXT inside the file-system table with nothing kept reads the table
//   once.
// - A GETBULK with many repetitions over a table reads it once, even with
//   snapshots off.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "tests/e2e/e2e_support.h"

namespace zerva_e2e {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

const unsigned long long kLunBatchStats = 0xDE0222048ULL;

// The agent on the simulator's built-in array with `luns` LUNs (listed in
// pages of 256), its clock frozen, and these configuration lines.
AgentUnderTest::Options BuiltInArray(long luns, const std::string& config) {
  AgentUnderTest::Options o;
  o.luns = luns;
  o.frozenMs = kFrozenMs;
  o.extraConfig = config;
  return o;
}

// Walks a table with GETBULK requests of `repetitions`, each going on after
// the last instance the previous one answered and each after `pause`; the
// instances under the table's prefix. *requests counts the requests.
std::map<Oid, Value> SlowBulkWalk(const AgentUnderTest& agent, const Oid& prefix, int repetitions, milliseconds pause,
                                  int* requests) {
  std::map<Oid, Value> served;
  Oid from = prefix;
  *requests = 0;
  for (int guard = 0; guard < 10000; ++guard) {
    int rc = -1;
    const std::string out =
        Tool(agent, "snmpbulkget", kReadCommunity, "-Cn0 -Cr" + std::to_string(repetitions) + " " + OidText(from), &rc);
    ++*requests;
    EXPECT_EQ(0, rc) << out;
    const ParsedWalk answer = ParseWalk(out);
    bool left = answer.lines.empty();
    for (const WalkLine& l : answer.lines) {
      if (!Under(l.oid, prefix)) {
        left = true;
        break;
      }
      EXPECT_TRUE(from < l.oid) << OidText(l.oid) << " after " << OidText(from);
      served[l.oid] = l.value;
      from = l.oid;
    }
    if (left || rc != 0) break;
    std::this_thread::sleep_for(pause);
  }
  return served;
}

class WalkSnapshotTest : public ::testing::Test {
 protected:
  // Starts the agent and takes the LUN table's ground truth.
  void start(const std::string& config) {
    std::string error;
    ASSERT_TRUE(agent_.start(BuiltInArray(700, config), &error)) << error;
    luns_ = MibTable("vemPerfLunTable");
    ASSERT_NE(nullptr, luns_);
    truth_ = Truth(agent_, *luns_);
    ASSERT_EQ(700u, truth_.rowIndexes.size());
  }

  // Walks the LUN table slowly enough to outlast a 1 s snapshot time; the
  // batch statistics commands the walk cost.
  uint64_t slowWalkOfTheLuns() {
    const uint64_t before = agent_.requests(kLunBatchStats);
    const auto start = steady_clock::now();
    int requests = 0;
    const std::map<Oid, Value> served = SlowBulkWalk(agent_, truth_.prefix, 100, milliseconds(40), &requests);
    const auto took = steady_clock::now() - start;
    EXPECT_EQ("", Diff(truth_.instances, served));
    // 700 rows x 16 columns in requests of 100: the walk needs 112 of them.
    EXPECT_EQ(113, requests);
    EXPECT_GT(took, milliseconds(3000)) << "the walk must outlast the snapshot time several times over";
    const uint64_t batches = agent_.requests(kLunBatchStats) - before;
    printf("walk of 700 LUNs in %d GETBULK requests over %lld ms: %llu batch statistics commands\n", requests,
           static_cast<long long>(std::chrono::duration_cast<milliseconds>(took).count()),
           static_cast<unsigned long long>(batches));
    return batches;
  }

  AgentUnderTest agent_;
  const zerva_agent::MibObject* luns_ = nullptr;
  TableTruth truth_;
};

TEST_F(WalkSnapshotTest, AWalkOutlastingTheSnapshotTimeReadsEveryLunOnce) {
  start("zervaSnapshotSeconds 1\n");
  // ceil(700 / 160) batches: one pass over the LUNs for all 16 columns.
  EXPECT_EQ(5u, slowWalkOfTheLuns());
}

TEST_F(WalkSnapshotTest, WithoutTheWalkExtensionTheRowsAreReadAgainAfterTheSnapshotTime) {
  start("zervaSnapshotSeconds 1\nzervaWalkSeconds 0\n");
  EXPECT_GT(slowWalkOfTheLuns(), 5u);
}

TEST(WalkReadsTest, AGetNextInsideTheFileSystemTableReadsTheTableOnce) {
  AgentUnderTest agent;
  std::string error;
  ASSERT_TRUE(agent.start(SmallArray(), &error)) << error;
  const zerva_agent::MibObject* table = MibTable("vemPerfFsTable");
  ASSERT_NE(nullptr, table);
  const TableTruth truth = Truth(agent, *table);
  ASSERT_EQ(13u, truth.rowIndexes.size());  // 1-12 and 100, listed 8 a page
  unsigned long long sortedListing = 0;
  ASSERT_TRUE(agent.array().commandByName("SORTED_LISTING", &sortedListing));
  const unsigned long long stats = agent.array().codes().getStats;
  const uint64_t listingsBefore = agent.requests(sortedListing);
  const uint64_t statsBefore = agent.requests(stats);

  // Column 2 after the row of file system "5": the row of "6".
  const Oid column = zerva_test::ColumnOid(truth.prefix, 2);
  Oid from = column;
  from.insert(from.end(), {1, '5'});
  Oid expected = column;
  expected.insert(expected.end(), {1, '6'});
  const ParsedWalk next = ParseWalk(Tool(agent, "snmpgetnext", kReadCommunity, OidText(from)));
  ASSERT_EQ(1u, next.lines.size());
  EXPECT_EQ(OidText(expected), OidText(next.lines[0].oid));
  EXPECT_EQ(truth.instances.at(expected), next.lines[0].value);

  // One pass: two listing pages and one statistics command per file system.
  EXPECT_EQ(2u, agent.requests(sortedListing) - listingsBefore);
  EXPECT_EQ(13u, agent.requests(stats) - statsBefore);
}

TEST(WalkReadsTest, AGetBulkOverATableReadsItOnceEvenWithSnapshotsOff) {
  AgentUnderTest agent;
  std::string error;
  ASSERT_TRUE(agent.start(SmallArray(), &error)) << error;  // zervaSnapshotSeconds 0
  const zerva_agent::MibObject* table = MibTable("vemPerfPortTable");
  ASSERT_NE(nullptr, table);
  const TableTruth truth = Truth(agent, *table);
  unsigned long long listing = 0;
  ASSERT_TRUE(agent.array().commandByName("LISTING", &listing));
  const uint64_t before = agent.requests(listing);

  // Every instance of the port table in one GETBULK.
  const int repetitions = static_cast<int>(truth.instances.size());
  int rc = -1;
  const std::string out = Tool(agent, "snmpbulkget", kReadCommunity,
                               "-Cn0 -Cr" + std::to_string(repetitions) + " " + OidText(truth.prefix), &rc);
  ASSERT_EQ(0, rc) << out;
  std::vector<std::string> problems;
  EXPECT_EQ("", Diff(truth.instances, InstancesUnder(ParseWalk(out), truth.prefix, &problems)));
  EXPECT_TRUE(problems.empty()) << problems.front();
  // One read of the table: one listing for each of the four port types.
  EXPECT_EQ(4u, agent.requests(listing) - before);
}

}  // namespace
}  // namespace zerva_e2e
