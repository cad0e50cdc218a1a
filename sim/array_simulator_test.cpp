#include "sim/array_simulator.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <cstdlib>

#include "sim/sim_test_util.h"
#include "tests/support/fake_backend.h"
#include "tests/support/temp_dir.h"

namespace zerva_sim {
namespace {

using testing::DecodeAnswer;
using testing::Decoded;
using testing::Num;
using testing::Text;
using zerva_test::Rec;

const char kLunItems[] = "303,22,25,28,21,23,26,5,307,370,371,384,385";

class ArraySimulatorTest : public ::testing::Test {
 protected:
  ArraySimulatorTest() : sim_(DefaultTopology(), 17, CommandCodes()) { sim_.freezeClock(kT); }

  std::unique_ptr<Decoded> Ask(const Rec& req) {
    const std::vector<unsigned char> frame = req.frame();
    return DecodeAnswer(sim_.handle(frame.data(), frame.size()).bytes);
  }
  std::unique_ptr<Decoded> Stats(const std::string& key, const std::string& items) {
    return Ask(Rec(codes_.getStats).str(0, key).str(8, items).u32(2, 4));
  }

  static const uint64_t kT = 2000000000ULL;
  CommandCodes codes_;
  ArraySimulator sim_;
};

TEST_F(ArraySimulatorTest, SwitchReadsAndWrites) {
  auto a = Ask(Rec(codes_.getSwitch));
  ASSERT_EQ(a->code, 0u);
  EXPECT_EQ(Num(*a->pkg[0], 0), 1u);
  EXPECT_EQ((*a->pkg[0])[0]->length(), 4u);
  EXPECT_EQ(Ask(Rec(codes_.setSwitch).u32(0, 0))->code, 0u);
  EXPECT_EQ(sim_.switchState(), 0u);
  EXPECT_EQ(Num(*Ask(Rec(codes_.getSwitch))->pkg[0], 0), 0u);
  EXPECT_EQ(Ask(Rec(codes_.setSwitch).u32(0, 7))->code, kSimErrBadValue);
  EXPECT_EQ(Ask(Rec(codes_.setSwitch).str(0, "1"))->code, kSimErrMalformed);
  EXPECT_EQ(sim_.switchState(), 0u);
}

TEST_F(ArraySimulatorTest, StatisticsEqualTheGroundTruth) {
  auto a = Stats("11:7", kLunItems);
  ASSERT_EQ(a->code, 0u);
  std::vector<uint32_t> truth;
  ASSERT_EQ(sim_.statistics(11, "7", {303, 22, 25, 28, 21, 23, 26, 5, 307, 370, 371, 384, 385}, &truth), kSimOk);
  std::string expected;
  for (size_t i = 0; i < truth.size(); ++i) expected += (i ? "," : "") + std::to_string(truth[i]);
  EXPECT_EQ(Text(*a->pkg[0], 9), expected);
  EXPECT_EQ(Stats("207:1B", "110,120,303")->code, 0u);
  EXPECT_EQ(Stats("57636:0A", "182,439")->code, 0u);
  EXPECT_EQ(Stats("235:100", "78,22,25,28,21,23,26,5,307")->code, 0u);
  EXPECT_EQ(Stats("40:48", "182,523,232,23,524,525,233,26")->code, 0u);
}

TEST_F(ArraySimulatorTest, StatisticsRefusals) {
  EXPECT_EQ(Stats("11:400", "22")->code, kSimErrNoObject);
  EXPECT_EQ(Stats("207:2A", "22")->code, kSimErrNoObject);
  EXPECT_EQ(Stats("212:100", "22")->code, kSimErrNoObject);  // 100 is a bond port
  EXPECT_EQ(Stats("11:1", "22,9999")->code, kSimErrUnknownItem);
  EXPECT_EQ(Stats("11:1", "22,,25")->code, kSimErrMalformed);
  EXPECT_EQ(Stats("11-1", "22")->code, kSimErrMalformed);
  EXPECT_EQ(Stats("77:1", "22")->code, kSimErrBadObjectType);
  EXPECT_EQ(Ask(Rec(codes_.getStats).str(0, "11:1"))->code, kSimErrMalformed);
  sim_.setSwitch(false);
  EXPECT_EQ(Stats("11:1", "22")->code, kSimErrSwitchOff);
}

TEST_F(ArraySimulatorTest, FeatureGatedObjectsNeedTheirFeature) {
  Topology t = DefaultTopology();
  t.features = {49};
  ArraySimulator sim(t, 1, CommandCodes());
  auto ask = [&](const std::string& key, const std::string& items) {
    std::vector<unsigned char> f = Rec(codes_.getStats).str(0, key).str(8, items).frame();
    return DecodeAnswer(sim.handle(f.data(), f.size()).bytes)->code;
  };
  EXPECT_EQ(ask("1000:0A", "182"), kSimErrNotSupported);
  EXPECT_EQ(ask("1002:0A", "182"), 0u);
  EXPECT_EQ(ask("40:1", "182"), kSimErrNotSupported);
  EXPECT_EQ(ask("207:0A", "475"), kSimErrUnknownItem);
}

TEST_F(ArraySimulatorTest, CapabilitiesListEveryFeature) {
  auto a = Ask(Rec(codes_.getFeatures));
  ASSERT_EQ(a->code, 0u);
  ASSERT_EQ(a->pkg.size(), 3u);
  EXPECT_EQ(Num(*a->pkg[0], 0), 48u);
  EXPECT_EQ(Num(*a->pkg[2], 0), 602u);
  EXPECT_EQ((*a->pkg[1])[0]->type(), 3);
  EXPECT_EQ((*a->pkg[1])[0]->length(), 4u);
}

TEST_F(ArraySimulatorTest, PortListingCarriesNamesStatusesAndBonds) {
  auto a = Ask(Rec(kListingCmd).t6(0, 213));
  ASSERT_EQ(a->code, 0u);
  ASSERT_EQ(a->pkg.size(), 16u);
  EXPECT_EQ(Text(*a->pkg[0], 1), "1");
  EXPECT_EQ(Text(*a->pkg[0], 6), "eth0");
  EXPECT_EQ(Num(*a->pkg[0], 64), 5u);
  EXPECT_EQ(Text(*a->pkg[15], 70), "bond1");
  auto b = Ask(Rec(kListingCmd).t6(0, 235));
  ASSERT_EQ(b->pkg.size(), 2u);
  EXPECT_EQ(Text(*b->pkg[0], 2), "bond0");
  auto c = Ask(Rec(kListingCmd).t6(0, 207));
  ASSERT_EQ(c->pkg.size(), 4u);
  EXPECT_EQ(Text(*c->pkg[3], 1), "1B");
  EXPECT_EQ(Ask(Rec(kListingCmd).t6(0, 999))->code, kSimErrBadObjectType);
  EXPECT_EQ(Ask(Rec(kListingCmd))->code, kSimErrMalformed);
}

TEST_F(ArraySimulatorTest, LunListingPagesAfterTheKey) {
  auto a = Ask(Rec(kListingCmd).t6(0, 11));
  ASSERT_EQ(a->pkg.size(), 257u);
  EXPECT_EQ(Text(*a->pkg[0], 1), "0");
  EXPECT_EQ(Text(*a->pkg[255], 1), "255");
  EXPECT_EQ(Num(*a->pkg[256], 4095), 0u);
  auto b = Ask(Rec(kListingCmd).t6(0, 11).str(1, "255"));
  ASSERT_EQ(b->pkg.size(), 145u);
  EXPECT_EQ(Text(*b->pkg[0], 1), "256");
  EXPECT_EQ(Num(*b->pkg[144], 4095), 1u);
  auto c = Ask(Rec(kListingCmd).t6(0, 11).str(1, "399"));
  ASSERT_EQ(c->pkg.size(), 1u);
  EXPECT_EQ(Num(*c->pkg[0], 4095), 1u);
  EXPECT_EQ(Ask(Rec(kListingCmd).t6(0, 11).str(1, "x"))->code, kSimErrMalformed);
}

TEST_F(ArraySimulatorTest, SortedFileSystemListingHonoursTheOrder) {
  auto asc = Ask(Rec(kSortedListingCmd).t6(0, 40).str(1, "10").str(15, "{\"sortby\":\"1 ASC\"}"));
  ASSERT_EQ(asc->code, 0u);
  EXPECT_EQ(Text(*asc->pkg[0], 1), "11");
  EXPECT_EQ(asc->pkg.size(), 39u);  // 11..48 and the control record
  auto desc = Ask(Rec(kSortedListingCmd).t6(0, 40).str(1, "10").str(15, "{\"sortby\":\"1 DESC\"}"));
  ASSERT_EQ(desc->pkg.size(), 10u);
  EXPECT_EQ(Text(*desc->pkg[0], 1), "9");
  EXPECT_EQ(Text(*desc->pkg[8], 1), "1");
  EXPECT_EQ(Ask(Rec(kSortedListingCmd).t6(0, 40).str(15, "{\"sortby\":\"2 ASC\"}"))->code, kSimErrMalformed);
  EXPECT_EQ(Ask(Rec(kSortedListingCmd).t6(0, 40).str(15, "not json"))->code, kSimErrMalformed);
}

TEST_F(ArraySimulatorTest, LunBatchAnswersEveryKnownLunInOrder) {
  auto a = Ask(Rec(kLunBatchStatsCmd).u32(11, 11).str(12, ",5,3,999,4").str(8, kLunItems).t6(2, 4));
  ASSERT_EQ(a->code, 0u);
  ASSERT_EQ(a->pkg.size(), 3u);
  EXPECT_EQ(Text(*a->pkg[0], 13), "5");
  EXPECT_EQ(Text(*a->pkg[2], 13), "4");
  std::vector<uint32_t> truth;
  sim_.statistics(11, "3", {303, 22, 25, 28, 21, 23, 26, 5, 307, 370, 371, 384, 385}, &truth);
  EXPECT_EQ(Text(*a->pkg[1], 9).substr(0, std::to_string(truth[0]).size() + 1), std::to_string(truth[0]) + ",");
  EXPECT_EQ(Ask(Rec(kLunBatchStatsCmd).u32(11, 40).str(12, "1").str(8, "22"))->code, kSimErrBadObjectType);
  EXPECT_EQ(Ask(Rec(kLunBatchStatsCmd).u32(11, 11).str(12, "1,x").str(8, "22"))->code, kSimErrMalformed);
  EXPECT_EQ(Ask(Rec(kLunBatchStatsCmd).u32(11, 11).str(12, "1").str(8, "182"))->code, kSimErrUnknownItem);
}

TEST_F(ArraySimulatorTest, UnknownCommandsAndBadFramesGetClearCodes) {
  EXPECT_EQ(Ask(Rec(12345))->code, kSimErrUnknownCommand);
  const unsigned char junk[40] = {0x55, 0x55, 0x55, 0x55, 3, 0, 0, 0};
  EXPECT_EQ(DecodeAnswer(sim_.handle(junk, sizeof junk).bytes)->code, kSimErrMalformed);
  for (uint32_t code : {kSimErrUnknownCommand, kSimErrMalformed, kSimErrTooMany}) {
    EXPECT_TRUE(code < 0x4E540000u || code > 0x4E5400FFu);
  }
}

TEST_F(ArraySimulatorTest, CountsRequestsByCommand) {
  Ask(Rec(codes_.getSwitch));
  Ask(Rec(codes_.getSwitch));
  Ask(Rec(777));
  const auto counts = sim_.commandCounts();
  EXPECT_EQ(counts.at(codes_.getSwitch), 2u);
  EXPECT_EQ(counts.at(777), 1u);
}

TEST_F(ArraySimulatorTest, FaultsShapeTheReply) {
  FaultRule f;
  std::string error;
  ASSERT_TRUE(sim_.parseFault("refuse=0x1234,cmd=GET_PERFORMANCE_SWITCH,count=1", &f, &error)) << error;
  sim_.addFault(f);
  EXPECT_EQ(Ask(Rec(codes_.getSwitch))->code, 0x1234u);
  EXPECT_EQ(Ask(Rec(codes_.getSwitch))->code, 0u);
  ASSERT_TRUE(sim_.parseFault("huge-len", &f, &error));
  sim_.addFault(f);
  std::vector<unsigned char> frame = Rec(codes_.getSwitch).frame();
  Reply r = sim_.handle(frame.data(), frame.size());
  EXPECT_TRUE(r.closeAfter);
  ASSERT_EQ(r.bytes.size(), 28u);
  EXPECT_EQ(tlv::DecodeFixed32(r.bytes.data() + 24), 0xFFFFFFF0u);
  // The control command is never faulted and clears the faults.
  auto c = Ask(Rec(kSimControlCmd).str(0, "clear-faults"));
  EXPECT_EQ(c->code, 0u);
  EXPECT_TRUE(sim_.faults().empty());
}

TEST_F(ArraySimulatorTest, LatencyDelaysEveryAnswerOfItsCommandAndAddsToADelayFault) {
  LatencySetting l;
  std::string error;
  ASSERT_TRUE(sim_.parseLatency("GET_CUR_STATISTIC_DATA=5", &l, &error)) << error;
  sim_.setLatency(l);
  ASSERT_TRUE(sim_.parseLatency("1", &l, &error)) << error;
  sim_.setLatency(l);
  const std::vector<unsigned char> stats = Rec(codes_.getStats).str(0, "11:7").str(8, kLunItems).u32(2, 4).frame();
  const std::vector<unsigned char> sw = Rec(codes_.getSwitch).frame();
  Reply r = sim_.handle(stats.data(), stats.size());
  EXPECT_EQ(r.delayMs, 5u);
  EXPECT_FALSE(r.closeAfter);
  EXPECT_EQ(DecodeAnswer(r.bytes)->code, 0u);
  EXPECT_EQ(sim_.handle(sw.data(), sw.size()).delayMs, 1u);
  // A delay fault comes on top of the latency.
  FaultRule f;
  ASSERT_TRUE(sim_.parseFault("delay=20,cmd=GET_CUR_STATISTIC_DATA,count=1", &f, &error)) << error;
  sim_.addFault(f);
  EXPECT_EQ(sim_.handle(stats.data(), stats.size()).delayMs, 25u);
  EXPECT_EQ(sim_.handle(stats.data(), stats.size()).delayMs, 5u);
  // Control requests are never late; they set and clear the latency too.
  const std::vector<unsigned char> clear = Rec(kSimControlCmd).str(0, "clear-latency").frame();
  r = sim_.handle(clear.data(), clear.size());
  EXPECT_EQ(r.delayMs, 0u);
  EXPECT_EQ(DecodeAnswer(r.bytes)->code, 0u);
  EXPECT_TRUE(sim_.latencies().empty());
  EXPECT_EQ(sim_.handle(stats.data(), stats.size()).delayMs, 0u);
}

TEST_F(ArraySimulatorTest, BadValuesFaultSpoilsOnlyTheValuesTexts) {
  FaultRule f;
  std::string error;
  ASSERT_TRUE(sim_.parseFault("bad-values,cmd=LUN_BATCH_STATS,count=1", &f, &error)) << error;
  sim_.addFault(f);
  const Rec batch = Rec(kLunBatchStatsCmd).u32(11, 11).str(12, "3,4").str(8, kLunItems).t6(2, 4);
  const std::vector<unsigned char> frame = batch.frame();
  const Reply r = sim_.handle(frame.data(), frame.size());
  EXPECT_FALSE(r.closeAfter);
  auto a = DecodeAnswer(r.bytes);
  ASSERT_EQ(a->code, 0u);
  ASSERT_EQ(a->pkg.size(), 2u);
  EXPECT_EQ(Text(*a->pkg[0], 13), "3");
  EXPECT_EQ(Text(*a->pkg[0], 9), "12,n/a,7");
  EXPECT_EQ(Text(*a->pkg[1], 13), "4");
  EXPECT_EQ(Text(*a->pkg[1], 9), "12,n/a,7");
  // Used up: the next answer is the healthy one.
  auto healthy = Ask(batch);
  ASSERT_EQ(healthy->pkg.size(), 2u);
  std::vector<uint32_t> truth;
  sim_.statistics(11, "3", {303, 22, 25, 28, 21, 23, 26, 5, 307, 370, 371, 384, 385}, &truth);
  EXPECT_EQ(Text(*healthy->pkg[0], 9).substr(0, std::to_string(truth[0]).size() + 1), std::to_string(truth[0]) + ",");
  // A refusal keeps its code.
  ASSERT_TRUE(sim_.parseFault("bad-values", &f, &error)) << error;
  sim_.addFault(f);
  EXPECT_EQ(Stats("11:400", "22")->code, kSimErrNoObject);
}

TEST_F(ArraySimulatorTest, ControlCommandAddsListsAndCounts) {
  EXPECT_EQ(Ask(Rec(kSimControlCmd).str(0, "fault").str(1, "delay=5,cmd=LISTING"))->code, 0u);
  auto l = Ask(Rec(kSimControlCmd).str(0, "list-faults"));
  ASSERT_EQ(l->pkg.size(), 1u);
  EXPECT_EQ(Text(*l->pkg[0], 1), "delay=5,cmd=0xD0000C000");
  EXPECT_EQ(Ask(Rec(kSimControlCmd).str(0, "fault").str(1, "boom"))->code, kSimErrMalformed);
  EXPECT_EQ(Ask(Rec(kSimControlCmd).str(0, "freeze-clock").t6(1, 123456789))->code, 0u);
  EXPECT_EQ(sim_.nowMs(), 123456789u);
  auto counts = Ask(Rec(kSimControlCmd).str(0, "counts"));
  ASSERT_EQ(counts->pkg.size(), 1u);
  EXPECT_EQ(counts->pkg[0]->cells().front()->length(), 8u);
  EXPECT_EQ(Num(*counts->pkg[0], 1), 5u);
}

TEST_F(ArraySimulatorTest, MemoryDoesNotGrowWithTime) {
  const size_t before = sim_.memoryBytes();
  for (uint64_t i = 0; i < 500; ++i) {
    sim_.freezeClock(kT + i * 5000);
    Stats("11:" + std::to_string(i % 400), kLunItems);
  }
  EXPECT_EQ(sim_.memoryBytes(), before);
}

TEST_F(ArraySimulatorTest, LargestTopologyListsAndAnswers) {
  Topology t = DefaultTopology();
  SetLunCount(&t, 65536);
  SetFileSystemCount(&t, 4096);
  ArraySimulator sim(t, 1, CommandCodes());
  std::vector<unsigned char> f = Rec(kListingCmd).t6(0, 11).str(1, "65400").frame();
  auto a = DecodeAnswer(sim.handle(f.data(), f.size()).bytes);
  ASSERT_EQ(a->pkg.size(), 136u);
  EXPECT_EQ(Text(*a->pkg[134], 1), "65535");
  std::vector<unsigned char> g = Rec(kSortedListingCmd).t6(0, 40).str(1, "4000").frame();
  EXPECT_EQ(DecodeAnswer(sim.handle(g.data(), g.size()).bytes)->pkg.size(), 97u);
}

TEST(CommandCodesTest, ReadFromAGivenFileWithDefaultsForMissingItems) {
  const zerva_test::TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const std::string path = dir.path() + "/device.xml";
  std::ofstream(path) << "<device><section name=\"COMMAND\"><item key=\"GET_CUR_STATISTIC_DATA\" value=\"42\"/>"
                         "</section></device>";
  CommandCodes c;
  std::string error;
  ASSERT_TRUE(LoadCommandCodes(path, &c, &error)) << error;
  EXPECT_EQ(c.getStats, 42u);
  EXPECT_EQ(c.getSwitch, 59594907649ULL);
  std::ofstream(path) << "<device><section name=\"COMMAND\"><item key=\"GET_SNMP_FEATURES\" value=\"x1\"/>"
                         "</section></device>";
  EXPECT_FALSE(LoadCommandCodes(path, &c, &error));
  EXPECT_NE(error.find("GET_SNMP_FEATURES"), std::string::npos);
  EXPECT_FALSE(LoadCommandCodes("/nonexistent/device.xml", &c, &error));
}

TEST(CommandCodesTest, CodesAreDecimalWithLeadingZerosRead) {
  const zerva_test::TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const std::string path = dir.path() + "/device.xml";
  auto write = [&path](const std::string& value) {
    std::ofstream(path) << "<device><section name=\"COMMAND\"><item key=\"GET_CUR_STATISTIC_DATA\" value=\"" << value
                        << "\"/></section></device>";
  };
  CommandCodes c;
  std::string error;
  write("00042");
  ASSERT_TRUE(LoadCommandCodes(path, &c, &error)) << error;
  EXPECT_EQ(c.getStats, 42u);
  for (const char* bad : {" 42", "+42", "42 ", "0x2A", "18446744073709551616"}) {
    write(bad);
    EXPECT_FALSE(LoadCommandCodes(path, &c, &error)) << bad;
    EXPECT_NE(error.find("is not a decimal code"), std::string::npos) << bad << ": " << error;
  }
}

}  // namespace
}  // namespace zerva_sim
