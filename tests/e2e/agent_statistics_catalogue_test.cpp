// The statistic catalogue (docs/statistics.md) holds for what the agent
// serves: every table of a mid-sized simulated array is walked through the
// agent at several model times, and every row is checked against the
// catalogue's ranges and relations (totals, weighted averages, Little's law,
// response times and load). The columns are found by their MIB names, and
// which columns are percentages by the UNITS clauses of the SMIv2 module.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/e2e_support.h"

namespace zerva_e2e {
namespace {

// More rows than the small array of the other tests: 8 controllers (and so
// 8 rows in each NFS/SMB table), ports of every type in every status, 400
// LUNs over two listing pages, 160 file systems.
const char kCatalogueTopology[] =
    "controllers 8\n"
    "ports 213 32 eth 5,5,6,5,0,1,5,7 bonded=8\n"
    "ports 212 16 fc 5,5,6,1\n"
    "ports 252 8 fcoe 5,0,7,5\n"
    "ports 235 4 bond 5\n"
    "luns 400\n"
    "filesystems 160\n"
    "features 48,49,602\n"
    "switch on\n";

// The model times the clock is frozen at, in the middle of a sample period:
// minutes, hours and days apart, so the workload's waves are at different
// phases.
const uint64_t kMinute = 60000, kHour = 60 * kMinute, kDay = 24 * kHour;
const uint64_t kModelTimes[] = {
    kFrozenMs,
    kFrozenMs + 7 * kMinute + 35000,
    kFrozenMs + kHour + 43 * kMinute,
    kFrozenMs + 6 * kHour + 11 * kMinute,
    kFrozenMs + kDay + 3 * kHour + 17 * kMinute,
    kFrozenMs + 9 * kDay + 2 * kHour,
};

// One served row: its table, index and Gauge32 cells by column name.
struct Row {
  std::string table;   // "vemPerfPortTable"
  std::string prefix;  // "vemPerfPort": the table's column names start with it
  std::string index;   // the index as the index column shows it (number or text)
  uint64_t modelMs = 0;
  std::map<std::string, uint64_t> stats;  // Gauge32 cells, by full column name

  // The value of column prefix + `column` ("TotalIops"); fails the calling
  // test when the row has no such cell.
  uint64_t operator[](const std::string& column) const {
    const auto it = stats.find(prefix + column);
    if (it == stats.end()) {
      ADD_FAILURE() << where() << " has no " << prefix << column;
      return 0;
    }
    return it->second;
  }
  std::string where() const { return table + " row " + index + " at model time " + std::to_string(modelMs) + " ms"; }
};

// What the walks saw: rows by table, in the order of the model times.
struct Observations {
  std::string error;  // "" when every walk succeeded
  std::map<std::string, std::vector<Row>> rows;
  // Rows of one table at one model time.
  std::vector<const Row*> at(const std::string& table, uint64_t modelMs) const {
    std::vector<const Row*> out;
    const auto it = rows.find(table);
    if (it == rows.end()) return out;
    for (const Row& r : it->second) {
      if (r.modelMs == modelMs) out.push_back(&r);
    }
    return out;
  }
  const std::vector<Row>& of(const std::string& table) const {
    static const std::vector<Row> kNone;
    const auto it = rows.find(table);
    return it == rows.end() ? kNone : it->second;
  }
};

// Walks one table at the frozen model time into rows.
void WalkTable(const AgentUnderTest& agent, const zerva_agent::MibObject& table, uint64_t modelMs, Observations* seen) {
  int rc = -1;
  std::string raw;
  const ParsedWalk walk = Walk(agent, table.oid, "snmpbulkwalk", "-Cr50", &rc, &raw);
  // The walk of the subtree's last table ends past the end of the MIB view;
  // anything else that is no instance is an error.
  size_t others = 0;
  for (const std::string& o : walk.others) {
    if (o.find("No more variables left in this MIB View") == std::string::npos) ++others;
  }
  if (rc != 0 || others != 0) {
    seen->error += table.name + ": snmpbulkwalk exited " + std::to_string(rc) + ":\n" + raw.substr(0, 2000) + "\n";
    return;
  }
  const std::string prefix = table.name.substr(0, table.name.size() - std::string("Table").size());
  std::map<Oid, Row> rows;
  Oid entry = table.oid;
  entry.push_back(1);
  for (const WalkLine& line : walk.lines) {
    if (!Under(line.oid, entry) || line.oid.size() < entry.size() + 2) continue;
    const zerva_agent::MibColumn* column = table.column(static_cast<unsigned int>(line.oid[entry.size()]));
    if (column == nullptr) {
      seen->error += table.name + ": instance of no column: " + OidText(line.oid) + "\n";
      continue;
    }
    const Oid index(line.oid.begin() + static_cast<long>(entry.size()) + 1, line.oid.end());
    Row& row = rows[index];
    row.table = table.name;
    row.prefix = prefix;
    row.index = zerva_test::IndexText(table, index);
    row.modelMs = modelMs;
    // The statistics: the Gauge32 columns (an Unsigned32 index looks the
    // same on the wire).
    if (column->syntax == zerva_agent::MibSyntax::Gauge32) {
      if (line.value.type != "Gauge32") {
        seen->error += table.name + ": " + OidText(line.oid) + " is " + ValueText(line.value) + "\n";
        continue;
      }
      row.stats[column->name] = std::stoull(line.value.value);
    }
  }
  for (auto& r : rows) seen->rows[table.name].push_back(r.second);
}

const Observations& Observed() {
  static const std::unique_ptr<Observations> seen = [] {
    std::unique_ptr<Observations> s(new Observations);
    AgentUnderTest agent;
    AgentUnderTest::Options options;
    options.topology = kCatalogueTopology;
    options.frozenMs = kModelTimes[0];
    options.extraConfig = "zervaSnapshotSeconds 0\n";  // every answer read from the array at that moment
    std::string error;
    if (!agent.start(options, &error)) {
      s->error = error;
      return s;
    }
    for (uint64_t t : kModelTimes) {
      agent.array().freezeClock(t);
      for (const zerva_agent::MibObject* table : MibTables()) WalkTable(agent, *table, t, s.get());
    }
    return s;
  }();
  return *seen;
}

class StatisticCatalogueTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ("", Observed().error); }
  const Observations& seen() const { return Observed(); }
  // Every row of the tables whose names are given.
  std::vector<const Row*> rowsOf(const std::vector<std::string>& tables) const {
    std::vector<const Row*> out;
    for (const std::string& t : tables) {
      for (const Row& r : seen().of(t)) out.push_back(&r);
    }
    return out;
  }
};

const std::vector<std::string> kBlockTables = {"vemPerfNodeTable", "vemPerfLunTable", "vemPerfPortTable"};
const std::vector<std::string> kServiceTables = {"vemPerfNfsV3Table", "vemPerfNfsV4Table", "vemPerfNfsV41Table",
                                                 "vemPerfSmbV1Table", "vemPerfSmbV2Table"};

// Column pairs of some tables: (tables, (column, column) pairs).
typedef std::vector<std::pair<std::vector<std::string>, std::vector<std::pair<std::string, std::string>>>> ColumnPairs;

// A response time of a loaded object is below a second.
const uint64_t kMaxResponseUs = 1000000;

TEST_F(StatisticCatalogueTest, EveryTableHasManyRowsWithEveryStatisticAtEveryModelTime) {
  const std::map<std::string, size_t> minimumRows = {
      {"vemPerfNodeTable", 8},  {"vemPerfLunTable", 400}, {"vemPerfPortTable", 30}, {"vemPerfCacheTable", 8},
      {"vemPerfNfsV3Table", 8}, {"vemPerfNfsV4Table", 8}, {"vemPerfSmbV1Table", 8}, {"vemPerfSmbV2Table", 8},
      {"vemPerfFsTable", 160},  {"vemPerfNfsV41Table", 8}};
  ASSERT_EQ(minimumRows.size(), MibTables().size());
  for (const zerva_agent::MibObject* table : MibTables()) {
    // The statistic columns: every Gauge32 column.
    size_t statistics = 0;
    for (const zerva_agent::MibColumn& c : table->columns) {
      if (c.syntax == zerva_agent::MibSyntax::Gauge32) ++statistics;
    }
    for (uint64_t t : kModelTimes) {
      const std::vector<const Row*> rows = seen().at(table->name, t);
      EXPECT_GE(rows.size(), minimumRows.at(table->name)) << table->name << " at " << t;
      for (const Row* r : rows) EXPECT_EQ(statistics, r->stats.size()) << r->where();
    }
  }
}

TEST_F(StatisticCatalogueTest, EveryColumnTheMibGivesInPercentHoldsAValueFrom0To100) {
  std::set<std::string> percent;
  for (const auto& u : zerva_test::MibUnits()) {
    if (u.second == "percent") percent.insert(u.first);
  }
  // Controllers (CPU, memory), LUNs (hit ratios, I/O ratios, utilisation),
  // ports (utilisation), caches (usage, dirty pages, hit ratio).
  EXPECT_EQ(12u, percent.size());
  size_t checked = 0;
  for (const auto& table : seen().rows) {
    for (const Row& r : table.second) {
      for (const auto& cell : r.stats) {
        if (percent.count(cell.first) == 0) continue;
        EXPECT_LE(cell.second, 100u) << r.where() << ": " << cell.first;
        ++checked;
      }
    }
  }
  EXPECT_GT(checked, 1000u);
}

TEST_F(StatisticCatalogueTest, ReadAndWriteIopsAddUpToTheTotalIops) {
  for (const Row* r : rowsOf(kBlockTables)) {
    EXPECT_EQ((*r)["TotalIops"], (*r)["ReadIops"] + (*r)["WriteIops"]) << r->where();
  }
}

TEST_F(StatisticCatalogueTest, ReadAndWriteBandwidthAddUpToTheTotalBandwidth) {
  for (const Row* r : rowsOf(kBlockTables)) {
    EXPECT_EQ((*r)["Bandwidth"], (*r)["ReadBandwidth"] + (*r)["WriteBandwidth"]) << r->where();
  }
}

TEST_F(StatisticCatalogueTest, ReadWriteAndMetadataOperationsAddUpToTheFileSystemsTotalOps) {
  for (const Row* r : rowsOf({"vemPerfFsTable"})) {
    EXPECT_EQ((*r)["TotalOps"], (*r)["ReadOps"] + (*r)["WriteOps"] + (*r)["MetadataOps"]) << r->where();
  }
}

TEST_F(StatisticCatalogueTest, BandwidthIsZeroExactlyWithoutOperationsAndAverageIoSizesArePlausible) {
  // (bandwidth, operations) column pairs of each table.
  const ColumnPairs pairs = {
      {kBlockTables, {{"ReadBandwidth", "ReadIops"}, {"WriteBandwidth", "WriteIops"}, {"Bandwidth", "TotalIops"}}},
      {{"vemPerfFsTable"}, {{"ReadBandwidth", "ReadOps"}, {"WriteBandwidth", "WriteOps"}}}};
  for (const auto& p : pairs) {
    for (const std::string& table : p.first) {
      for (const Row& r : seen().of(table)) {
        for (const auto& c : p.second) {
          const uint64_t kbs = r[c.first], ops = r[c.second];
          EXPECT_EQ(kbs == 0, ops == 0) << r.where() << ": " << c.first << " " << kbs << ", " << c.second << " " << ops;
          // An average I/O of 1 KB to 1 MB.
          EXPECT_GE(kbs, ops) << r.where() << ": " << c.first;
          EXPECT_LE(kbs, ops * 1024) << r.where() << ": " << c.first;
        }
      }
    }
  }
}

TEST_F(StatisticCatalogueTest, ResponseTimesArePositiveExactlyWhenThereIsLoadAndBelowASecond) {
  // (response time, the rate it averages over) column pairs of each table.
  const ColumnPairs pairs = {
      {{"vemPerfNodeTable", "vemPerfPortTable"}, {{"ResponseTime", "TotalIops"}}},
      {{"vemPerfNodeTable"}, {{"FileResponseTime", "FileOps"}}},
      {{"vemPerfLunTable"}, {{"ReadResponseTime", "ReadIops"}, {"WriteResponseTime", "WriteIops"}}},
      {{"vemPerfFsTable"}, {{"ReadResponseTime", "ReadOps"}, {"WriteResponseTime", "WriteOps"}}},
      {kServiceTables, {{"ResponseTime", "TotalOps"}}}};
  size_t loaded = 0;
  for (const auto& p : pairs) {
    for (const std::string& table : p.first) {
      for (const Row& r : seen().of(table)) {
        for (const auto& c : p.second) {
          const uint64_t us = r[c.first], rate = r[c.second];
          EXPECT_EQ(us == 0, rate == 0) << r.where() << ": " << c.first << " " << us << " µs at " << c.second << " "
                                        << rate;
          EXPECT_LT(us, kMaxResponseUs) << r.where() << ": " << c.first;
          if (rate != 0) ++loaded;
        }
      }
    }
  }
  EXPECT_GT(loaded, 1000u);
}

TEST_F(StatisticCatalogueTest, LunCacheHitRatioIsTheIopsWeightedMeanOfTheReadAndWriteHitRatios) {
  for (const Row* r : rowsOf({"vemPerfLunTable"})) {
    const Row& l = *r;
    const uint64_t reads = l["ReadIops"], writes = l["WriteIops"], total = l["TotalIops"], hit = l["CacheHitRatio"];
    // No I/O of a kind, no hit ratio for it.
    if (reads == 0) {
      EXPECT_EQ(0u, l["ReadCacheHitRatio"]) << l.where();
    }
    if (writes == 0) {
      EXPECT_EQ(0u, l["WriteCacheHitRatio"]) << l.where();
    }
    if (total == 0) {
      EXPECT_EQ(0u, hit) << l.where();
      continue;
    }
    const uint64_t weighted = reads * l["ReadCacheHitRatio"] + writes * l["WriteCacheHitRatio"];
    EXPECT_LE(hit * total, weighted) << l.where();
    EXPECT_GT((hit + 1) * total, weighted) << l.where();
  }
}

TEST_F(StatisticCatalogueTest, QueueDepthIsIopsTimesResponseTime) {
  // Ports: 307 = round(22 x (mean response time) / 10^6), the mean being
  // item 78 before its truncation, so between 78 and 78 + 1.
  for (const Row* r : rowsOf({"vemPerfPortTable"})) {
    const uint64_t iops = (*r)["TotalIops"], us = (*r)["ResponseTime"], depth = (*r)["QueueDepth"];
    EXPECT_LT(iops * us, (depth + 1) * 1000000 - 500000) << r->where() << ": " << iops << " IOPS, " << us << " µs";
    EXPECT_GT(iops * (us + 1) + 500000, depth * 1000000) << r->where() << ": " << iops << " IOPS, " << us << " µs";
  }
  // LUNs: exactly, from the read and write response times.
  for (const Row* r : rowsOf({"vemPerfLunTable"})) {
    const Row& l = *r;
    const uint64_t outstanding =
        l["ReadIops"] * l["ReadResponseTime"] + l["WriteIops"] * l["WriteResponseTime"];  // I/Os x µs per second
    EXPECT_EQ((outstanding + 500000) / 1000000, l["QueueDepth"]) << l.where();
  }
}

TEST_F(StatisticCatalogueTest, LunReadAndWriteIoRatiosAreTheShareOfTheTotalAndAddUpToAHundred) {
  for (const Row* r : rowsOf({"vemPerfLunTable"})) {
    const Row& l = *r;
    const uint64_t total = l["TotalIops"], read = l["ReadIoRatio"], write = l["WriteIoRatio"];
    if (total == 0) {
      EXPECT_EQ(0u, read + write) << l.where();
      continue;
    }
    EXPECT_EQ(l["ReadIops"] * 100 / total, read) << l.where();
    EXPECT_EQ(l["WriteIops"] * 100 / total, write) << l.where();
    EXPECT_TRUE(read + write == 99 || read + write == 100) << l.where() << ": " << read << " + " << write;
  }
}

TEST_F(StatisticCatalogueTest, DirtyCachePagesNeverExceedTheUsedCache) {
  for (const Row* r : rowsOf({"vemPerfCacheTable"})) {
    EXPECT_LE((*r)["DirtyPageRatio"], (*r)["Usage"]) << r->where();
  }
}

// The services' rows of one controller at one model time, by table.
std::map<std::string, const Row*> ServicesOf(const Observations& seen, long node, uint64_t modelMs) {
  std::map<std::string, const Row*> out;
  for (const std::string& table : kServiceTables) {
    for (const Row* r : seen.at(table, modelMs)) {
      if (zerva_test::NodeOfController(r->index) == node) out[table] = r;
    }
  }
  return out;
}

TEST_F(StatisticCatalogueTest, ControllerFileOpsAreTheSumOfItsFiveProtocolServices) {
  for (uint64_t t : kModelTimes) {
    for (const Row* n : seen().at("vemPerfNodeTable", t)) {
      const std::map<std::string, const Row*> services = ServicesOf(seen(), std::stol(n->index), t);
      ASSERT_EQ(5u, services.size()) << n->where();
      uint64_t ops = 0;
      for (const auto& s : services) ops += (*s.second)["TotalOps"];
      EXPECT_EQ(ops, (*n)["FileOps"]) << n->where();
    }
  }
}

TEST_F(StatisticCatalogueTest, ControllerFileResponseTimeIsItsServicesOpsWeightedMean) {
  for (uint64_t t : kModelTimes) {
    for (const Row* n : seen().at("vemPerfNodeTable", t)) {
      const std::map<std::string, const Row*> services = ServicesOf(seen(), std::stol(n->index), t);
      ASSERT_EQ(5u, services.size()) << n->where();
      uint64_t ops = 0, weighted = 0;
      for (const auto& s : services) {
        ops += (*s.second)["TotalOps"];
        weighted += (*s.second)["TotalOps"] * (*s.second)["ResponseTime"];
      }
      EXPECT_EQ(ops == 0 ? 0 : weighted / ops, (*n)["FileResponseTime"]) << n->where();
    }
  }
}

}  // namespace
}  // namespace zerva_e2e
