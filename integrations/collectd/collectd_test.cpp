// Debian's collectd with the shipped configuration (zerva-snmp.conf,
// zerva-types.db) reads the agent's node, LUN and port tables with its snmp
// plugin every second and writes them with its csv plugin; the simulated
// array runs in this process with its clock frozen, so every row of every
// CSV file must hold the array's ground truth.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "integrations/support/integration_support.h"
#include "tests/e2e/e2e_support.h"

namespace zerva_integrations {
namespace {

using zerva_agent::MibColumn;
using zerva_agent::MibObject;
using zerva_e2e::AgentUnderTest;
using zerva_test::Oid;
using zerva_test::Process;
using zerva_test::ReadFile;
using zerva_test::TableTruth;
using zerva_test::TempDir;

// What one Data block of zerva-snmp.conf dispatches: one value list per
// table row, its type instance read from a column, its values from columns
// in this order.
struct Block {
  const char* type;  // the collectd type (zerva-types.db), the CSV file's prefix
  const char* table;
  unsigned int instanceColumn;
  std::vector<unsigned int> valueColumns;
};

const std::vector<Block>& Blocks() {
  static const std::vector<Block> blocks = {
      {"zerva_node", "vemPerfNodeTable", 1, {2, 3, 4, 5, 6, 7, 8, 9, 10}},
      {"zerva_node_file", "vemPerfNodeTable", 1, {11, 12}},
      {"zerva_lun", "vemPerfLunTable", 1, {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}},
      {"zerva_port", "vemPerfPortTable", 11, {2, 3, 4, 5, 6, 7, 8, 9, 10}},
  };
  return blocks;
}

// The data source name of a column: its MIB name after the table's prefix,
// in snake case (vemPerfLunReadIoRatio -> read_io_ratio).
std::string DataSourceName(const MibObject& table, const MibColumn& column) {
  const std::string prefix = table.entryName.substr(0, table.entryName.size() - 5);  // "...Entry"
  std::string out;
  for (size_t i = prefix.size(); i < column.name.size(); ++i) {
    const char c = column.name[i];
    if (isupper(static_cast<unsigned char>(c))) {
      if (!out.empty()) out += '_';
      out += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    } else {
      out += c;
    }
  }
  return out;
}

// One CSV file of the csv plugin: its header and its rows (epoch, values).
struct CsvFile {
  std::string header;
  std::vector<std::vector<std::string>> rows;
};

std::vector<std::string> SplitCommas(const std::string& line) {
  std::vector<std::string> out(1);
  for (char c : line) {
    if (c == ',') {
      out.emplace_back();
    } else {
      out.back() += c;
    }
  }
  return out;
}

// The CSV files of the host "zerva-array", plugin "zerva", by (type,
// instance): DataDir/zerva-array/zerva/TYPE-INSTANCE-YYYY-MM-DD (a run
// across midnight has two files per value list; their rows are joined).
std::map<std::pair<std::string, std::string>, CsvFile> ReadCsv(const std::string& dataDir) {
  std::map<std::pair<std::string, std::string>, CsvFile> out;
  std::error_code ec;
  const std::filesystem::path dir = std::filesystem::path(dataDir) / "zerva-array" / "zerva";
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) names.insert(entry.path().filename());
  for (const std::string& name : names) {
    const size_t dash = name.find('-');
    if (name.size() < 12 || dash == std::string::npos || dash + 11 >= name.size()) continue;
    const std::string type = name.substr(0, dash);
    const std::string instance = name.substr(dash + 1, name.size() - 11 - dash - 1);
    CsvFile& file = out[{type, instance}];
    const std::vector<std::string> lines = Lines(ReadFile((dir / name).string()));
    for (size_t i = 0; i < lines.size(); ++i) {
      if (i == 0) {
        file.header = lines[0];
      } else if (!lines[i].empty()) {
        file.rows.push_back(SplitCommas(lines[i]));
      }
    }
  }
  return out;
}

// What the blocks must write: (type, instance) -> the values of the row,
// from the ground truth.
std::map<std::pair<std::string, std::string>, std::vector<std::string>> ExpectedValueLists(
    const AgentUnderTest& agent) {
  std::map<std::pair<std::string, std::string>, std::vector<std::string>> out;
  for (const Block& b : Blocks()) {
    const MibObject* table = zerva_test::MibTable(b.table);
    EXPECT_NE(nullptr, table) << b.table;
    if (table == nullptr) continue;
    const TableTruth truth = zerva_e2e::Truth(agent, *table);
    for (const Oid& row : truth.rowIndexes) {
      std::vector<std::string> values;
      bool complete = true;
      for (unsigned int c : b.valueColumns) {
        bool found = false;
        values.push_back(CellOf(truth, c, row, &found));
        complete = complete && found;
      }
      // collectd dispatches a row only when every value of it is there.
      if (complete) out[{b.type, CellOf(truth, b.instanceColumn, row)}] = values;
    }
  }
  return out;
}

class CollectdTest : public ::testing::Test {
 protected:
  // Starts the agent, then collectd with the shipped snmp configuration
  // pointed at the agent and a CSV directory here, for at most `limit`:
  // until every value list of `expected` has two rows in its CSV file.
  void RunCollectd(const AgentUnderTest::Options& options, std::chrono::seconds limit) {
    std::string error;
    ASSERT_TRUE(agent_.start(options, &error)) << error;
    ASSERT_FALSE(dir_.path().empty());
    expected_ = ExpectedValueLists(agent_);
    ASSERT_FALSE(expected_.empty());

    // The shipped plugin configuration with the agent's address and its two
    // machine-specific paths changed for the test.
    std::string snmpConf = ReadFile(IntegrationsDir() + "/collectd/zerva-snmp.conf");
    const std::vector<std::pair<std::string, std::string>> edits = {
        {"Address \"127.0.0.1:1161\"", "Address \"127.0.0.1:" + std::to_string(agent_.port()) + "\""},
        {"\"/etc/collectd/zerva-types.db\"", "\"" + IntegrationsDir() + "/collectd/zerva-types.db\""},
        {"DataDir \"/var/lib/collectd/csv\"", "DataDir \"" + csvDir() + "\""},
    };
    for (const auto& e : edits) {
      int count = 0;
      snmpConf = ReplaceOnce(snmpConf, e.first, e.second, &count);
      ASSERT_EQ(1, count) << e.first << " in zerva-snmp.conf";
    }
    const std::string conf =
        dir_.file("collectd.conf", "Hostname \"zerva-collectd-test\"\nFQDNLookup false\nBaseDir \"" + dir_.path() +
                                       "\"\nPIDFile \"" + dir_.path() + "/collectd.pid\"\nInterval 1\nInclude \"" +
                                       dir_.file("zerva-snmp.conf", snmpConf) + "\"\n");

    Process collectd({ZERVA_COLLECTD, "-f", "-C", conf}, dir_.path() + "/collectd.log");
    WaitUntil(
        [&] {
          if (!collectd.running()) return true;
          const auto files = ReadCsv(csvDir());
          for (const auto& e : expected_) {
            const auto f = files.find(e.first);
            if (f == files.end() || f->second.rows.size() < 2) return false;
          }
          return true;
        },
        limit, std::chrono::milliseconds(250));
    ASSERT_TRUE(collectd.running()) << "collectd exited; its log:\n" << log();
    EXPECT_EQ(0, collectd.stop()) << log();
    files_ = ReadCsv(csvDir());
  }

  std::string csvDir() const { return dir_.path() + "/csv"; }
  std::string log() const { return ReadFile(dir_.path() + "/collectd.log"); }

  // Every value list of expected_ has a file whose header names the
  // block's columns and whose rows (at least two) all hold the ground
  // truth; no other value list of those types was written.
  void ExpectCsvEqualsGroundTruth() {
    std::set<std::pair<std::string, std::string>> written;
    for (const auto& f : files_) written.insert(f.first);
    std::set<std::pair<std::string, std::string>> wanted;
    for (const auto& e : expected_) wanted.insert(e.first);
    EXPECT_EQ(wanted, written) << "CSV files (type, instance); collectd's log:\n" << log();

    for (const Block& b : Blocks()) {
      const MibObject* table = zerva_test::MibTable(b.table);
      ASSERT_NE(nullptr, table);
      std::string header = "epoch";
      for (unsigned int c : b.valueColumns) header += "," + DataSourceName(*table, *table->column(c));
      for (const auto& e : expected_) {
        if (e.first.first != b.type) continue;
        const auto f = files_.find(e.first);
        if (f == files_.end()) continue;  // reported above
        const std::string what = e.first.first + "-" + e.first.second;
        EXPECT_EQ(header, f->second.header) << what;
        ASSERT_LE(2u, f->second.rows.size()) << what;
        for (const std::vector<std::string>& row : f->second.rows) {
          ASSERT_EQ(e.second.size() + 1, row.size()) << what;
          std::vector<std::string> values;
          for (size_t i = 1; i < row.size(); ++i) values.push_back(WholeNumber(row[i]));
          EXPECT_EQ(e.second, values) << what << " at " << row[0];
        }
      }
    }
  }

  TempDir dir_;
  AgentUnderTest agent_;
  std::map<std::pair<std::string, std::string>, std::vector<std::string>> expected_;
  std::map<std::pair<std::string, std::string>, CsvFile> files_;
};

TEST_F(CollectdTest, CsvFilesHoldTheGroundTruthOfEveryNodeLunAndPortRow) {
  RunCollectd(zerva_e2e::SmallArray(), std::chrono::seconds(30));
  if (HasFatalFailure()) return;
  // Each table has its value lists: nodes by node number, LUNs by ID, ports
  // by name.
  std::set<std::string> types;  // of what collectd wrote
  for (const auto& f : files_) types.insert(f.first.first);
  EXPECT_EQ((std::set<std::string>{"zerva_lun", "zerva_node", "zerva_node_file", "zerva_port"}), types);
  EXPECT_EQ(1u, files_.count({"zerva_port", "eth0"}));
  EXPECT_EQ(1u, files_.count({"zerva_lun", "4000"}));
  EXPECT_EQ(1u, files_.count({"zerva_node", "11"}));  // controller 2D
  ExpectCsvEqualsGroundTruth();
}

TEST_F(CollectdTest, ArrayWithoutFileStatisticsStillHasEveryNodeRowAndNoFileServiceRows) {
  AgentUnderTest::Options options = zerva_e2e::SmallArray();
  options.features = 3;  // NFS and SMB, no file-system statistics (602)
  RunCollectd(options, std::chrono::seconds(30));
  if (HasFatalFailure()) return;
  size_t nodes = 0;  // files collectd wrote
  for (const auto& f : files_) {
    EXPECT_NE("zerva_node_file", f.first.first);
    nodes += f.first.first == "zerva_node" ? 1 : 0;
  }
  EXPECT_EQ(4u, nodes);
  ExpectCsvEqualsGroundTruth();
}

}  // namespace
}  // namespace zerva_integrations
