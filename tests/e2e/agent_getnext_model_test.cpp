// GETNEXT and GETBULK from any OID under the subtree, checked against a
// model: the sorted list of every instance a walk of the agent lists (equal
// to the simulator's ground truth). The successor of an OID is the first
// model instance strictly greater than it (arc by arc), or endOfMibView
// when there is none. The OIDs asked are every boundary of the subtree
// (tables, entries, columns, instances, neighbours of them, partial and
// extreme indexes, gaps between tables) and random OIDs around them. The
// agent runs as the program, as the dlmod module of a stock snmpd, and as
// the AgentX sub-agent of one.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/e2e_support.h"
#include "tests/process/stock_snmpd.h"
#include "tests/support/temp_dir.h"

namespace zerva_e2e {
using zerva_test::Subtree;

namespace {

const unsigned long kMaxArc = 4294967295UL;
const char kEndOfView[] = "No more variables left in this MIB View";

// The instances the agent serves, in OID order.
struct Model {
  std::vector<Oid> names;
  std::vector<Value> values;

  // The position of the first instance after oid (names.size(): none).
  size_t successor(const Oid& oid) const {
    return static_cast<size_t>(std::upper_bound(names.begin(), names.end(), oid) - names.begin());
  }
};

// One varbind of a client's answer, in answer order.
struct Answer {
  Oid name;
  bool endOfView = false;
  bool instance = false;
  Value value;
  std::string text;  // the line(s) as printed
};

// Splits snmpgetnext/snmpbulkget output (-On -Ox) into its varbinds: each
// starts with a line ".OID = ..."; a long Hex-STRING goes on over further
// lines. Other lines (errors) land in *others.
std::vector<Answer> ParseAnswers(const std::string& output, std::vector<std::string>* others) {
  std::vector<std::string> chunks;
  std::istringstream in(output);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line[0] == '.' && line.find(" = ") != std::string::npos) {
      chunks.push_back(line + "\n");
    } else if (!chunks.empty() && !line.empty() && line[0] == ' ') {
      chunks.back() += line + "\n";
    } else if (!chunks.empty() && line.find_first_not_of("0123456789ABCDEFabcdef ") == std::string::npos &&
               !line.empty()) {
      chunks.back() += line + "\n";
    } else if (!line.empty()) {
      others->push_back(line);
    }
  }
  std::vector<Answer> out;
  for (const std::string& chunk : chunks) {
    Answer a;
    a.text = chunk;
    a.name = ParseOid(chunk.substr(0, chunk.find(" = ")));
    const ParsedWalk parsed = ParseWalk(chunk);
    if (parsed.lines.size() == 1) {
      a.instance = true;
      a.value = parsed.lines[0].value;
    } else if (chunk.find(kEndOfView) != std::string::npos) {
      a.endOfView = true;
    }
    out.push_back(a);
  }
  return out;
}

std::string Join(const std::vector<Oid>& oids, size_t from, size_t count) {
  std::string args;
  for (size_t i = from; i < from + count && i < oids.size(); ++i) args += " " + OidText(oids[i]);
  return args;
}

std::string ExpectedText(const Model& model, size_t at) {
  return at < model.names.size() ? OidText(model.names[at]) : std::string("endOfMibView");
}

// Checks one answered varbind against the model's instance at `at`
// (model.names.size(): endOfMibView). Returns false on a mismatch.
bool Matches(const Model& model, size_t at, const Answer& a) {
  if (at >= model.names.size()) return a.endOfView;
  return a.instance && a.name == model.names[at] && a.value == model.values[at];
}

// Reports a mismatch with the OID asked, the expected and the answered name;
// *reported counts a check's mismatches, only the first kMaxReports are told.
const int kMaxReports = 25;
void ReportMismatch(const std::string& what, const Oid& asked, const Model& model, size_t at, const Answer* a,
                    int* reported) {
  if (++*reported > kMaxReports) return;
  std::string expected = ExpectedText(model, at);
  if (at < model.names.size()) expected += " = " + ValueText(model.values[at]);
  ADD_FAILURE() << what << " from " << OidText(asked) << ": expected " << expected << ", answered "
                << (a == nullptr ? std::string("nothing") : a->text);
}

// ---------------------------------------------------------------- the OIDs

Oid Append(Oid oid, std::initializer_list<unsigned long> arcs) {
  oid.insert(oid.end(), arcs.begin(), arcs.end());
  return oid;
}

// Every boundary of the subtree the model and the MIB description show.
std::set<Oid> BoundaryOids(const Model& model) {
  const Oid root = Subtree();
  std::set<Oid> out = {root};
  // Every top-level arc (the scalar, the tables, the gaps between them and
  // past the last table), alone and with arcs under it.
  for (unsigned long n = 0; n <= 22; ++n) {
    out.insert(Append(root, {n}));
    out.insert(Append(root, {n, 0}));
    out.insert(Append(root, {n, 99}));
    out.insert(Append(root, {n, kMaxArc}));
  }
  out.insert(Append(root, {kMaxArc}));
  out.insert(Append(SwitchOid(), {0}));
  for (const zerva_agent::MibObject* t : MibTables()) {
    const Oid table(t->oid.begin(), t->oid.end());
    const Oid entry = Append(table, {1});
    out.insert(table);
    out.insert(entry);
    out.insert(Append(table, {0}));
    out.insert(Append(table, {2}));
    out.insert(Append(entry, {0}));
    out.insert(Append(entry, {kMaxArc}));
    unsigned long last = 0;
    for (const zerva_agent::MibColumn& c : t->columns) {
      const Oid column = Append(entry, {c.number});
      out.insert(column);
      out.insert(Append(entry, {c.number + 1}));  // may be a gap between columns
      for (unsigned long index : {0UL, 1UL, kMaxArc}) {
        out.insert(Append(column, {index}));
        out.insert(Append(column, {index, 0}));
      }
      last = std::max(last, static_cast<unsigned long>(c.number));
    }
    out.insert(Append(entry, {last + 1}));
    out.insert(Append(entry, {last + 1, 1}));
  }
  // Every instance, an OID under it, one arc past it, and (text indexes)
  // each of its prefixes: partial indexes.
  for (const Oid& name : model.names) {
    out.insert(name);
    out.insert(Append(name, {0}));
    out.insert(Append(name, {0, 7}));
    Oid next = name;
    if (next.back() < kMaxArc) ++next.back();
    out.insert(next);
    Oid before = name;
    if (before.back() > 0) --before.back();
    out.insert(before);
    for (size_t len = root.size() + 4; len < name.size(); ++len) out.insert(Oid(name.begin(), name.begin() + len));
  }
  return out;
}

// Random OIDs under the subtree: a prefix of an instance (or the root) with
// 0..8 arcs appended, drawn from small numbers, numbers near the instance's
// own arcs and the largest arcs.
std::vector<Oid> RandomOids(const Model& model, size_t count, std::mt19937* rng) {
  const Oid root = Subtree();
  std::vector<Oid> out;
  std::uniform_int_distribution<size_t> pick(0, model.names.size() - 1);
  for (size_t i = 0; i < count; ++i) {
    const Oid& near = model.names[pick(*rng)];
    const size_t keep = std::uniform_int_distribution<size_t>(root.size(), near.size())(*rng);
    Oid oid(near.begin(), near.begin() + keep);
    const int extra = std::uniform_int_distribution<int>(0, 8)(*rng);
    for (int k = 0; k < extra; ++k) {
      const size_t pos = oid.size();
      const int kind = std::uniform_int_distribution<int>(0, 9)(*rng);
      unsigned long arc;
      if (kind < 4) {
        arc = std::uniform_int_distribution<unsigned long>(0, 16)(*rng);
      } else if (kind < 8 && pos < near.size()) {
        const long delta = std::uniform_int_distribution<long>(-1, 1)(*rng);
        arc = static_cast<unsigned long>(std::max(0L, static_cast<long>(near[pos]) + delta));
      } else if (kind < 8) {
        arc = std::uniform_int_distribution<unsigned long>(0, 300)(*rng);
      } else {
        arc = kMaxArc - std::uniform_int_distribution<unsigned long>(0, 1)(*rng);
      }
      oid.push_back(arc);
    }
    out.push_back(oid);
  }
  return out;
}

// The OIDs a test asks: every boundary (a sample of `boundaries` when there
// are more) and `random` random ones, shuffled so that each request mixes
// tables.
std::vector<Oid> TestOids(const Model& model, size_t boundaries, size_t random, uint32_t seed) {
  std::mt19937 rng(seed);
  const std::set<Oid> b = BoundaryOids(model);
  std::vector<Oid> out(b.begin(), b.end());
  std::shuffle(out.begin(), out.end(), rng);
  if (out.size() > boundaries) out.resize(boundaries);
  const std::vector<Oid> r = RandomOids(model, random, &rng);
  out.insert(out.end(), r.begin(), r.end());
  std::shuffle(out.begin(), out.end(), rng);
  return out;
}

// ---------------------------------------------------------------- checks

// Walks the subtree once: the model. Fails the test when the walk is not
// strictly increasing or differs from the simulator's ground truth.
Model WalkModel(const AgentUnderTest& agent) {
  int rc = -1;
  std::string raw;
  const ParsedWalk walk = Walk(agent, Subtree(), "snmpbulkwalk", "-Cr50", &rc, &raw);
  EXPECT_EQ(0, rc) << raw;
  Model model;
  for (const WalkLine& l : walk.lines) {
    EXPECT_TRUE(Under(l.oid, Subtree())) << OidText(l.oid);
    if (!model.names.empty() && !(model.names.back() < l.oid)) {
      ADD_FAILURE() << "the walk is not strictly increasing: " << OidText(l.oid) << " after "
                    << OidText(model.names.back());
    }
    model.names.push_back(l.oid);
    model.values.push_back(l.value);
  }
  return model;
}

// The ground truth of every table and the switch, as one map.
std::map<Oid, Value> TruthOfEverything(const AgentUnderTest& agent) {
  std::map<Oid, Value> all = {{SwitchOid(), {"Gauge32", std::to_string(agent.array().switchState())}}};
  for (const zerva_agent::MibObject* t : MibTables()) {
    bool served = false;
    const TableTruth truth = Truth(agent, *t, &served);
    if (served) all.insert(truth.instances.begin(), truth.instances.end());
  }
  return all;
}

// The ground truth as a model.
Model TruthModel(const AgentUnderTest& agent) {
  Model model;
  for (const auto& i : TruthOfEverything(agent)) {
    model.names.push_back(i.first);
    model.values.push_back(i.second);
  }
  return model;
}

// Asks every OID with snmpgetnext, `perRequest` varbinds a request, and
// compares each answer with the model's successor. Returns the mismatches.
int CheckGetNext(const AgentUnderTest& agent, const Model& model, const std::vector<Oid>& oids, size_t perRequest) {
  int mismatches = 0;
  for (size_t from = 0; from < oids.size(); from += perRequest) {
    const size_t n = std::min(perRequest, oids.size() - from);
    int rc = -1;
    const std::string out = Tool(agent, "snmpgetnext", kReadCommunity, Join(oids, from, n), &rc);
    std::vector<std::string> others;
    const std::vector<Answer> answers = ParseAnswers(out, &others);
    if (rc != 0 || answers.size() != n || !others.empty()) {
      if (++mismatches <= kMaxReports) {
        ADD_FAILURE() << "snmpgetnext of" << Join(oids, from, n) << " (rc " << rc << "):\n" << out;
      }
      continue;
    }
    for (size_t i = 0; i < n; ++i) {
      const size_t at = model.successor(oids[from + i]);
      if (!Matches(model, at, answers[i])) {
        ReportMismatch("GETNEXT", oids[from + i], model, at, &answers[i], &mismatches);
      }
    }
  }
  return mismatches;
}

// Asks snmpbulkget -Cn0 -Cr<repetitions> of the OIDs, `perRequest` varbinds
// a request: each varbind's answers are its next `repetitions` model
// instances, or fewer and then endOfMibView. The agent may leave out the
// repetitions after one where every varbind is at the end of the view.
int CheckGetBulk(const AgentUnderTest& agent, const Model& model, const std::vector<Oid>& oids, size_t perRequest,
                 size_t repetitions) {
  int mismatches = 0;
  for (size_t from = 0; from < oids.size(); from += perRequest) {
    const size_t n = std::min(perRequest, oids.size() - from);
    int rc = -1;
    const std::string out =
        Tool(agent, "snmpbulkget", kReadCommunity, "-Cn0 -Cr" + std::to_string(repetitions) + Join(oids, from, n), &rc);
    std::vector<std::string> others;
    const std::vector<Answer> answers = ParseAnswers(out, &others);
    // Repetitions that must be answered: up to the last real successor.
    size_t needed = 0;
    for (size_t i = 0; i < n; ++i) {
      const size_t at = model.successor(oids[from + i]);
      needed = std::max(needed, std::min(repetitions, model.names.size() - at));
    }
    const size_t answered = answers.size() / n;
    if (rc != 0 || !others.empty() || answers.size() % n != 0 || answered < needed || answered > repetitions) {
      if (++mismatches <= kMaxReports) {
        ADD_FAILURE() << "snmpbulkget -Cr" << repetitions << " of" << Join(oids, from, n) << " (rc " << rc << ", "
                      << answers.size() << " varbinds, " << needed << " repetitions needed):\n"
                      << out;
      }
      continue;
    }
    for (size_t i = 0; i < n; ++i) {
      const size_t at = model.successor(oids[from + i]);
      for (size_t r = 0; r < answered; ++r) {
        const size_t want = std::min(at + r, model.names.size());
        const Answer& a = answers[r * n + i];
        if (!Matches(model, want, a)) {
          ReportMismatch("GETBULK -Cr" + std::to_string(repetitions) + " repetition " + std::to_string(r + 1),
                         oids[from + i], model, want, &a, &mismatches);
          break;
        }
      }
    }
  }
  return mismatches;
}

// ---------------------------------------------------------------- tests

// The agent's ways of reading the tables: every request reads afresh
// (snapshots off), or rows are kept between requests and the batch tables
// are read a few rows at a time, so that GETNEXTs from anywhere meet every
// mix of kept and missing index ranges. Where rows are kept, the model comes
// from the ground truth rather than a walk, which would leave every row kept.
// Each is asked of the program and of the dlmod module in a stock snmpd
// (whose communities see the subtree only, so its view ends where ours
// does).
struct Reading {
  const char* name;
  const char* config;
  bool modelFromWalk;
  bool dlmod;
};
// gtest names a case by its reading, in messages as in test names.
void PrintTo(const Reading& reading, std::ostream* os) { *os << reading.name; }

const Reading kReadings[] = {
    {"ReadAfresh", "zervaSnapshotSeconds 0\n", true, false},
    {"KeptSmallBatches", "zervaSnapshotSeconds 600\nzervaBatchRows 3\n", false, false},
    {"AfreshSmallBatches", "zervaSnapshotSeconds 0\nzervaBatchRows 2\n", true, false},
};
const Reading kDlmodReadings[] = {
    {"ReadAfresh", "zervaSnapshotSeconds 0\n", true, true},
    {"KeptSmallBatches", "zervaSnapshotSeconds 600\nzervaBatchRows 3\n", false, true},
    {"AfreshSmallBatches", "zervaSnapshotSeconds 0\nzervaBatchRows 2\n", true, true},
};

class GetNextModelTest : public ::testing::TestWithParam<Reading> {
 protected:
  void SetUp() override {
    if (GetParam().dlmod && ZERVA_AGENT_SANITIZED) {
      GTEST_SKIP() << "a sanitized module cannot be loaded into an unsanitized snmpd";
    }
    AgentUnderTest::Options options = SmallArray();
    options.extraConfig = GetParam().config;
    options.dlmod = GetParam().dlmod;
    std::string error;
    ASSERT_TRUE(agent_.start(options, &error)) << error;
    model_ = GetParam().modelFromWalk ? WalkModel(agent_) : TruthModel(agent_);
    ASSERT_GT(model_.names.size(), 100u);
  }
  AgentUnderTest agent_;
  Model model_;
};

TEST_P(GetNextModelTest, ModelWalkIsStrictlyIncreasingAndEqualsTheGroundTruth) {
  const Model walk = WalkModel(agent_);
  std::map<Oid, Value> walked;
  for (size_t i = 0; i < walk.names.size(); ++i) walked.emplace(walk.names[i], walk.values[i]);
  EXPECT_EQ(walk.names.size(), walked.size());
  EXPECT_EQ("", Diff(TruthOfEverything(agent_), walked));
}

TEST_P(GetNextModelTest, GetNextFromEveryBoundaryAndRandomOidGivesTheModelsSuccessor) {
  const std::vector<Oid> oids = TestOids(model_, 3000, 1500, 20261123);
  ASSERT_GT(oids.size(), 2000u);
  EXPECT_EQ(0, CheckGetNext(agent_, model_, oids, 40));
}

TEST_P(GetNextModelTest, GetBulkFromEveryBoundaryAndRandomOidGivesTheModelsSuccessors) {
  // Varbinds times repetitions stay within 100, the most answers Net-SNMP
  // gives a GETBULK by default (maxGetbulkResponses): no answer is cut short.
  const std::vector<Oid> oids = TestOids(model_, 600, 300, 4242);
  EXPECT_EQ(0, CheckGetBulk(agent_, model_, oids, 40, 1));
  EXPECT_EQ(0, CheckGetBulk(agent_, model_, std::vector<Oid>(oids.begin(), oids.begin() + 300), 10, 7));
  EXPECT_EQ(0, CheckGetBulk(agent_, model_, std::vector<Oid>(oids.begin(), oids.begin() + 60), 1, 100));
}

INSTANTIATE_TEST_SUITE_P(Readings, GetNextModelTest, ::testing::ValuesIn(kReadings),
                         [](const ::testing::TestParamInfo<Reading>& info) { return std::string(info.param.name); });
INSTANTIATE_TEST_SUITE_P(Dlmod, GetNextModelTest, ::testing::ValuesIn(kDlmodReadings),
                         [](const ::testing::TestParamInfo<Reading>& info) { return std::string(info.param.name); });

// The same model checks with the agent as the AgentX sub-agent of a stock
// snmpd whose community sees the subtree only (so the view ends where the
// subtree does). Each GETBULK repetition is a round trip to the sub-agent:
// fewer OIDs here.
class AgentXModelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const int port = zerva_test::FreeUdpPort();
    std::string error;
    ASSERT_TRUE(snmpd_.startMaster(port, OidText(Subtree()), &error)) << error;
    ASSERT_TRUE(agent_.start(SubAgentOf(SmallArray(), snmpd_, port), &error)) << error << snmpd_.log();
    model_ = WalkModel(agent_);
    ASSERT_GT(model_.names.size(), 100u);
  }
  zerva_test::TempDir dir_;  // declared first: removed last
  zerva_test::StockSnmpd snmpd_{dir_};
  AgentUnderTest agent_;
  Model model_;
};

TEST_F(AgentXModelTest, ModelWalkThroughTheMasterEqualsTheGroundTruth) {
  std::map<Oid, Value> walked;
  for (size_t i = 0; i < model_.names.size(); ++i) walked.emplace(model_.names[i], model_.values[i]);
  EXPECT_EQ("", Diff(TruthOfEverything(agent_), walked));
}

TEST_F(AgentXModelTest, GetNextAndGetBulkThroughTheMasterGiveTheModelsSuccessors) {
  const std::vector<Oid> oids = TestOids(model_, 250, 150, 777);
  EXPECT_EQ(0, CheckGetNext(agent_, model_, oids, 40));
  EXPECT_EQ(0, CheckGetBulk(agent_, model_, std::vector<Oid>(oids.begin(), oids.begin() + 80), 20, 1));
  EXPECT_EQ(0, CheckGetBulk(agent_, model_, std::vector<Oid>(oids.begin(), oids.begin() + 40), 10, 7));
  EXPECT_EQ(0, CheckGetBulk(agent_, model_, std::vector<Oid>(oids.begin(), oids.begin() + 6), 1, 100));
}

}  // namespace
}  // namespace zerva_e2e
