#include "host/agent/object_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "diag/vem_exception.h"
#include "performance/snmp_zerva_performance_fileSystem_handler.h"
#include "performance/snmp_zerva_performance_lun_handler.h"
#include "performance/snmp_zerva_performance_switch.h"
#include "snmpcommon/snmp_comm_util.h"
#include "snmpcommon/snmp_configuration.h"
#include "tlv/backend_codes.h"
#include "tests/support/fake_backend.h"
#include "tests/support/kit_log_capture.h"

namespace zerva_agent {
namespace {

using ::testing::ElementsAre;
using zerva_test::Answer;
using zerva_test::BackendFixture;
using zerva_test::KitLogCapture;
using zerva_test::PagedListing;
using zerva_test::Rec;

using Agentpp::Oidx;

const char kSwitchPrefix[] = "1.3.6.1.4.1.32473.4.1.21.1";
const char kLunPrefix[] = "1.3.6.1.4.1.32473.4.1.21.4";
const char kTablePrefix[] = "1.3.6.1.4.1.32473.99.1";

std::vector<unsigned long> Subids(const std::string& dotted) {
  std::vector<unsigned long> out;
  const Oidx oid(dotted);
  for (uint32_t s : oid.subids()) out.push_back(s);
  return out;
}

MibObject Scalar(MibSyntax syntax, bool writable) {
  MibObject o;
  o.kind = MibObject::Scalar;
  o.prefix = kSwitchPrefix;
  o.oid = Subids(o.prefix);
  o.name = "vemPerfSwitch";
  o.columns.push_back(MibColumn{0, "vemPerfSwitch", syntax, writable});
  return o;
}

// A table: column 1 the index, then the given columns.
MibObject Table(const std::string& prefix, MibIndexEncoding encoding, MibSyntax indexSyntax,
                std::vector<MibColumn> columns) {
  MibObject o;
  o.kind = MibObject::Table;
  o.prefix = prefix;
  o.oid = Subids(prefix);
  o.name = "testTable";
  o.entryName = "testEntry";
  o.indexColumn = 1;
  o.indexEncoding = encoding;
  o.columns.push_back(MibColumn{1, "testIndex", indexSyntax, false});
  for (MibColumn& c : columns) o.columns.push_back(c);
  return o;
}

MibObject LunTable() {
  std::vector<MibColumn> cols;
  for (unsigned c = 2; c <= 16; ++c) cols.push_back(MibColumn{c, "lun" + std::to_string(c), MibSyntax::Gauge32, false});
  return Table(kLunPrefix, MibIndexEncoding::Integer, MibSyntax::Unsigned32, cols);
}

// A whole-table handler answering scripted rows (or failing), counting calls.
class ScriptedTable : public CSnmpTableHandler {
 public:
  int OnQueryTable(const CVEM_SnmpContext& ctx, const CTLVPackage&, CTLVPackage& rsp) override {
    ++calls;
    lastContext = ctx;
    if (throwText != nullptr) throw CVEM_Exception(throwText);
    for (const Rec& r : rows) rsp.push_back(r.build());
    return result;
  }
  std::vector<Rec> rows;
  int result = 0;
  const char* throwText = nullptr;
  int calls = 0;
  CVEM_SnmpContext lastContext;
};

// Every (OID, value) a GETNEXT walk of the object yields, from its prefix.
std::vector<std::string> Walk(ObjectServer& server, size_t limit = 10000) {
  std::vector<std::string> out;
  Oidx at = server.prefix();
  for (size_t i = 0; i < limit; ++i) {
    Lookup next = server.getNext(at, 0);
    if (next.status != Lookup::kFound) {
      if (next.status == Lookup::kError) out.push_back("error: " + next.error);
      break;
    }
    out.push_back(next.name.cut_left(server.prefix().len()).get_printable() + "=" + next.value.toString());
    at = next.name;
  }
  return out;
}

Oidx Under(const ObjectServer& server, const std::string& suffix) {
  Oidx oid = server.prefix();
  oid += Oidx(suffix);
  return oid;
}

// ------------------------------------------------------------------ scalar

TEST(ScalarServerTest, GetReadsTheSwitchAsItsSyntax) {
  BackendFixture fixture;
  fixture.setSwitch(1);
  CPerformanceSwithHandler handler;
  MibObject object = Scalar(MibSyntax::Unsigned32, true);
  ScalarServer server(object, &handler, ServerSettings());
  Lookup got = server.get(Under(server, "0"));
  ASSERT_EQ(Lookup::kFound, got.status) << got.error;
  EXPECT_EQ(kAsnGauge32, got.value.type);
  EXPECT_EQ(1u, got.value.number);
}

TEST(ScalarServerTest, OnlyInstanceZeroExists) {
  BackendFixture fixture;
  fixture.setSwitch(1);
  CPerformanceSwithHandler handler;
  MibObject object = Scalar(MibSyntax::Unsigned32, true);
  ScalarServer server(object, &handler, ServerSettings());
  EXPECT_EQ(Lookup::kNoSuchInstance, server.get(Under(server, "1")).status);
  EXPECT_EQ(Lookup::kNoSuchInstance, server.get(Under(server, "0.0")).status);
  EXPECT_EQ(0u, fixture.backend().callCount());
}

TEST(ScalarServerTest, GetNextFindsTheInstanceOnlyFromBeforeIt) {
  BackendFixture fixture;
  fixture.setSwitch(0);
  CPerformanceSwithHandler handler;
  MibObject object = Scalar(MibSyntax::Unsigned32, true);
  ScalarServer server(object, &handler, ServerSettings());
  Lookup next = server.getNext(server.prefix(), 0);
  ASSERT_EQ(Lookup::kFound, next.status);
  EXPECT_EQ(Under(server, "0"), next.name);
  EXPECT_EQ(Lookup::kEndOfObject, server.getNext(Under(server, "0"), 0).status);
}

TEST(ScalarServerTest, SetChecksTypeAndRangeWithoutTheBackEnd) {
  BackendFixture fixture;
  CPerformanceSwithHandler handler;
  MibObject unsignedObject = Scalar(MibSyntax::Unsigned32, true);
  ScalarServer server(unsignedObject, &handler, ServerSettings());
  const Oidx instance = Under(server, "0");
  EXPECT_EQ(kSetOk, server.checkSet(instance, kAsnGauge32, 1, false));
  EXPECT_EQ(kSetWrongType, server.checkSet(instance, kAsnInteger, 1, false));
  EXPECT_EQ(kSetWrongType, server.checkSet(instance, kAsnOctetString, 0, false));
  EXPECT_EQ(kSetNoCreation, server.checkSet(Under(server, "1"), kAsnGauge32, 1, false));

  MibObject integerObject = Scalar(MibSyntax::Integer32, true);
  ScalarServer signedServer(integerObject, &handler, ServerSettings());
  EXPECT_EQ(kSetOk, signedServer.checkSet(instance, kAsnInteger, 7, false));
  EXPECT_EQ(kSetWrongValue, signedServer.checkSet(instance, kAsnInteger, 0, true));

  MibObject readOnly = Scalar(MibSyntax::Unsigned32, false);
  ScalarServer readOnlyServer(readOnly, &handler, ServerSettings());
  EXPECT_EQ(kSetNotWritable, readOnlyServer.checkSet(instance, kAsnGauge32, 1, false));
  EXPECT_EQ(0u, fixture.backend().callCount());
}

TEST(ScalarServerTest, WriteSendsOneUnsignedCellAndUndoRestoresThePreviousValue) {
  BackendFixture fixture;
  fixture.setSwitch(1);
  fixture.backend().on(zerva_test::kSetSwitchCmd, Answer());
  CPerformanceSwithHandler handler;
  MibObject object = Scalar(MibSyntax::Unsigned32, true);
  ScalarServer server(object, &handler, ServerSettings());
  uint32_t previous = 99;
  std::string why;
  ASSERT_EQ(0, server.readCurrent(&previous, &why)) << why;
  EXPECT_EQ(1u, previous);
  ASSERT_EQ(0, server.write(0, &why)) << why;
  ASSERT_EQ(0, server.write(previous, &why)) << why;  // the undo phase
  std::vector<zerva_test::Call> sets = fixture.backend().callsTo(zerva_test::kSetSwitchCmd);
  ASSERT_EQ(2u, sets.size());
  EXPECT_THAT(zerva_test::PackageText(*sets[0].package()), ElementsAre("0xDE0222002: 0/3/4/0"));
  EXPECT_THAT(zerva_test::PackageText(*sets[1].package()), ElementsAre("0xDE0222002: 0/3/4/1"));
}

TEST(ScalarServerTest, FailingBackEndIsAnErrorLoggedOnce) {
  BackendFixture fixture;
  fixture.backend().on(zerva_test::kGetSwitchCmd, Answer(SNMP_TRANSPORT_E_TIMEOUT));
  CPerformanceSwithHandler handler;
  MibObject object = Scalar(MibSyntax::Unsigned32, true);
  ScalarServer server(object, &handler, ServerSettings());
  KitLogCapture log;
  for (int i = 0; i < 3; ++i) {
    Lookup got = server.get(Under(server, "0"));
    EXPECT_EQ(Lookup::kError, got.status);
    // The leaf read path hides the back end's code behind -1.
    EXPECT_NE(std::string::npos, got.error.find("result -1")) << got.error;
  }
  size_t agentErrors = 0;
  for (const CVEMLogRecord& r : log.records(VEM_LOG_ERROR)) agentErrors += r.kitNo == VEM_KIT_AGENT;
  EXPECT_EQ(1u, agentErrors);
}

TEST(ScalarServerTest, RefusedWriteIsReported) {
  BackendFixture fixture;
  fixture.backend().on(zerva_test::kSetSwitchCmd, Answer(5));
  CPerformanceSwithHandler handler;
  MibObject object = Scalar(MibSyntax::Unsigned32, true);
  ScalarServer server(object, &handler, ServerSettings());
  std::string why;
  EXPECT_EQ(5, server.write(1, &why));
  EXPECT_NE(std::string::npos, why.find("5"));
}

// ------------------------------------------------------------------ whole tables

class WholeTableTest : public ::testing::Test {
 protected:
  WholeTableTest()
      : object_(Table(kTablePrefix, MibIndexEncoding::Integer, MibSyntax::Unsigned32,
                      {MibColumn{2, "count", MibSyntax::Counter32, false},
                       MibColumn{3, "name", MibSyntax::DisplayString, false}})) {
    settings_.now = [this] { return now_; };
  }
  std::unique_ptr<TableServer> server() {
    return std::unique_ptr<TableServer>(new TableServer(object_, &handler_, settings_, false));
  }
  // A server over one row: index 1, count 5.
  std::unique_ptr<TableServer> oneRowServer() {
    handler_.rows = {Rec().u32(1, 1).u32(2, 5)};
    return server();
  }
  // Reads the count of row 1.
  static Lookup readCount(TableServer& s) { return s.get(Under(s, "1.2.1")); }

  MibObject object_;
  ScriptedTable handler_;
  ServerSettings settings_;
  Clock::time_point now_ = Clock::time_point() + std::chrono::hours(1);
};

TEST_F(WholeTableTest, RowsComeInIndexOrderColumnByColumn) {
  handler_.rows = {Rec().u32(1, 10).u32(2, 100).str(3, "ten"), Rec().u32(1, 2).u32(2, 20).str(3, "two"),
                   Rec().u32(1, 9).u32(2, 90).str(3, "nine")};
  auto s = server();
  EXPECT_THAT(Walk(*s), ElementsAre("1.1.2=Gauge32: 2", "1.1.9=Gauge32: 9", "1.1.10=Gauge32: 10", "1.2.2=Counter32: 20",
                                    "1.2.9=Counter32: 90", "1.2.10=Counter32: 100", "1.3.2=STRING: \"two\"",
                                    "1.3.9=STRING: \"nine\"", "1.3.10=STRING: \"ten\""));
}

TEST_F(WholeTableTest, CellOrderInsideARowDoesNotMatter) {
  handler_.rows = {Rec().str(3, "x").u32(2, 5).u32(1, 1)};
  auto s = server();
  EXPECT_THAT(Walk(*s), ElementsAre("1.1.1=Gauge32: 1", "1.2.1=Counter32: 5", "1.3.1=STRING: \"x\""));
}

TEST_F(WholeTableTest, MissingCellsAreSkippedInTheirColumn) {
  handler_.rows = {Rec().u32(1, 1).u32(2, 5), Rec().u32(1, 2).u32(2, 6).str(3, "b")};
  auto s = server();
  EXPECT_THAT(Walk(*s), ElementsAre("1.1.1=Gauge32: 1", "1.1.2=Gauge32: 2", "1.2.1=Counter32: 5", "1.2.2=Counter32: 6",
                                    "1.3.2=STRING: \"b\""));
  EXPECT_EQ(Lookup::kNoSuchInstance, s->get(Under(*s, "1.3.1")).status);
}

TEST_F(WholeTableTest, GetOfRowsAndColumns) {
  handler_.rows = {Rec().u32(1, 4).u32(2, 40).str(3, "four")};
  auto s = server();
  Lookup got = s->get(Under(*s, "1.3.4"));
  ASSERT_EQ(Lookup::kFound, got.status);
  EXPECT_EQ("four", got.value.bytes);
  EXPECT_EQ(Lookup::kNoSuchInstance, s->get(Under(*s, "1.2.5")).status);
  EXPECT_EQ(Lookup::kNoSuchInstance, s->get(Under(*s, "1.2.4.1")).status);
  EXPECT_EQ(Lookup::kNoSuchObject, s->get(Under(*s, "1.7.4")).status);
  EXPECT_EQ(Lookup::kNoSuchObject, s->get(Under(*s, "2.2.4")).status);
}

TEST_F(WholeTableTest, GetNextFromInsideAndPastTheTable) {
  handler_.rows = {Rec().u32(1, 1).u32(2, 5).str(3, "a"), Rec().u32(1, 3).u32(2, 7).str(3, "c")};
  auto s = server();
  Lookup next = s->getNext(Under(*s, "1.2.1"), 0);
  ASSERT_EQ(Lookup::kFound, next.status);
  EXPECT_EQ(Under(*s, "1.2.3"), next.name);
  next = s->getNext(Under(*s, "1.2.2.99"), 0);  // between rows
  EXPECT_EQ(Under(*s, "1.2.3"), next.name);
  next = s->getNext(Under(*s, "1.2.3"), 0);  // last row: the next column
  EXPECT_EQ(Under(*s, "1.3.1"), next.name);
  next = s->getNext(Under(*s, "1.0"), 0);  // before the first column
  EXPECT_EQ(Under(*s, "1.1.1"), next.name);
  EXPECT_EQ(Lookup::kEndOfObject, s->getNext(Under(*s, "1.3.3"), 0).status);
  EXPECT_EQ(Lookup::kEndOfObject, s->getNext(Under(*s, "2"), 0).status);
}

TEST_F(WholeTableTest, GetNextFromTheEntryOrAColumnWithoutIndexStartsThere) {
  handler_.rows = {Rec().u32(1, 1).u32(2, 5).str(3, "a"), Rec().u32(1, 3).u32(2, 7).str(3, "c")};
  auto s = server();
  // The table itself, its entry and a column without an index all lead to
  // the first instance at or after them; a column past the last one ends it.
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "1.1.1"}, {"1", "1.1.1"}, {"1.1", "1.1.1"}, {"1.2", "1.2.1"}, {"1.3", "1.3.1"}, {"1.2.4294967295", "1.3.1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("after '" + c.first + "'");
    const Agentpp::Oidx from = c.first.empty() ? s->prefix() : Under(*s, c.first);
    Lookup next = s->getNext(from, 0);
    ASSERT_EQ(Lookup::kFound, next.status) << next.error;
    EXPECT_EQ(Under(*s, c.second), next.name);
  }
  EXPECT_EQ(Lookup::kEndOfObject, s->getNext(Under(*s, "1.4"), 0).status);
  EXPECT_EQ(Lookup::kEndOfObject, s->getNext(Under(*s, "1.3.4294967295"), 0).status);
}

TEST_F(WholeTableTest, StringIndexIsLengthAndBytesWithoutNul) {
  object_ = Table(kTablePrefix, MibIndexEncoding::String, MibSyntax::DisplayString,
                  {MibColumn{2, "count", MibSyntax::Gauge32, false}});
  handler_.rows = {Rec().str(1, "fs10").u32(2, 10), Rec().str(1, "fs9").u32(2, 9)};
  auto s = server();
  // Shorter strings first: SNMP orders by length, then bytes.
  EXPECT_THAT(Walk(*s), ElementsAre("1.1.3.102.115.57=STRING: \"fs9\"", "1.1.4.102.115.49.48=STRING: \"fs10\"",
                                    "1.2.3.102.115.57=Gauge32: 9", "1.2.4.102.115.49.48=Gauge32: 10"));
}

TEST_F(WholeTableTest, AWalkOverAllColumnsAsksTheHandlerOnce) {
  handler_.rows = {Rec().u32(1, 1).u32(2, 5).str(3, "a"), Rec().u32(1, 2).u32(2, 6).str(3, "b")};
  auto s = server();
  EXPECT_EQ(6u, Walk(*s).size());
  EXPECT_EQ(1, handler_.calls);
  readCount(*s);
  EXPECT_EQ(1, handler_.calls);
}

TEST_F(WholeTableTest, TheSnapshotExpiresAfterItsTime) {
  settings_.snapshotTime = std::chrono::seconds(3);
  auto s = oneRowServer();
  readCount(*s);
  now_ += std::chrono::milliseconds(2999);
  readCount(*s);
  EXPECT_EQ(1, handler_.calls);
  now_ += std::chrono::milliseconds(1);
  readCount(*s);
  EXPECT_EQ(2, handler_.calls);
}

TEST_F(WholeTableTest, ZeroSnapshotTimeAsksEveryTime) {
  settings_.snapshotTime = std::chrono::seconds(0);
  auto s = oneRowServer();
  readCount(*s);
  readCount(*s);
  EXPECT_EQ(2, handler_.calls);
}

TEST_F(WholeTableTest, InvalidateDropsTheSnapshot) {
  auto s = oneRowServer();
  readCount(*s);
  s->invalidate();
  readCount(*s);
  EXPECT_EQ(2, handler_.calls);
}

TEST_F(WholeTableTest, EmptyTableEndsTheObjectButAFailureIsAnError) {
  auto s = server();
  EXPECT_EQ(Lookup::kEndOfObject, s->getNext(s->prefix(), 0).status);
  handler_.result = -1;
  s->invalidate();
  Lookup failed = s->getNext(s->prefix(), 0);
  EXPECT_EQ(Lookup::kError, failed.status);
  EXPECT_NE(std::string::npos, failed.error.find("-1"));
}

TEST_F(WholeTableTest, AFailedAnswerIsNotKept) {
  handler_.result = SNMP_TRANSPORT_E_CONNECT;
  auto s = server();
  Lookup failed = readCount(*s);
  EXPECT_EQ(Lookup::kError, failed.status);
  EXPECT_NE(std::string::npos, failed.error.find("cannot connect")) << failed.error;
  handler_.result = 0;
  handler_.rows = {Rec().u32(1, 1).u32(2, 5)};
  EXPECT_EQ(Lookup::kFound, readCount(*s).status);
}

TEST_F(WholeTableTest, ExceptionsBecomeErrors) {
  handler_.throwText = "record don't exist, index is 0";
  auto s = server();
  Lookup got = s->getNext(s->prefix(), 0);
  EXPECT_EQ(Lookup::kError, got.status);
  EXPECT_NE(std::string::npos, got.error.find("record don't exist")) << got.error;
}

TEST_F(WholeTableTest, RowsWithoutIndexAndUnknownTagsAreLeftOut) {
  handler_.rows = {Rec().u32(2, 5), Rec().u32(1, 3).u32(2, 7).u32(9, 1)};
  auto s = server();
  EXPECT_THAT(Walk(*s), ElementsAre("1.1.3=Gauge32: 3", "1.2.3=Counter32: 7"));
}

TEST_F(WholeTableTest, TheHandlerSeesTheRequestContext) {
  auto s = server();
  s->getNext(Under(*s, "1.2.7"), 0);
  EXPECT_EQ(SNMP_OP_GETNEXT, handler_.lastContext.operation);
  EXPECT_EQ(Oidx({7}), handler_.lastContext.index);
}

// ------------------------------------------------------------------ batch tables

// A back end with LUNs 0..count-1, listing pageSize per reply, answering
// the batch statistics command; values of LUN n are n*100+item position.
class LunBackend {
 public:
  LunBackend(BackendFixture& fixture, std::vector<std::string> keys, size_t pageSize)
      : listing_(std::move(keys), pageSize) {
    fixture.setSwitch(1);
    fixture.backend().on(zerva_test::kListingCmd, listing_);
    fixture.backend().on(backend::kLunBatchStatsCmd, [](const CTLVPackage& req, bool) {
      Answer answer;
      std::stringstream ids(req[0]->operator[](12)->toString());
      std::string id;
      while (std::getline(ids, id, ',')) {
        if (id.empty()) continue;
        const unsigned n = static_cast<unsigned>(std::stoul(id));
        std::string values;
        for (unsigned i = 0; i < 13; ++i) values += (i ? "," : "") + std::to_string(n * 100 + i + 1);
        answer.records.push_back(Rec().str(13, id).str(9, values));
      }
      return answer;
    });
  }

 private:
  PagedListing listing_;
};

std::vector<std::string> Keys(unsigned count) {
  std::vector<std::string> keys;
  for (unsigned i = 0; i < count; ++i) keys.push_back(std::to_string(i));
  return keys;
}

TEST(BatchTableTest, AColumnWalkReadsTheTableInBatchesOnce) {
  BackendFixture fixture;
  LunBackend backend(fixture, Keys(400), 256);
  CPerformanceLunHandler handler;
  MibObject object = LunTable();
  ServerSettings settings;
  settings.snapshotTime = std::chrono::hours(1);
  TableServer server(object, &handler, settings, true);
  std::vector<std::string> walked = Walk(server);
  ASSERT_EQ(400u * 16, walked.size());
  EXPECT_EQ("1.1.0=Gauge32: 0", walked[0]);
  EXPECT_EQ("1.1.399=Gauge32: 399", walked[399]);
  EXPECT_EQ("1.2.0=Gauge32: 1", walked[400]);
  EXPECT_EQ("1.3.7=Gauge32: 702", walked[800 + 7]);
  // ceil(400 / 160) statistics commands for the whole walk, all 16 columns.
  EXPECT_EQ(3u, fixture.backend().callsTo(backend::kLunBatchStatsCmd).size());
  EXPECT_TRUE(server.batchMode());
}

TEST(BatchTableTest, BatchesAskForRowsAfterTheRequestedIndex) {
  BackendFixture fixture;
  LunBackend backend(fixture, Keys(400), 256);
  CPerformanceLunHandler handler;
  MibObject object = LunTable();
  TableServer server(object, &handler, ServerSettings(), true);
  Lookup next = server.getNext(Under(server, "1.3.249"), 0);
  ASSERT_EQ(Lookup::kFound, next.status) << next.error;
  EXPECT_EQ(Under(server, "1.3.250"), next.name);
  std::vector<zerva_test::Call> stats = fixture.backend().callsTo(backend::kLunBatchStatsCmd);
  ASSERT_EQ(1u, stats.size());
  EXPECT_EQ(0u, stats[0].package()->operator[](0)->operator[](12)->toString().find("250,251"));
}

TEST(BatchTableTest, GetOfOneRowReadsOneBatch) {
  BackendFixture fixture;
  LunBackend backend(fixture, Keys(400), 256);
  CPerformanceLunHandler handler;
  MibObject object = LunTable();
  TableServer server(object, &handler, ServerSettings(), true);
  Lookup got = server.get(Under(server, "1.2.300"));
  ASSERT_EQ(Lookup::kFound, got.status) << got.error;
  EXPECT_EQ(30001u, got.value.number);
  EXPECT_EQ(Lookup::kFound, server.get(Under(server, "1.5.301")).status);
  EXPECT_EQ(1u, fixture.backend().callsTo(backend::kLunBatchStatsCmd).size());
  EXPECT_EQ(Lookup::kNoSuchInstance, server.get(Under(server, "1.2.400")).status);
}

TEST(BatchTableTest, ListingOutOfIndexOrderIsReadWhole) {
  BackendFixture fixture;
  LunBackend backend(fixture, {"5", "3", "9", "1"}, 256);
  CPerformanceLunHandler handler;
  MibObject object = LunTable();
  ServerSettings settings;
  settings.batchRows = 2;
  TableServer server(object, &handler, settings, true);
  std::vector<std::string> walked = Walk(server);
  ASSERT_EQ(4u * 16, walked.size());
  EXPECT_THAT(std::vector<std::string>(walked.begin(), walked.begin() + 4),
              ElementsAre("1.1.1=Gauge32: 1", "1.1.3=Gauge32: 3", "1.1.5=Gauge32: 5", "1.1.9=Gauge32: 9"));
  EXPECT_FALSE(server.batchMode());
}

TEST(BatchTableTest, SwitchedOffTableIsEmpty) {
  BackendFixture fixture;
  fixture.setSwitch(0);
  CPerformanceLunHandler handler;
  MibObject object = LunTable();
  TableServer server(object, &handler, ServerSettings(), true);
  EXPECT_EQ(Lookup::kEndOfObject, server.getNext(server.prefix(), 0).status);
}

TEST(BatchTableTest, UnreachableBackEndIsAnError) {
  BackendFixture fixture;
  fixture.setSwitch(1);
  fixture.backend().on(zerva_test::kListingCmd, Answer(SNMP_TRANSPORT_E_CONNECT));
  CPerformanceLunHandler handler;
  MibObject object = LunTable();
  TableServer server(object, &handler, ServerSettings(), true);
  EXPECT_EQ(Lookup::kError, server.getNext(server.prefix(), 0).status);
}

TEST(BatchTableTest, ARefusedSwitchQueryIsAnErrorNotAnEmptyTable) {
  BackendFixture fixture;
  LunBackend backend(fixture, Keys(3), 256);
  // The array refuses the switch query with a code of its own: the module
  // reads that as "collection off" and answers an empty table, result 0.
  fixture.backend().on(zerva_test::kGetSwitchCmd, Answer(0x53494D7E));
  CPerformanceLunHandler handler;
  MibObject object = LunTable();
  ServerSettings settings;
  settings.snapshotTime = std::chrono::hours(1);
  uint64_t request = 1;
  settings.request = [&request] { return request; };
  TableServer server(object, &handler, settings, true);
  KitLogCapture log;
  Lookup failed = server.getNext(server.prefix(), 0);
  ASSERT_EQ(Lookup::kError, failed.status);
  EXPECT_NE(std::string::npos, failed.error.find("1 back-end call failed (with result 1397312894)")) << failed.error;
  // The rest of the request answers the same error without asking again.
  const size_t switchQueries = fixture.backend().callsTo(zerva_test::kGetSwitchCmd).size();
  EXPECT_EQ(Lookup::kError, server.getNext(Under(server, "1.3.1"), 0).status);
  EXPECT_EQ(Lookup::kError, server.get(Under(server, "1.2.0")).status);
  EXPECT_EQ(switchQueries, fixture.backend().callsTo(zerva_test::kGetSwitchCmd).size());
  // The next request reads the table again and finds its rows.
  fixture.setSwitch(1);
  request = 2;
  Lookup next = server.getNext(server.prefix(), 0);
  ASSERT_EQ(Lookup::kFound, next.status) << next.error;
  EXPECT_EQ(Under(server, "1.1.0"), next.name);
  // Rows read from a healthy back end are kept for the snapshot time.
  request = 3;
  const size_t stats = fixture.backend().callsTo(backend::kLunBatchStatsCmd).size();
  EXPECT_EQ(Lookup::kFound, server.getNext(server.prefix(), 0).status);
  EXPECT_EQ(stats, fixture.backend().callsTo(backend::kLunBatchStatsCmd).size());
}

TEST(BatchTableTest, ATimedOutSwitchQueryIsAnError) {
  BackendFixture fixture;
  LunBackend backend(fixture, Keys(3), 256);
  fixture.backend().on(zerva_test::kGetSwitchCmd, Answer(SNMP_TRANSPORT_E_TIMEOUT));
  CPerformanceLunHandler handler;
  MibObject object = LunTable();
  TableServer server(object, &handler, ServerSettings(), true);
  Lookup failed = server.getNext(server.prefix(), 0);
  ASSERT_EQ(Lookup::kError, failed.status);
  EXPECT_NE(std::string::npos, failed.error.find("back end timed out")) << failed.error;
}

TEST(BatchTableTest, AFailedBatchInTheMiddleOfAWalkKeepsNothing) {
  BackendFixture fixture;
  LunBackend backend(fixture, Keys(400), 256);
  CPerformanceLunHandler handler;
  MibObject object = LunTable();
  ServerSettings settings;
  settings.snapshotTime = std::chrono::hours(1);
  uint64_t request = 1;
  settings.request = [&request] { return request; };
  TableServer server(object, &handler, settings, true);
  ASSERT_EQ(Lookup::kFound, server.getNext(server.prefix(), 0).status);  // LUNs 0-159
  fixture.backend().push(Answer(0x53494D7E));                            // the next back-end call is refused
  request = 2;
  EXPECT_EQ(Lookup::kError, server.getNext(Under(server, "1.1.159"), 0).status);
  // Nothing of the snapshot is kept: the next request reads from the start.
  request = 3;
  const size_t stats = fixture.backend().callsTo(backend::kLunBatchStatsCmd).size();
  Lookup next = server.getNext(Under(server, "1.2.5"), 0);
  ASSERT_EQ(Lookup::kFound, next.status) << next.error;
  EXPECT_EQ(Under(server, "1.2.6"), next.name);
  EXPECT_EQ(stats + 1, fixture.backend().callsTo(backend::kLunBatchStatsCmd).size());
}

// A walk of the whole LUN table, one GETNEXT per request, the clock moving
// `step` per request: the batch statistics commands it cost.
size_t SlowWalkCommands(std::chrono::milliseconds walkTime) {
  BackendFixture fixture;
  LunBackend backend(fixture, Keys(400), 256);
  CPerformanceLunHandler handler;
  MibObject object = LunTable();
  ServerSettings settings;
  settings.snapshotTime = std::chrono::seconds(3);
  settings.walkTime = walkTime;
  Clock::time_point now = Clock::time_point() + std::chrono::hours(1);
  settings.now = [&now] { return now; };
  TableServer server(object, &handler, settings, true);
  Oidx at = server.prefix();
  size_t found = 0;
  for (;;) {
    now += std::chrono::milliseconds(5);  // 6400 requests: 32 s
    Lookup next = server.getNext(at, 0);
    if (next.status != Lookup::kFound) {
      EXPECT_EQ(Lookup::kEndOfObject, next.status) << next.error;
      break;
    }
    ++found;
    at = next.name;
  }
  EXPECT_EQ(400u * 16, found);
  return fixture.backend().callsTo(backend::kLunBatchStatsCmd).size();
}

TEST(BatchTableTest, AWalkOutlastingTheSnapshotTimeReadsEachBatchOnce) {
  // ceil(400 / 160) batches for all 16 columns, though the walk takes 32 s.
  EXPECT_EQ(3u, SlowWalkCommands(std::chrono::seconds(60)));
}

TEST(BatchTableTest, WithoutTheWalkExtensionAWalkReadsAgainAfterTheSnapshotTime) {
  EXPECT_GT(SlowWalkCommands(std::chrono::seconds(0)), 3u);
}

// A batch handler that answers every row from the first, whatever index it
// is given, and says its answer is the whole table.
class IndexIgnoringTable : public ScriptedTable {
 public:
  bool isWholeTable() override { return true; }
};

TEST(BatchTableTest, AWholeAnswerToABatchAfterAnIndexIsKeptWhole) {
  IndexIgnoringTable handler;
  handler.rows = {Rec().u32(1, 3).u32(2, 30), Rec().u32(1, 5).u32(2, 50), Rec().u32(1, 9).u32(2, 90)};
  MibObject object = Table(kTablePrefix, MibIndexEncoding::Integer, MibSyntax::Unsigned32,
                           {MibColumn{2, "count", MibSyntax::Gauge32, false}});
  ServerSettings settings;
  settings.snapshotTime = std::chrono::hours(1);
  TableServer server(object, &handler, settings, true);
  Lookup next = server.getNext(Under(server, "1.2.5"), 0);
  ASSERT_EQ(Lookup::kFound, next.status) << next.error;
  EXPECT_EQ(Under(server, "1.2.9"), next.name);
  EXPECT_EQ(1, handler.calls);
  EXPECT_THAT(Walk(server), ElementsAre("1.1.3=Gauge32: 3", "1.1.5=Gauge32: 5", "1.1.9=Gauge32: 9", "1.2.3=Gauge32: 30",
                                        "1.2.5=Gauge32: 50", "1.2.9=Gauge32: 90"));
  EXPECT_EQ(1, handler.calls);
}

// ------------------------------------------------------------------ file-system table

MibObject FileSystemTable() {
  std::vector<MibColumn> cols;
  for (unsigned c = 2; c <= 9; ++c) cols.push_back(MibColumn{c, "fs" + std::to_string(c), MibSyntax::Gauge32, false});
  return Table("1.3.6.1.4.1.32473.4.1.21.14", MibIndexEncoding::String, MibSyntax::DisplayString, cols);
}

TEST(FileSystemTableTest, AGetNextInsideTheTableWithNothingKeptReadsItOnce) {
  BackendFixture fixture({SNMP_FEATURE_FILESYSTEM_PERF});
  fixture.setSwitch(1);
  std::vector<std::string> ids;
  for (int i = 1; i <= 12; ++i) ids.push_back(std::to_string(i));
  fixture.backend().on(backend::kSortedListingCmd, PagedListing(ids, 8));
  for (const std::string& id : ids) fixture.backend().onStats("40:" + id, id + ",1,2,3,4,5,6,7");
  CPerformanceFileSystemHandler handler;
  MibObject object = FileSystemTable();
  TableServer server(object, &handler, ServerSettings(), true);
  EXPECT_FALSE(server.batchMode());  // a text index: read whole
  // Column 2 after the row of "5" ("5" is 1.53): the row of "6".
  Lookup next = server.getNext(Under(server, "1.2.1.53"), 0);
  ASSERT_EQ(Lookup::kFound, next.status) << next.error;
  EXPECT_EQ(Under(server, "1.2.1.54"), next.name);
  EXPECT_EQ(6u, next.value.number);
  // One pass: two listing pages, one statistics command per file system.
  EXPECT_EQ(2u, fixture.backend().callsTo(backend::kSortedListingCmd).size());
  EXPECT_EQ(12u, fixture.backend().callsTo(zerva_test::kGetStatsCmd).size());
}

TEST(FileSystemTableTest, ARefusedStatisticsCommandForOneFileSystemIsAnError) {
  BackendFixture fixture({SNMP_FEATURE_FILESYSTEM_PERF});
  fixture.setSwitch(1);
  fixture.backend().on(backend::kSortedListingCmd, PagedListing({"1", "2", "3"}, 8));
  fixture.backend().onStats("40:1", "1,1,2,3,4,5,6,7");
  fixture.backend().onStatsError("40:2", 0x53494D03);  // gone since the listing, says the array
  fixture.backend().onStats("40:3", "3,1,2,3,4,5,6,7");
  CPerformanceFileSystemHandler handler;
  MibObject object = FileSystemTable();
  TableServer server(object, &handler, ServerSettings(), true);
  // The module leaves the row out and answers the others; the agent answers
  // an error, not a table without the row.
  Lookup failed = server.getNext(server.prefix(), 0);
  ASSERT_EQ(Lookup::kError, failed.status);
  EXPECT_NE(std::string::npos, failed.error.find("1 back-end call failed")) << failed.error;
}

// ------------------------------------------------------------------ failed reads

// A whole-table handler that makes one back-end call per read (the fake back
// end answers it as scripted) and parses one value list, then answers its
// rows with result 0 whatever happened.
class ForgivingTable : public ScriptedTable {
 public:
  int OnQueryTable(const CVEM_SnmpContext& ctx, const CTLVPackage& req, CTLVPackage& rsp) override {
    CTLVPackage call;
    CTLVPackage answer;
    call.push_back(Rec(0x42).build());
    CSNMP_Configuration::instance()->configure(call, answer, false);
    std::vector<unsigned int> values;
    SplitToUint(valueText, ',', values);
    return ScriptedTable::OnQueryTable(ctx, req, rsp);
  }
  std::string valueText = "1,2";
};

class FailedReadTest : public ::testing::Test {
 protected:
  FailedReadTest()
      : object_(Table(kTablePrefix, MibIndexEncoding::Integer, MibSyntax::Unsigned32,
                      {MibColumn{2, "count", MibSyntax::Counter32, false}})) {
    handler_.rows = {Rec().u32(1, 1).u32(2, 5), Rec().u32(1, 2).u32(2, 6)};
    settings_.snapshotTime = std::chrono::hours(1);
    settings_.request = [this] { return request_; };
    fixture_.backend().on(0x42, Answer());
  }
  TableServer& server() {
    if (!server_) server_.reset(new TableServer(object_, &handler_, settings_, false));
    return *server_;
  }

  BackendFixture fixture_;
  MibObject object_;
  ForgivingTable handler_;
  ServerSettings settings_;
  uint64_t request_ = 1;
  std::unique_ptr<TableServer> server_;
};

TEST_F(FailedReadTest, AHealthyReadServesItsRows) {
  EXPECT_THAT(Walk(server()),
              ElementsAre("1.1.1=Gauge32: 1", "1.1.2=Gauge32: 2", "1.2.1=Counter32: 5", "1.2.2=Counter32: 6"));
  EXPECT_EQ(1, handler_.calls);
}

TEST_F(FailedReadTest, ABackEndCallThatFailedDuringTheReadIsAnErrorThoughTheHandlerAnswered) {
  fixture_.backend().on(0x42, Answer(SNMP_TRANSPORT_E_TIMEOUT));
  KitLogCapture log;
  Lookup failed = server().getNext(server().prefix(), 0);
  ASSERT_EQ(Lookup::kError, failed.status);
  EXPECT_EQ(
      "the handler answered, but 1 back-end call failed (with result 1314127875 (back end timed out)) during the read",
      failed.error);
  size_t logged = 0;
  for (const CVEMLogRecord& r : log.records(VEM_LOG_ERROR)) {
    logged += r.kitNo == VEM_KIT_AGENT && r.message.find("testTable (" + object_.prefix + ") failed: OnQueryTable: " +
                                                         failed.error + "; answering genErr") == 0;
  }
  EXPECT_EQ(1u, logged);
}

TEST_F(FailedReadTest, AValueListThatDidNotParseDuringTheReadIsAnError) {
  handler_.valueText = "1,x";
  Lookup failed = server().get(Under(server(), "1.2.1"));
  ASSERT_EQ(Lookup::kError, failed.status);
  EXPECT_EQ("the handler answered, but 1 value list from the back end did not parse during the read", failed.error);
}

TEST_F(FailedReadTest, BothKindsOfFailureAreNamed) {
  fixture_.backend().on(0x42, Answer(7));
  handler_.valueText = "";
  Lookup failed = server().getNext(server().prefix(), 0);
  EXPECT_EQ(
      "the handler answered, but 1 back-end call failed (with result 7) and 1 value list from the back end did not "
      "parse during the read",
      failed.error);
}

TEST_F(FailedReadTest, AFailedReadIsNotTriedAgainInItsRequestAndTheNextRequestReadsAgain) {
  fixture_.backend().on(0x42, Answer(7));
  EXPECT_EQ(Lookup::kError, server().getNext(server().prefix(), 0).status);
  EXPECT_EQ(Lookup::kError, server().getNext(Under(server(), "1.2.1"), 5).status);
  EXPECT_EQ(Lookup::kError, server().get(Under(server(), "1.2.2")).status);
  EXPECT_EQ(1, handler_.calls);
  // Lookups that need no rows answer as usual.
  EXPECT_EQ(Lookup::kNoSuchObject, server().get(Under(server(), "1.9.1")).status);
  EXPECT_EQ(Lookup::kEndOfObject, server().getNext(Under(server(), "2"), 0).status);
  // The next request reads again: nothing of the failed read was kept.
  fixture_.backend().on(0x42, Answer());
  request_ = 2;
  Lookup got = server().get(Under(server(), "1.2.2"));
  ASSERT_EQ(Lookup::kFound, got.status) << got.error;
  EXPECT_EQ(6u, got.value.number);
  EXPECT_EQ(2, handler_.calls);
}

TEST_F(FailedReadTest, AFailureOfAnotherTableDoesNotCount) {
  fixture_.backend().on(0x42, Answer(7));
  CTLVPackage call;
  CTLVPackage answer;
  call.push_back(Rec(0x42).build());
  CSNMP_Configuration::instance()->configure(call, answer, false);  // before the read, not during it
  fixture_.backend().on(0x42, Answer());
  EXPECT_EQ(Lookup::kFound, server().get(Under(server(), "1.2.1")).status);
}

// ------------------------------------------------------------------ one request, one snapshot

class SnapshotUseTest : public WholeTableTest {
 protected:
  SnapshotUseTest() {
    handler_.rows = {Rec().u32(1, 1).u32(2, 5), Rec().u32(1, 2).u32(2, 6)};
    settings_.request = [this] { return request_; };
  }
  // Starts the next request.
  void next() { ++request_; }
  uint64_t request_ = 1;
};

TEST_F(SnapshotUseTest, NoRequestReadsATableTwiceEvenWithoutSnapshotTime) {
  settings_.snapshotTime = std::chrono::seconds(0);
  settings_.walkTime = std::chrono::seconds(0);
  auto s = server();
  // Every lookup of one request (the repetitions of a GETBULK) uses one read.
  EXPECT_EQ(4u, Walk(*s).size());
  readCount(*s);
  now_ += std::chrono::hours(1);
  readCount(*s);
  EXPECT_EQ(1, handler_.calls);
  next();
  readCount(*s);
  EXPECT_EQ(2, handler_.calls);
}

TEST_F(SnapshotUseTest, AContinuingGetNextIsAnsweredFromItsSnapshotUpToTheWalkTime) {
  settings_.snapshotTime = std::chrono::seconds(3);
  settings_.walkTime = std::chrono::seconds(60);
  auto s = server();
  ASSERT_EQ(Lookup::kFound, s->getNext(s->prefix(), 0).status);  // the walk starts
  now_ += std::chrono::seconds(10);
  next();
  Lookup next1 = s->getNext(Under(*s, "1.1.2"), 0);  // the walk goes on to column 2
  ASSERT_EQ(Lookup::kFound, next1.status);
  EXPECT_EQ(Under(*s, "1.2.1"), next1.name);
  EXPECT_EQ(1, handler_.calls);
  now_ += std::chrono::seconds(49);
  next();
  EXPECT_EQ(Lookup::kFound, s->getNext(Under(*s, "1.2.1"), 0).status);
  EXPECT_EQ(1, handler_.calls);
  now_ += std::chrono::seconds(1);  // 60 s: the walk age limit
  next();
  EXPECT_EQ(Lookup::kFound, s->getNext(Under(*s, "1.2.1"), 0).status);
  EXPECT_EQ(2, handler_.calls);
}

TEST_F(SnapshotUseTest, AWalkThatStartsOrAGetAfterTheSnapshotTimeReadsAgain) {
  settings_.snapshotTime = std::chrono::seconds(3);
  settings_.walkTime = std::chrono::seconds(60);
  auto s = server();
  ASSERT_EQ(Lookup::kFound, s->getNext(s->prefix(), 0).status);
  now_ += std::chrono::seconds(3);
  // From the table, its entry or a column without index: a new walk.
  for (const char* start : {"", "1", "1.2"}) {
    next();
    const int before = handler_.calls;
    Lookup first = s->getNext(*start == '\0' ? s->prefix() : Under(*s, start), 0);
    ASSERT_EQ(Lookup::kFound, first.status) << start;
    EXPECT_EQ(before + 1, handler_.calls) << "from '" << start << "'";
    now_ += std::chrono::seconds(3);
  }
  next();
  const int before = handler_.calls;
  EXPECT_EQ(Lookup::kFound, readCount(*s).status);
  EXPECT_EQ(before + 1, handler_.calls);
}

TEST_F(SnapshotUseTest, WithoutTheWalkExtensionAContinuingGetNextReadsAgainAfterTheSnapshotTime) {
  settings_.snapshotTime = std::chrono::seconds(3);
  settings_.walkTime = std::chrono::seconds(0);
  auto s = server();
  ASSERT_EQ(Lookup::kFound, s->getNext(s->prefix(), 0).status);
  now_ += std::chrono::seconds(3);
  next();
  EXPECT_EQ(Lookup::kFound, s->getNext(Under(*s, "1.1.1"), 0).status);
  EXPECT_EQ(2, handler_.calls);
}

// ------------------------------------------------------------------ the back-end worker

// A handler whose calls can be held: while held, a call waits (on the
// worker) until released. A table of one row (index 1, count `value`), and
// a scalar of `value`.
class HeldHandler : public CSnmpHandler {
 public:
  int OnQueryTable(const CVEM_SnmpContext&, const CTLVPackage&, CTLVPackage& rsp) override {
    if (whileReading_) whileReading_();
    std::unique_lock<std::mutex> lock(mu_);
    ++calls_;
    released_.wait(lock, [this] { return !held_; });
    order_ += 't';
    rsp.push_back(Rec().u32(1, 1).u32(2, value_).build());
    return 0;
  }
  int OnQueryLeaf(const CVEM_SnmpContext&, const CTLVPackage&, CTLVPackage& rsp) override {
    std::unique_lock<std::mutex> lock(mu_);
    ++calls_;
    released_.wait(lock, [this] { return !held_; });
    order_ += 'l';
    rsp.push_back(Rec().u32(0, value_).build());
    return 0;
  }
  int OnSetLeaf(const CVEM_SnmpContext&, const CTLVPackage& req, CTLVPackage&) override {
    std::lock_guard<std::mutex> lock(mu_);
    ++calls_;
    value_ = CTLVCell::ValueCast<unsigned int>()((*req[0])[0]);
    writes_.push_back(value_);
    order_ += 's';
    return 0;
  }
  int OnCreateTable(const CVEM_SnmpContext&, const CTLVPackage&, CTLVPackage&) override { return -1; }
  int OnModifyTable(const CVEM_SnmpContext&, const CTLVPackage&, CTLVPackage&) override { return -1; }
  int OnDeleteTable(const CVEM_SnmpContext&, const CTLVPackage&, CTLVPackage&) override { return -1; }
  void hold() {
    std::lock_guard<std::mutex> lock(mu_);
    held_ = true;
  }
  void release() {
    {
      std::lock_guard<std::mutex> lock(mu_);
      held_ = false;
    }
    released_.notify_all();
  }
  void set(uint32_t value) {
    std::lock_guard<std::mutex> lock(mu_);
    value_ = value;
  }
  // Called at the start of every table read (on the worker).
  void whileReading(std::function<void()> fn) { whileReading_ = std::move(fn); }
  int calls() {
    std::lock_guard<std::mutex> lock(mu_);
    return calls_;
  }
  std::vector<uint32_t> writes() {
    std::lock_guard<std::mutex> lock(mu_);
    return writes_;
  }
  // The calls made, in order: t table read, l leaf read, s write.
  std::string order() {
    std::lock_guard<std::mutex> lock(mu_);
    return order_;
  }

 private:
  std::mutex mu_;
  std::condition_variable released_;
  bool held_ = false;
  uint32_t value_ = 5;
  int calls_ = 0;
  std::vector<uint32_t> writes_;
  std::string order_;
  std::function<void()> whileReading_;
};

class WorkerTest : public ::testing::Test {
 protected:
  WorkerTest()
      : table_(Table(kTablePrefix, MibIndexEncoding::Integer, MibSyntax::Unsigned32,
                     {MibColumn{2, "count", MibSyntax::Counter32, false}})),
        scalar_(Scalar(MibSyntax::Unsigned32, true)) {
    settings_.now = [this] { return Clock::time_point(Clock::duration(now_.load())); };
    settings_.waitTime = std::chrono::milliseconds(50);
    settings_.maxAge = std::chrono::seconds(60);
    settings_.worker = &worker_;
    settings_.deadline = [this] { return Clock::now() + wait_; };
  }
  ~WorkerTest() override {
    handler_.release();
    drain();
  }
  // Returns once every job queued so far has run.
  void drain() {
    worker_.wait(worker_.submit([] {}));
  }
  TableServer& table() {
    if (!tableServer_) tableServer_.reset(new TableServer(table_, &handler_, settings_, false));
    return *tableServer_;
  }
  ScalarServer& scalar() {
    if (!scalarServer_) scalarServer_.reset(new ScalarServer(scalar_, &handler_, settings_));
    return *scalarServer_;
  }
  Lookup readCount() { return table().get(Under(table(), "1.2.1")); }
  Lookup readScalar() { return scalar().get(Under(scalar(), "0")); }

  MibObject table_;
  MibObject scalar_;
  HeldHandler handler_;
  ServerSettings settings_;
  // The agent's clock of ages, moved by the test (and by handlers, on the worker).
  void advance(Clock::duration d) { now_ += d.count(); }
  std::atomic<Clock::rep> now_{std::chrono::duration_cast<Clock::duration>(std::chrono::hours(1)).count()};
  std::chrono::milliseconds wait_{50};  // each request's deadline is this far away
  std::unique_ptr<TableServer> tableServer_;
  std::unique_ptr<ScalarServer> scalarServer_;
  BackendWorker worker_;  // goes first: no job outlives the servers
};

TEST_F(WorkerTest, TheModuleIsCalledOnTheWorkerNotOnTheRequestThread) {
  std::thread::id calledOn;
  class Probe : public ScriptedTable {
   public:
    explicit Probe(std::thread::id* on) : on_(on) {}
    int OnQueryTable(const CVEM_SnmpContext& ctx, const CTLVPackage& req, CTLVPackage& rsp) override {
      *on_ = std::this_thread::get_id();
      return ScriptedTable::OnQueryTable(ctx, req, rsp);
    }
    std::thread::id* on_;
  } handler(&calledOn);
  handler.rows = {Rec().u32(1, 1).u32(2, 7)};
  {
    TableServer server(table_, &handler, settings_, false);
    Lookup got = server.get(Under(server, "1.2.1"));
    ASSERT_EQ(Lookup::kFound, got.status) << got.error;
    EXPECT_EQ(7u, got.value.number);
    drain();
  }
  EXPECT_NE(std::thread::id(), calledOn);
  EXPECT_NE(std::this_thread::get_id(), calledOn);
}

TEST_F(WorkerTest, ALateRefreshIsAnsweredFromThePreviousReadAndItsRowsServeLater) {
  ASSERT_EQ(5u, readCount().value.number);
  advance(std::chrono::seconds(4));  // past the snapshot time
  handler_.set(6);
  handler_.hold();
  Lookup late = readCount();
  ASSERT_EQ(Lookup::kFound, late.status) << late.error;
  EXPECT_EQ(5u, late.value.number);
  handler_.release();
  drain();
  Lookup fresh = readCount();
  ASSERT_EQ(Lookup::kFound, fresh.status) << fresh.error;
  EXPECT_EQ(6u, fresh.value.number);
  EXPECT_EQ(2, handler_.calls());  // the late read served the lookup after it
}

TEST_F(WorkerTest, ALateFirstReadIsAnErrorAtTheDeadlineNotAHang) {
  KitLogCapture log;
  handler_.hold();
  Lookup got = readCount();
  ASSERT_EQ(Lookup::kError, got.status);
  EXPECT_EQ("the back end has not answered within 50 ms, and no earlier read younger than 60000 ms can answer",
            got.error);
  bool logged = false;
  for (const CVEMLogRecord& r : log.records(VEM_LOG_WARN)) {
    logged =
        logged || r.message.find("testTable (1.3.6.1.4.1.32473.99.1): the back end has not answered within 50 ms") == 0;
  }
  EXPECT_TRUE(logged);
  handler_.release();
  drain();
  EXPECT_EQ(5u, readCount().value.number);
  EXPECT_EQ(1, handler_.calls());
}

TEST_F(WorkerTest, AReadAlreadyLateIsNotWaitedForAgainWhileThePreviousAnswers) {
  ASSERT_EQ(5u, readCount().value.number);
  advance(std::chrono::seconds(4));
  handler_.hold();
  ASSERT_EQ(5u, readCount().value.number);  // waited until its deadline
  // The next request could wait 20 s, but the read is late already.
  wait_ = std::chrono::seconds(20);
  const Clock::time_point start = Clock::now();
  Lookup got = readCount();
  ASSERT_EQ(Lookup::kFound, got.status) << got.error;
  EXPECT_EQ(5u, got.value.number);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(2, handler_.calls());  // the held read, not another
}

TEST_F(WorkerTest, AReadSlowerThanTheWaitIsNotWaitedForWhileThePreviousAnswers) {
  KitLogCapture log;
  handler_.whileReading([this] { advance(std::chrono::seconds(2)); });  // every read takes 2 s
  wait_ = std::chrono::seconds(5);
  ASSERT_EQ(5u, readCount().value.number);  // no previous read: waited for
  advance(std::chrono::seconds(4));
  handler_.hold();
  wait_ = std::chrono::seconds(1);  // shorter than the last read
  const Clock::time_point start = Clock::now();
  Lookup got = readCount();
  ASSERT_EQ(Lookup::kFound, got.status) << got.error;
  EXPECT_EQ(5u, got.value.number);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
  bool logged = false;
  for (const CVEMLogRecord& r : log.records(VEM_LOG_WARN)) {
    logged = logged ||
             r.message.find(
                 "its read is not expected within the wait (the last one took 2.0 s); answering from the read of ") !=
                 std::string::npos;
  }
  EXPECT_TRUE(logged);
  handler_.release();
  drain();
  EXPECT_EQ(2, handler_.calls());  // the refresh was asked all the same
}

TEST_F(WorkerTest, APreviousReadOlderThanTheMaximumAgeIsNotServed) {
  ASSERT_EQ(5u, readCount().value.number);
  advance(std::chrono::seconds(61));
  handler_.hold();
  Lookup got = readCount();
  ASSERT_EQ(Lookup::kError, got.status);
  EXPECT_NE(std::string::npos, got.error.find("no earlier read younger than 60000 ms"));
}

TEST_F(WorkerTest, ALateScalarReadAnswersTheLastValueReadOrAnError) {
  handler_.hold();
  EXPECT_EQ(Lookup::kError, readScalar().status);
  handler_.release();
  drain();
  ASSERT_EQ(5u, readScalar().value.number);
  handler_.set(9);
  handler_.hold();
  Lookup late = readScalar();
  ASSERT_EQ(Lookup::kFound, late.status) << late.error;
  EXPECT_EQ(5u, late.value.number);
  handler_.release();
  drain();
  EXPECT_EQ(9u, readScalar().value.number);
}

TEST_F(WorkerTest, AWriteGoesBeforeTheQueuedReads) {
  ASSERT_EQ(5u, readCount().value.number);
  handler_.hold();
  advance(std::chrono::seconds(4));
  EXPECT_EQ(Lookup::kFound, readCount().status);   // a table read, held on the worker
  EXPECT_EQ(Lookup::kError, readScalar().status);  // a scalar read queued behind it
  std::thread releaser([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    handler_.release();
  });
  wait_ = std::chrono::seconds(30);
  ScalarServer writer(scalar_, &handler_, settings_);
  std::string why;
  EXPECT_EQ(0, writer.write(7, &why)) << why;
  releaser.join();
  // The write ran after the table read under way and before the scalar read
  // queued earlier.
  drain();
  EXPECT_EQ("tsl", handler_.order().substr(1));
  EXPECT_EQ((std::vector<uint32_t>{7}), handler_.writes());
}

TEST_F(WorkerTest, AWriteThatCannotStartBeforeTheDeadlineIsRefusedAndNeverMade) {
  handler_.hold();
  EXPECT_EQ(Lookup::kError, readCount().status);  // holds the worker
  std::string why;
  EXPECT_EQ(-1, scalar().write(7, &why));
  EXPECT_EQ("the back end is busy: the write did not start within 50 ms", why);
  handler_.release();
  drain();
  EXPECT_TRUE(handler_.writes().empty());
}

TEST(RequestDeadlineTest, EveryLookupOfOneRequestSharesOneDeadline) {
  ServerSettings settings;
  uint64_t request = 1;
  settings.request = [&request] { return request; };
  settings.waitTime = std::chrono::milliseconds(300);
  std::function<Clock::time_point()> deadline = RequestDeadline(settings);
  const Clock::time_point before = Clock::now();
  const Clock::time_point first = deadline();
  EXPECT_GE(first, before + std::chrono::milliseconds(300));
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(first, deadline());  // same request
  ++request;
  EXPECT_GT(deadline(), first);  // the next request has its own
}

TEST(WorkerBatchTest, AWalkHasTheNextBatchReadAheadAndReadsEachBatchOnce) {
  BackendFixture fixture;
  LunBackend backend(fixture, Keys(400), 256);
  CPerformanceLunHandler handler;
  MibObject object = LunTable();
  ServerSettings settings;
  Clock::time_point now = Clock::time_point() + std::chrono::hours(1);
  settings.now = [&now] { return now; };
  settings.waitTime = std::chrono::seconds(30);
  std::unique_ptr<TableServer> server;
  BackendWorker worker;
  settings.worker = &worker;
  server.reset(new TableServer(object, &handler, settings, true));
  auto drain = [&worker] { worker.wait(worker.submit([] {})); };
  auto batches = [&fixture] { return fixture.backend().callsTo(backend::kLunBatchStatsCmd).size(); };

  Lookup first = server->getNext(server->prefix(), 0);
  ASSERT_EQ(Lookup::kFound, first.status) << first.error;
  drain();
  EXPECT_EQ(2u, batches());  // rows 0-159, and 160-319 ahead of the walk
  EXPECT_EQ(400u * 16, Walk(*server).size());
  drain();
  EXPECT_EQ(3u, batches());  // ceil(400 / 160): nothing read twice
  // Nobody asks: nothing is read, however old the rows get.
  now += std::chrono::minutes(10);
  drain();
  EXPECT_EQ(3u, batches());
  ASSERT_EQ(Lookup::kFound, server->getNext(server->prefix(), 0).status);
  drain();
  EXPECT_EQ(5u, batches());  // a new walk: its first batch and the next
  server.reset();
}

TEST(WorkerBatchTest, AnInlineServerReadsNothingAhead) {
  BackendFixture fixture;
  LunBackend backend(fixture, Keys(400), 256);
  CPerformanceLunHandler handler;
  MibObject object = LunTable();
  TableServer server(object, &handler, ServerSettings(), true);
  ASSERT_EQ(Lookup::kFound, server.getNext(server.prefix(), 0).status);
  EXPECT_EQ(1u, fixture.backend().callsTo(backend::kLunBatchStatsCmd).size());
}

// Two whole tables one after the other, on a worker: a walk of the first
// may have the second read ahead.
class WorkerPrefetchTest : public ::testing::Test {
 protected:
  WorkerPrefetchTest()
      : first_(Table(kTablePrefix, MibIndexEncoding::Integer, MibSyntax::Unsigned32,
                     {MibColumn{2, "count", MibSyntax::Counter32, false}})),
        second_(Table("1.3.6.1.4.1.32473.99.2", MibIndexEncoding::Integer, MibSyntax::Unsigned32,
                      {MibColumn{2, "count", MibSyntax::Counter32, false}})) {
    a_.rows = {Rec().u32(1, 1).u32(2, 10), Rec().u32(1, 2).u32(2, 20)};
    b_.rows = {Rec().u32(1, 7).u32(2, 70)};
    settings_.waitTime = std::chrono::seconds(30);
    settings_.worker = &worker_;
  }
  ~WorkerPrefetchTest() override { drain(); }
  void serve() {
    first_server_.reset(new TableServer(first_, &a_, settings_, false));
    second_server_.reset(new TableServer(second_, &b_, settings_, false));
    first_server_->setNext(second_server_.get());
  }
  void drain() {
    worker_.wait(worker_.submit([] {}));
  }

  MibObject first_, second_;
  ScriptedTable a_, b_;
  ServerSettings settings_;
  std::unique_ptr<TableServer> first_server_, second_server_;
  BackendWorker worker_;  // goes first: no job outlives the servers
};

TEST_F(WorkerPrefetchTest, AWalkInItsLastColumnHasTheNextTableReadOnceAndOnlyThen) {
  serve();
  TableServer& sa = *first_server_;
  // The index column: not yet the last one.
  Lookup got = sa.getNext(sa.prefix(), 0);
  ASSERT_EQ(Lookup::kFound, got.status) << got.error;
  drain();
  EXPECT_EQ(0, b_.calls);
  // The last column: the next table is read.
  got = sa.getNext(Under(sa, "1.2"), 0);
  ASSERT_EQ(Lookup::kFound, got.status) << got.error;
  drain();
  EXPECT_EQ(1, b_.calls);
  EXPECT_EQ(4u, Walk(sa).size());  // rows 1 and 2, two columns
  drain();
  EXPECT_EQ(1, b_.calls);  // once per snapshot
  // The walk goes on into the next table: answered from what was read.
  EXPECT_EQ((std::vector<std::string>{"1.1.7=Gauge32: 7", "1.2.7=Counter32: 70"}), Walk(*second_server_));
  EXPECT_EQ(1, b_.calls);
  EXPECT_EQ(1, a_.calls);
}

TEST_F(WorkerPrefetchTest, NothingIsReadAheadWhenEveryRequestReadsAnyway) {
  settings_.snapshotTime = std::chrono::milliseconds(0);
  serve();
  EXPECT_EQ(4u, Walk(*first_server_).size());
  drain();
  EXPECT_EQ(0, b_.calls);
}

}  // namespace
}  // namespace zerva_agent
