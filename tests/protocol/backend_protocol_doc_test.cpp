// Keeps docs/backend-protocol.md true: every labelled dump in it is checked
// against the handlers as they are built today.
//
// For each documented example the test parses the request and answer dumps,
// runs the real handler against a fake back end that answers with the
// documented answer bytes, and requires the request to be byte for byte the
// documented one and the handler's outcome to be the documented one. It also
// checks the decoded listings beside the dumps, the tables of command codes,
// transport codes and transport defaults, and carries one documented exchange
// over the real socket transport. The statements about paged listings (the
// keys the agent sends, what a listing answers for a key, the file-system
// sort order, what a walk costs for a page size, the batch sizes) are
// checked by running the agent's table server and the handlers against the
// simulated array, the reference back end.
#include <gtest/gtest.h>

#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "host/agent/agent_options.h"
#include "host/agent/mib_description.h"
#include "host/agent/object_server.h"
#include "performance/snmp_zerva_performance_fileSystem_handler.h"
#include "performance/snmp_zerva_performance_lun_handler.h"
#include "performance/snmp_zerva_performance_switch.h"
#include "sim/array_simulator.h"
#include "sim/topology.h"
#include "snmpcommon/snmp_backend_frame.h"
#include "snmpcommon/snmp_configuration.h"
#include "snmpcommon/snmp_context.h"
#include "snmpcommon/snmp_socket_transport.h"
#include "tests/protocol/protocol_examples.h"
#include "tests/support/fake_backend.h"
#include "tests/support/handler_test_support.h"
#include "tests/support/temp_dir.h"
#include "tlv/coding.h"
#include "tlv/vem_message_package.h"
#include "vempub/vem_xml_config.h"

#ifndef ZERVA_BACKEND_PROTOCOL_DOC
#error "ZERVA_BACKEND_PROTOCOL_DOC must name docs/backend-protocol.md"
#endif
#ifndef ZERVA_MIB_XML
#error "ZERVA_MIB_XML must name mibs/VEM-PERFORMANCE.xml"
#endif

namespace {

using zerva_protocol::Bytes;
using zerva_protocol::DocBlock;
using zerva_protocol::Example;
using zerva_protocol::ExampleRun;

// The block suffixes every example has in the document.
const char* const kSuffixes[] = {".request", ".request.decoded", ".answer", ".answer.decoded", ".outcome"};

// The document's text, read once.
const std::string& DocText() {
  static const std::string text = [] {
    std::ifstream in(ZERVA_BACKEND_PROTOCOL_DOC, std::ios::binary);
    std::ostringstream buf;
    buf << in.rdbuf();
    return buf.str();
  }();
  return text;
}

const std::vector<DocBlock>& DocBlocks() {
  static const std::vector<DocBlock> blocks = zerva_protocol::ParseDocBlocks(DocText());
  return blocks;
}

// The block with that label, or null.
const DocBlock* FindBlock(const std::string& label) {
  for (const DocBlock& b : DocBlocks()) {
    if (b.label == label) return &b;
  }
  return nullptr;
}

// The bytes of a hexdump block; fails the test when it is absent or malformed.
Bytes DumpBytes(const std::string& label) {
  const DocBlock* block = FindBlock(label);
  if (block == nullptr) {
    ADD_FAILURE() << "the document has no block " << label;
    return Bytes();
  }
  Bytes bytes;
  std::string error;
  EXPECT_TRUE(zerva_protocol::ParseHexDump(block->text, &bytes, &error))
      << label << " (document line " << block->line << "): " << error;
  return bytes;
}

std::vector<std::string> BlockLines(const std::string& label) {
  std::vector<std::string> lines;
  const DocBlock* block = FindBlock(label);
  if (block == nullptr) {
    ADD_FAILURE() << "the document has no block " << label;
    return lines;
  }
  std::istringstream in(block->text);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

std::vector<std::string> Labels() {
  std::vector<std::string> labels;
  for (const Example& e : zerva_protocol::Examples()) labels.push_back(e.label);
  return labels;
}

const Example& ExampleNamed(const std::string& label) {
  for (const Example& e : zerva_protocol::Examples()) {
    if (e.label == label) return e;
  }
  throw std::runtime_error("no example " + label);
}

class DocumentedExampleTest : public ::testing::TestWithParam<std::string> {};

TEST_P(DocumentedExampleTest, DocumentHasEveryBlockOfTheExample) {
  for (const char* suffix : kSuffixes) EXPECT_NE(FindBlock(GetParam() + suffix), nullptr) << GetParam() << suffix;
}

TEST_P(DocumentedExampleTest, RequestDumpIsWhatTheHandlerSendsToday) {
  const Bytes request = DumpBytes(GetParam() + ".request");
  const ExampleRun run = ExampleNamed(GetParam()).run(DumpBytes(GetParam() + ".answer"));
  EXPECT_EQ(run.error, "");
  EXPECT_EQ(zerva_protocol::HexDump(run.request), zerva_protocol::HexDump(request));
}

TEST_P(DocumentedExampleTest, AnswerDumpDecodesWithTheCodec) {
  Bytes answer = DumpBytes(GetParam() + ".answer");
  ASSERT_GE(answer.size(), TLVMsgHeadV3::SIZE);
  const Bytes original = answer;
  CTLVPackage pkg;
  const unsigned int consumed = pkg.decode(answer.data(), static_cast<unsigned int>(answer.size()));
  ASSERT_NE(consumed, CTLVPackage::FAILED);
  EXPECT_EQ(consumed, answer.size() - TLVMsgHeadV3::SIZE);
  // Nothing in the frame is lost or left over: encoding it again gives it back.
  unsigned char* out = nullptr;
  const unsigned int n = pkg.encode(out);
  const Bytes again(out, out + n);
  delete[] out;
  EXPECT_EQ(zerva_protocol::HexDump(again), zerva_protocol::HexDump(original));
}

TEST_P(DocumentedExampleTest, HandlerTurnsTheAnswerIntoTheDocumentedOutcome) {
  const ExampleRun run = ExampleNamed(GetParam()).run(DumpBytes(GetParam() + ".answer"));
  EXPECT_EQ(run.outcome, BlockLines(GetParam() + ".outcome"));
}

TEST_P(DocumentedExampleTest, DecodedListingsDescribeTheDumpedBytes) {
  for (const char* which : {".request", ".answer"}) {
    const std::string label = GetParam() + which;
    std::string expected;
    for (const std::string& line : BlockLines(label + ".decoded")) expected += line + "\n";
    EXPECT_EQ(zerva_protocol::DescribeFrame(DumpBytes(label)), expected) << label;
  }
}

TEST_P(DocumentedExampleTest, GeneratedRegionIsWhatTheGeneratorPrints) {
  std::string error;
  const std::string region = zerva_protocol::GeneratedRegion(DocText(), GetParam(), &error);
  ASSERT_EQ(error, "");
  EXPECT_EQ(region, zerva_protocol::ExampleMarkdown(ExampleNamed(GetParam())))
      << "regenerate with: backend_protocol_dumps --update docs/backend-protocol.md";
}

INSTANTIATE_TEST_SUITE_P(Examples, DocumentedExampleTest, ::testing::ValuesIn(Labels()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                           std::string name;
                           for (char c : info.param) name += c == '-' ? '_' : c;
                           return name;
                         });

TEST(BackendProtocolDocTest, EveryLabelledBlockBelongsToAnExampleAndIsUnique) {
  std::set<std::string> known;
  for (const std::string& label : Labels()) {
    for (const char* suffix : kSuffixes) known.insert(label + suffix);
  }
  std::set<std::string> seen;
  ASSERT_FALSE(DocBlocks().empty()) << "no labelled block in " << ZERVA_BACKEND_PROTOCOL_DOC;
  for (const DocBlock& block : DocBlocks()) {
    EXPECT_TRUE(known.count(block.label)) << "stale block " << block.label << " at line " << block.line;
    EXPECT_TRUE(seen.insert(block.label).second) << "second block " << block.label << " at line " << block.line;
  }
}

TEST(BackendProtocolDocTest, CommandCodeTableMatchesTheShippedDeviceConfiguration) {
  ASSERT_TRUE(zerva_protocol::LoadShippedDeviceConfig(nullptr));
  for (const char* name :
       {"GET_PERFORMANCE_SWITCH", "SET_PERFORMANCE_SWITCH", "GET_CUR_STATISTIC_DATA", "GET_SNMP_FEATURES"}) {
    std::string code;
    CVEMXmlConfig::instance()->getDeviceItem("COMMAND", name, code);
    ASSERT_FALSE(code.empty()) << name;
    char hex[32];
    snprintf(hex, sizeof hex, "0x%llX", strtoull(code.c_str(), nullptr, 10));
    const std::string row = std::string("| `") + name + "` | " + code + " | " + hex + " |";
    EXPECT_NE(DocText().find(row), std::string::npos) << "missing table row: " << row;
  }
}

TEST(BackendProtocolDocTest, TransportCodeTableMatchesTheHost) {
  for (int code = SNMP_TRANSPORT_E_NOT_CONFIGURED; code <= SNMP_TRANSPORT_E_ENCODE; ++code) {
    char hex[16];
    snprintf(hex, sizeof hex, "0x%08X", static_cast<unsigned int>(code));
    const std::string row = std::string("| ") + hex + " | " + SnmpTransportErrorText(code) + " |";
    EXPECT_NE(DocText().find(row), std::string::npos) << "missing table row: " << row;
  }
  EXPECT_STREQ(SnmpTransportErrorText(SNMP_TRANSPORT_E_ENCODE + 1), "") << "a new transport code is not documented";
}

TEST(BackendProtocolDocTest, TransportDefaultsTableMatchesTheHost) {
  const CSnmpSocketTransportOptions defaults;
  const std::vector<std::string> rows = {
      "| `connectTimeout` | " + std::to_string(defaults.connectTimeout.count()) + " ms |",
      "| `callTimeout` | " + std::to_string(defaults.callTimeout.count()) + " ms |",
      "| `listingTimeout` | " + std::to_string(defaults.listingTimeout.count()) + " ms |",
      "| `retryInterval` | " + std::to_string(defaults.retryInterval.count()) + " ms |",
      "| `maxBody` | " + std::to_string(defaults.maxBody) + " bytes |",
  };
  for (const std::string& row : rows) EXPECT_NE(DocText().find(row), std::string::npos) << "missing: " << row;
}

// A one-shot back end on a Unix socket in a temporary directory: accepts one
// connection, reads one frame, answers with the given bytes.
class OneShotBackend {
 public:
  explicit OneShotBackend(Bytes answer) : answer_(std::move(answer)) {
    if (dir_.path().empty()) return;
    path_ = dir_.path() + "/backend.sock";
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un sun = {};
    sun.sun_family = AF_UNIX;
    snprintf(sun.sun_path, sizeof sun.sun_path, "%s", path_.c_str());
    if (listener_ < 0 || bind(listener_, reinterpret_cast<struct sockaddr*>(&sun), sizeof sun) != 0 ||
        listen(listener_, 1) != 0) {
      return;
    }
    thread_ = std::thread([this] { serve(); });
  }
  ~OneShotBackend() {
    if (thread_.joinable()) thread_.join();
    if (listener_ >= 0) close(listener_);
    if (!path_.empty()) unlink(path_.c_str());
  }
  bool listening() const { return thread_.joinable(); }
  std::string address() const { return "unix:" + path_; }
  // The request frame received; valid after the client's call returned.
  Bytes received() {
    if (thread_.joinable()) thread_.join();
    return received_;
  }

 private:
  void serve() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    struct pollfd pfd = {listener_, POLLIN, 0};
    if (poll(&pfd, 1, 3000) != 1) return;
    const int fd = accept(listener_, nullptr, nullptr);
    if (fd < 0) return;
    if (ReadBackendFrame(fd, received_, SNMP_FRAME_DEFAULT_MAX_BODY, deadline) == 0) {
      WriteBackendFrame(fd, answer_.data(), answer_.size(), deadline);
    }
    close(fd);
  }

  Bytes answer_;
  Bytes received_;
  zerva_test::TempDir dir_;
  std::string path_;
  int listener_ = -1;
  std::thread thread_;
};

TEST(BackendProtocolDocTest, DocumentedSwitchReadTravelsUnchangedOverTheSocketTransport) {
  ASSERT_TRUE(zerva_protocol::LoadShippedDeviceConfig(nullptr));
  OneShotBackend backend(DumpBytes("switch-read.answer"));
  ASSERT_TRUE(backend.listening());
  CSnmpSocketTransportOptions options;
  std::string error;
  ASSERT_TRUE(CSnmpBackendAddress::parse(backend.address(), options.address, &error)) << error;
  options.callTimeout = std::chrono::milliseconds(3000);  // a loaded machine must not fail the test
  auto previous = CSNMP_Configuration::instance()->setTransport(std::make_shared<CSnmpSocketTransport>(options));

  CPerformanceSwithHandler handler;
  CTLVPackage req;
  CTLVPackage rsp;
  const int result = handler.OnQueryLeaf(CVEM_SnmpContext(), req, rsp);
  CSNMP_Configuration::instance()->setTransport(previous);

  std::vector<std::string> outcome = {"result " + std::to_string(result)};
  for (const CTLVRecordV3* row : rsp.records()) outcome.push_back("row " + zerva_test::RecordText(*row));
  EXPECT_EQ(zerva_protocol::HexDump(backend.received()), zerva_protocol::HexDump(DumpBytes("switch-read.request")));
  EXPECT_EQ(outcome, BlockLines("switch-read.outcome"));
}

// --- paged listings: what the agent sends, what a back end answers ----------

// The document has this table row.
void ExpectRow(const std::string& row) {
  EXPECT_NE(DocText().find(row), std::string::npos) << "missing table row: " << row;
}

// One request the simulated back end received: its record identifier, the
// listing key (tag 1 of a listing) and the LUN IDs of a batch command.
struct Seen {
  unsigned long long id = 0;
  bool hasKey = false;
  std::string key;
  std::string ids;
};

// The simulated array, the reference back end, answering in this process:
// each request goes through ArraySimulator::handle as the simulator's socket
// carries it, and its answer is decoded as the socket transport decodes it.
class SimulatedBackEnd : public ISnmpBackendTransport {
 public:
  explicit SimulatedBackEnd(const std::string& topology) {
    zerva_sim::Topology t;
    std::string error;
    EXPECT_TRUE(zerva_sim::ParseTopology(topology, &t, &error)) << error;
    sim_.reset(new zerva_sim::ArraySimulator(t, 1, zerva_sim::CommandCodes()));
  }

  int exchange(CTLVPackage& req, CTLVPackage& rsp, bool) override {
    const Bytes frame = zerva_test::Encode(req);
    Seen seen;
    seen.id = req[0]->id();
    if ((seen.id == backend::kObjectListingCmd || seen.id == backend::kSortedListingCmd) &&
        req[0]->hasTag(backend::kTagListingKey)) {
      seen.hasKey = true;
      seen.key = (*req[0])[backend::kTagListingKey]->toString();
    }
    if (seen.id == backend::kLunBatchStatsCmd) seen.ids = (*req[0])[backend::kTagBatchObjectIds]->toString();
    seen_.push_back(seen);
    Bytes answer = sim_->handle(frame.data(), frame.size()).bytes;
    if (answer.size() < TLVMsgHeadV3::SIZE ||
        rsp.decode(answer.data(), static_cast<unsigned int>(answer.size())) == CTLVPackage::FAILED) {
      return SNMP_TRANSPORT_E_BAD_FRAME;
    }
    return static_cast<int>(tlv::DecodeFixed32(answer.data() + 8));
  }

  std::vector<Seen> seenOf(unsigned long long id) const {
    std::vector<Seen> out;
    for (const Seen& s : seen_) {
      if (s.id == id) out.push_back(s);
    }
    return out;
  }
  zerva_sim::ArraySimulator& sim() { return *sim_; }

 private:
  std::unique_ptr<zerva_sim::ArraySimulator> sim_;
  std::vector<Seen> seen_;
};

// Installs a SimulatedBackEnd and the shipped command codes for its lifetime.
class SimulatedScene {
 public:
  explicit SimulatedScene(const std::string& topology) : backend_(std::make_shared<SimulatedBackEnd>(topology)) {
    zerva_protocol::LoadShippedDeviceConfig(nullptr);
    previous_ = CSNMP_Configuration::instance()->setTransport(backend_);
  }
  ~SimulatedScene() { CSNMP_Configuration::instance()->setTransport(previous_); }
  SimulatedBackEnd& backend() { return *backend_; }

 private:
  std::shared_ptr<SimulatedBackEnd> backend_;
  std::shared_ptr<ISnmpBackendTransport> previous_;
};

// The served MIB description's table of this name.
const zerva_agent::MibObject& ServedTable(const std::string& name) {
  static zerva_agent::MibDescription mib;
  static bool loaded = false;
  if (!loaded) {
    std::string error;
    loaded = zerva_agent::LoadMibDescription(ZERVA_MIB_XML, mib, &error);
    EXPECT_TRUE(loaded) << error;
  }
  for (const zerva_agent::MibObject& o : mib.objects) {
    if (o.name == name) return o;
  }
  throw std::runtime_error("no table " + name);
}

// The agent's settings for a table server: rows kept for an hour, the
// agent's default rows per read.
zerva_agent::ServerSettings AgentSettings() {
  zerva_agent::ServerSettings settings;
  settings.snapshotTime = std::chrono::hours(1);
  settings.walkTime = std::chrono::hours(1);
  settings.batchRows = zerva_agent::AgentOptions().batchRows;
  return settings;
}

Agentpp::Oidx Under(const zerva_agent::ObjectServer& server, const std::string& suffix) {
  Agentpp::Oidx oid = server.prefix();
  oid += Agentpp::Oidx(suffix);
  return oid;
}

// "`a`, `b`, …" of the first objects a listing answer names (two, or all
// when all is set), or "no object, control 1".
std::string ListedObjects(const CTLVPackage& answer, bool all) {
  std::vector<std::string> ids;
  long long control = -1;
  for (const CTLVRecordV3* r : answer.records()) {
    if (r->hasTag(backend::kTagControl)) {
      control = CSnmpTableBase::ControlValue(*r);
    } else if (r->hasTag(backend::kTagObjectId)) {
      ids.push_back((*r)[backend::kTagObjectId]->toString());
    }
  }
  if (ids.empty()) return "no object, control " + std::to_string(control);
  std::string out;
  const size_t shown = all ? ids.size() : std::min<size_t>(2, ids.size());
  for (size_t i = 0; i < shown; ++i) out += (i ? ", `" : "`") + ids[i] + "`";
  if (shown < ids.size()) out += ", …";
  return out;
}

const char kLunIds[] = "lun_ids 0-9 100 205-214 4000\n";

TEST(BackendProtocolDocTest, BatchSizesAreTheHostsAndTheAgents) {
  zerva_test::WithTableState<CPerformanceLunHandler> lun;
  zerva_test::WithTableState<CPerformanceFileSystemHandler> fs;
  EXPECT_EQ(lun.m_usBatchSize, CSnmpTableBase::DEFAULT_BATCH_SIZE);
  EXPECT_EQ(fs.m_usBatchSize, CSnmpTableBase::DEFAULT_BATCH_SIZE);
  ExpectRow(
      "| objects one walk step takes from a listing page, at most (`CSnmpTableBase::DEFAULT_BATCH_SIZE`, kept by "
      "the LUN and file-system tables) | " +
      std::to_string(CSnmpTableBase::DEFAULT_BATCH_SIZE) + " |");
  ExpectRow("| rows the agent asks of the LUN table per read (`zervaBatchRows`, its default) | " +
            std::to_string(zerva_agent::AgentOptions().batchRows) + " |");
}

TEST(BackendProtocolDocTest, ListingKeysAreWhatTheAgentSends) {
  const struct {
    const char* read;  // as the document's table names it
    std::function<zerva_agent::Lookup(zerva_agent::TableServer&)> lookup;
  } reads[] = {
      {"GETNEXT from the LUN table, its entry or a column without row index",
       [](zerva_agent::TableServer& s) { return s.getNext(Under(s, "1.2"), 0); }},
      {"GETNEXT after the row of LUN 9", [](zerva_agent::TableServer& s) { return s.getNext(Under(s, "1.2.9"), 0); }},
      {"GETNEXT after row 150, no LUN", [](zerva_agent::TableServer& s) { return s.getNext(Under(s, "1.2.150"), 0); }},
      {"GET of the row of LUN 205", [](zerva_agent::TableServer& s) { return s.get(Under(s, "1.2.205")); }},
      {"GET of the row of LUN 0", [](zerva_agent::TableServer& s) { return s.get(Under(s, "1.2.0")); }},
  };
  for (const auto& r : reads) {
    SimulatedScene scene(kLunIds);
    CPerformanceLunHandler handler;
    zerva_agent::TableServer server(ServedTable("vemPerfLunTable"), &handler, AgentSettings(), true);
    const zerva_agent::Lookup found = r.lookup(server);
    EXPECT_EQ(zerva_agent::Lookup::kFound, found.status) << r.read << ": " << found.error;
    const std::vector<Seen> listings = scene.backend().seenOf(backend::kObjectListingCmd);
    ASSERT_FALSE(listings.empty()) << r.read;
    ExpectRow(std::string("| ") + r.read + " | " + (listings[0].hasKey ? "`" + listings[0].key + "`" : "none") + " |");
  }
}

TEST(BackendProtocolDocTest, FileSystemListingKeysAreWhatTheAgentSends) {
  SimulatedScene scene("filesystem_ids 1-12 100\npage_size 8\nfeatures 602\n");
  CPerformanceFileSystemHandler handler;
  zerva_agent::TableServer server(ServedTable("vemPerfFsTable"), &handler, AgentSettings(), true);
  // Column 2 after the row of file system "5".
  EXPECT_EQ(zerva_agent::Lookup::kFound, server.getNext(Under(server, "1.2.1.53"), 0).status);
  std::string keys;
  for (const Seen& s : scene.backend().seenOf(backend::kSortedListingCmd)) {
    keys += std::string(keys.empty() ? "" : ", then ") + (s.hasKey ? "`" + s.key + "`" : "none");
  }
  ExpectRow("| GETNEXT after the row of file system `5`, pages of 8 | " + keys + " |");
}

TEST(BackendProtocolDocTest, PagedListingAnswersAreTheReferenceBackEnds) {
  SimulatedScene scene(kLunIds);
  const struct {
    const char* keyCell;  // as the document's table names it
    const char* key;      // nullptr: no tag 1
  } keys[] = {
      {"none", nullptr},
      {"`9`, a LUN ID", "9"},
      {"`150`, no LUN ID (between 100 and 205)", "150"},
      {"`0`", "0"},
      {"`4000`, the last LUN ID", "4000"},
      {"`5000`, after the last LUN ID", "5000"},
  };
  for (const auto& k : keys) {
    zerva_test::Rec request(backend::kObjectListingCmd);
    request.t6(backend::kTagListingType, backend::kObjTypeLun);
    if (k.key != nullptr) request.str(backend::kTagListingKey, k.key);
    std::unique_ptr<CTLVPackage> req = request.package();
    CTLVPackage rsp;
    ASSERT_EQ(0, scene.backend().exchange(*req, rsp, true)) << k.keyCell;
    ExpectRow(std::string("| ") + k.keyCell + " | " + ListedObjects(rsp, false) + " |");
  }
}

TEST(BackendProtocolDocTest, FileSystemSortOrderIsTheReferenceBackEnds) {
  SimulatedScene scene("filesystem_ids 1-12 100\nfeatures 602\n");
  const struct {
    const char* sort;
    const char* key;  // nullptr: no tag 1
  } cases[] = {{"1 ASC", nullptr}, {"1 ASC", "9"}, {"1 DESC", nullptr}, {"1 DESC", "10"}};
  for (const auto& c : cases) {
    zerva_test::Rec request(backend::kSortedListingCmd);
    request.t6(backend::kTagListingType, backend::kObjTypeFileSystem);
    if (c.key != nullptr) request.str(backend::kTagListingKey, c.key);
    request.str(backend::kTagListingSort, std::string("{\"sortby\":\"") + c.sort + "\"}");
    std::unique_ptr<CTLVPackage> req = request.package();
    CTLVPackage rsp;
    ASSERT_EQ(0, scene.backend().exchange(*req, rsp, true)) << c.sort;
    ExpectRow(std::string("| `") + c.sort + "` | " + (c.key != nullptr ? "`" + std::string(c.key) + "`" : "none") +
              " | " + ListedObjects(rsp, true) + " |");
  }
}

// "v" or "v ×n" for each run of equal numbers.
std::string Runs(const std::vector<size_t>& values) {
  std::string out;
  for (size_t i = 0; i < values.size();) {
    size_t j = i;
    while (j < values.size() && values[j] == values[i]) ++j;
    out += (out.empty() ? "" : ", ") + std::to_string(values[i]) + (j - i > 1 ? " ×" + std::to_string(j - i) : "");
    i = j;
  }
  return out;
}

TEST(BackendProtocolDocTest, WhatAWalkOfTheLunTableCostsIsWhatTheAgentSends) {
  for (size_t page : {256, 160, 100, 8}) {
    SimulatedScene scene("lun_ids 0-399\npage_size " + std::to_string(page) + "\n");
    CPerformanceLunHandler handler;
    zerva_agent::TableServer server(ServedTable("vemPerfLunTable"), &handler, AgentSettings(), true);
    // A walk of every column, one GETNEXT at a time.
    Agentpp::Oidx at = server.prefix();
    size_t instances = 0;
    for (;;) {
      const zerva_agent::Lookup next = server.getNext(at, 0);
      if (next.status != zerva_agent::Lookup::kFound) break;
      at = next.name;
      ++instances;
    }
    EXPECT_EQ(400u * 16, instances) << "page " << page;
    std::vector<size_t> perBatch;
    for (const Seen& s : scene.backend().seenOf(backend::kLunBatchStatsCmd)) {
      size_t n = 0;
      std::stringstream ids(s.ids);
      std::string id;
      while (std::getline(ids, id, ',')) n += id.empty() ? 0 : 1;
      perBatch.push_back(n);
    }
    ExpectRow("| 400 | " + std::to_string(page) + " | " +
              std::to_string(scene.backend().seenOf(backend::kObjectListingCmd).size()) + " | " +
              std::to_string(perBatch.size()) + " | " + Runs(perBatch) + " |");
  }
}

}  // namespace
