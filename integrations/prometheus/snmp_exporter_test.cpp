// Debian's prometheus-snmp-exporter with the committed snmp.yml (module
// "zerva") scrapes the agent, whose simulated array runs in this process
// with its clock frozen: every series it exposes is compared with the
// array's ground truth. Also: snmp.yml is what Debian's generator makes of
// generator.yml and the MIB, and the example alerting rules only use metrics
// the module exposes.
#include <gtest/gtest.h>

#include <iostream>
#include <map>
#include <memory>
#include <regex>
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
using zerva_test::IndexText;
using zerva_test::Oid;
using zerva_test::Process;
using zerva_test::ReadFile;
using zerva_test::TableTruth;
using zerva_test::TempDir;

std::string PrometheusDir() { return IntegrationsDir() + "/prometheus"; }

// The columns the module exposes as metrics: every column but the index
// (a label), the port name (a label, by lookup) and the reserved cache
// column (always -1).
bool IsMetric(const MibObject& table, const MibColumn& column) {
  return column.number != table.indexColumn && column.name != "vemPerfPortName" &&
         column.name != "vemPerfCacheReserved";
}

// A series as the exposition format names it: name{label="value",...}, the
// labels sorted by name.
std::string SeriesKey(const std::string& name, const std::map<std::string, std::string>& labels) {
  if (labels.empty()) return name;
  std::string key = name + "{";
  for (const auto& l : labels) key += (key.back() == '{' ? "" : ",") + l.first + "=\"" + l.second + "\"";
  return key + "}";
}

// What one scrape exposed.
struct Exposition {
  std::map<std::string, std::string> series;  // SeriesKey -> value (whole numbers in decimal)
  std::map<std::string, std::string> types;   // metric name -> its # TYPE
  std::vector<std::string> problems;          // lines that did not parse, series seen twice
};

// Parses the Prometheus text format (as the exporter writes it: no
// timestamps).
Exposition Parse(const std::string& body) {
  Exposition out;
  for (const std::string& line : Lines(body)) {
    if (line.empty()) continue;
    if (line.compare(0, 7, "# TYPE ") == 0) {
      const size_t space = line.find(' ', 7);
      if (space != std::string::npos) out.types[line.substr(7, space - 7)] = line.substr(space + 1);
      continue;
    }
    if (line[0] == '#') continue;
    const size_t nameEnd = line.find_first_of("{ ");
    if (nameEnd == std::string::npos) {
      out.problems.push_back(line);
      continue;
    }
    const std::string name = line.substr(0, nameEnd);
    std::map<std::string, std::string> labels;
    size_t at = nameEnd;
    bool ok = true;
    if (line[at] == '{') {
      ++at;
      while (ok && at < line.size() && line[at] != '}') {
        const size_t eq = line.find("=\"", at);
        if (eq == std::string::npos) {
          ok = false;
          break;
        }
        const std::string label = line.substr(at, eq - at);
        std::string value;
        size_t i = eq + 2;
        for (; i < line.size() && line[i] != '"'; ++i) {
          if (line[i] == '\\' && i + 1 < line.size()) {
            ++i;
            value += line[i] == 'n' ? '\n' : line[i];
          } else {
            value += line[i];
          }
        }
        if (i >= line.size()) ok = false;
        labels[label] = value;
        at = i + 1;
        if (at < line.size() && line[at] == ',') ++at;
      }
      if (at >= line.size()) ok = false;
      ++at;  // the '}'
    }
    if (!ok || at >= line.size() || line[at] != ' ') {
      out.problems.push_back(line);
      continue;
    }
    const std::string key = SeriesKey(name, labels);
    if (!out.series.emplace(key, WholeNumber(line.substr(at + 1))).second) out.problems.push_back("twice: " + key);
  }
  return out;
}

// Only the module's own series (the exporter adds snmp_scrape_* ones).
std::map<std::string, std::string> ZervaSeries(const Exposition& e) {
  std::map<std::string, std::string> out;
  for (const auto& s : e.series) {
    if (s.first.compare(0, 7, "vemPerf") == 0) out.insert(s);
  }
  return out;
}

// The series the module must expose for one table: per row, every metric
// column with the row's index label (and, for ports, the port's name).
std::map<std::string, std::string> ExpectedSeries(const TableTruth& truth) {
  const MibObject& table = *truth.object;
  const std::string indexLabel = table.column(table.indexColumn)->name;
  const MibColumn* portName = nullptr;
  for (const MibColumn& c : table.columns) {
    if (c.name == "vemPerfPortName") portName = &c;
  }
  std::map<std::string, std::string> out;
  for (const Oid& row : truth.rowIndexes) {
    std::map<std::string, std::string> labels = {{indexLabel, IndexText(table, row)}};
    if (portName != nullptr) labels[portName->name] = CellOf(truth, portName->number, row);
    for (const MibColumn& c : table.columns) {
      bool found = false;
      const std::string value = CellOf(truth, c.number, row, &found);
      if (IsMetric(table, c) && found) out[SeriesKey(c.name, labels)] = value;
    }
  }
  return out;
}

// prometheus-snmp-exporter on a free loopback port with the committed
// snmp.yml.
class Exporter {
 public:
  bool start(const std::string& dir, std::string* error) {
    port_ = FreeTcpPort();
    log_ = dir + "/exporter.log";
    process_.reset(new Process({ZERVA_SNMP_EXPORTER, "--config.file=" + PrometheusDir() + "/snmp.yml",
                                "--web.listen-address=127.0.0.1:" + std::to_string(port_)},
                               log_));
    const bool up = WaitUntil([this] { return !process_->running() || HttpGet(port_, "/", 1000).status == 200; },
                              std::chrono::seconds(15));
    if (!up || !process_->running()) {
      *error = "the exporter does not answer on port " + std::to_string(port_) + "; its log:\n" + ReadFile(log_);
      return false;
    }
    return true;
  }
  HttpResponse scrape(int agentPort) const {
    return HttpGet(port_, "/snmp?target=127.0.0.1:" + std::to_string(agentPort) + "&module=zerva");
  }
  std::string log() const { return ReadFile(log_); }

 private:
  int port_ = 0;
  std::string log_;
  std::unique_ptr<Process> process_;  // stopped (SIGTERM, then SIGKILL) when the object goes
};

class SnmpExporterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(agent_.start(zerva_e2e::SmallArray(), &error)) << error;
    ASSERT_TRUE(exporter_.start(dir_.path(), &error)) << error;
  }
  // One scrape of the agent, parsed; fails the test when it is not a 200.
  Exposition scrape() {
    const HttpResponse r = exporter_.scrape(agent_.port());
    EXPECT_EQ(200, r.status) << r.error << r.body << "\nexporter log:\n" << exporter_.log();
    Exposition e = Parse(r.body);
    EXPECT_TRUE(e.problems.empty()) << e.problems.front();
    return e;
  }

  TempDir dir_;
  AgentUnderTest agent_;
  Exporter exporter_;  // declared last: stopped first
};

TEST_F(SnmpExporterTest, ScrapeHasEveryRowOfEveryTableWithIndexAndPortNameLabelsAndTheGroundTruthValues) {
  const Exposition scraped = scrape();
  std::map<std::string, std::string> expected = {{"vemPerfSwitch", std::to_string(agent_.array().switchState())}};
  for (const MibObject* table : zerva_test::MibTables()) {
    const TableTruth truth = zerva_e2e::Truth(agent_, *table);
    const std::map<std::string, std::string> rows = ExpectedSeries(truth);
    // Every table contributes, one series per metric column and row.
    EXPECT_FALSE(truth.rowIndexes.empty()) << table->name;
    size_t metrics = 0;
    for (const MibColumn& c : table->columns) metrics += IsMetric(*table, c) ? 1 : 0;
    EXPECT_LE(1u, metrics) << table->name;
    EXPECT_EQ(truth.rowIndexes.size() * metrics, rows.size()) << table->name;
    // One series of the table as scraped, for the test's log.
    if (!rows.empty()) {
      const auto got = scraped.series.find(rows.begin()->first);
      std::cout << rows.begin()->first << " " << (got == scraped.series.end() ? "(missing)" : got->second) << "\n";
    }
    expected.insert(rows.begin(), rows.end());
  }
  const std::string diff = MapDiff(expected, ZervaSeries(scraped));
  EXPECT_TRUE(diff.empty()) << diff;
}

TEST_F(SnmpExporterTest, EveryZervaMetricIsExposedAsAGauge) {
  const Exposition scraped = scrape();
  std::set<std::string> names;
  for (const auto& s : ZervaSeries(scraped)) names.insert(s.first.substr(0, s.first.find('{')));
  EXPECT_LE(50u, names.size());
  for (const std::string& name : names) {
    const auto type = scraped.types.find(name);
    ASSERT_NE(scraped.types.end(), type) << name << " has no # TYPE line";
    EXPECT_EQ("gauge", type->second) << name;
  }
}

TEST_F(SnmpExporterTest, CollectionSwitchedOffScrapesAsSwitchZeroWithoutTableRows) {
  agent_.array().setSwitch(false);
  const Exposition scraped = scrape();
  const std::map<std::string, std::string> expected = {{"vemPerfSwitch", "0"}};
  const std::string diff = MapDiff(expected, ZervaSeries(scraped));
  EXPECT_TRUE(diff.empty()) << diff;

  // On again: the rows come back with the next scrape.
  agent_.array().setSwitch(true);
  Exposition again = scrape();
  EXPECT_EQ("1", again.series["vemPerfSwitch"]);
  const TableTruth ports = zerva_e2e::Truth(agent_, *zerva_test::MibTable("vemPerfPortTable"));
  const std::map<std::string, std::string> expectedPorts = ExpectedSeries(ports);
  ASSERT_FALSE(expectedPorts.empty());
  for (const auto& s : expectedPorts) EXPECT_EQ(s.second, again.series[s.first]) << s.first;
}

// The generator needs no agent: it reads generator.yml and the MIBs.
TEST(SnmpYmlTest, CommittedSnmpYmlIsWhatDebiansGeneratorMakesOfGeneratorYmlAndTheMib) {
  TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  dir.file("generator.yml", ReadFile(PrometheusDir() + "/generator.yml"));
  const std::string mibs = IntegrationsDir() + "/../mibs";
  int rc = -1;
  const std::string out = RunProgram({ZERVA_SNMP_GENERATOR, "--fail-on-parse-errors", "generate"},
                                     {"MIBDIRS=" + mibs + ":" + mibs + "/base"}, dir.path(), 120, &rc);
  ASSERT_EQ(0, rc) << out;
  const std::string generated = ReadFile(dir.path() + "/snmp.yml");
  ASSERT_NE("", generated) << out;
  const std::string committed = PrometheusDir() + "/snmp.yml";
  EXPECT_TRUE(generated == ReadFile(committed))
      << "integrations/prometheus/snmp.yml is out of date; regenerate it (integrations/prometheus/README.md):\n"
      << zerva_test::RunShell("diff -u '" + committed + "' '" + dir.path() + "/snmp.yml' | head -60");
}

TEST(AlertRulesTest, AlertsUseOnlyMetricsAndLabelsTheModuleExposesAndTheJobOfTheExampleConfiguration) {
  const std::string rules = ReadFile(PrometheusDir() + "/alerts.yml");
  const std::string snmpYml = ReadFile(PrometheusDir() + "/snmp.yml");
  const std::string config = ReadFile(PrometheusDir() + "/prometheus.yml");
  ASSERT_NE("", rules);
  ASSERT_NE("", snmpYml);
  // The metrics the expressions select are metrics of the module.
  std::set<std::string> metrics;
  const std::regex metric("\\bvemPerf[A-Za-z0-9]+");
  for (const std::string& line : Lines(rules)) {
    if (line.find("expr:") == std::string::npos) continue;
    for (std::sregex_iterator m(line.begin(), line.end(), metric), end; m != end; ++m) metrics.insert(m->str());
  }
  EXPECT_LE(5u, metrics.size());
  for (const std::string& name : metrics) {
    EXPECT_NE(std::string::npos, snmpYml.find("- name: " + name + "\n")) << name << " is no metric of snmp.yml";
  }
  // The labels the annotations show are the module's (or Prometheus' own).
  std::set<std::string> labels;
  const std::regex label("\\$labels\\.([A-Za-z0-9_]+)");
  for (std::sregex_iterator m(rules.begin(), rules.end(), label), end; m != end; ++m) labels.insert((*m)[1]);
  EXPECT_LE(4u, labels.size());
  for (const std::string& name : labels) {
    if (name == "instance" || name == "job") continue;
    EXPECT_NE(std::string::npos, snmpYml.find("labelname: " + name + "\n")) << name << " is no label of snmp.yml";
  }
  // The job the rules select is the example's.
  const std::regex job("job=\"([^\"]+)\"");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(rules, m, job));
  EXPECT_NE(std::string::npos, config.find("job_name: " + m[1].str() + "\n")) << m[1];
}

}  // namespace
}  // namespace zerva_integrations
