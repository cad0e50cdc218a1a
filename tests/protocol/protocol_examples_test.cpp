#include "tests/protocol/protocol_examples.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "tests/support/fake_backend.h"
#include "tlv/backend_codes.h"
#include "tlv/vem_message_package.h"

namespace {

using zerva_protocol::Bytes;

Bytes Sequence(size_t n) {
  Bytes bytes;
  for (size_t i = 0; i < n; ++i) bytes.push_back(static_cast<unsigned char>(0x30 + i % 80));
  return bytes;
}

TEST(HexDumpTest, EmptyInputIsOnlyTheClosingLength) { EXPECT_EQ(zerva_protocol::HexDump(Bytes()), "00000000\n"); }

TEST(HexDumpTest, LaysOutLinesAsHexdumpC) {
  const Bytes bytes = {0x55, 0x55, 0x55, 0x55, 0x03, 0x00, 0x00, 0x00, 0x41,
                       0x42, 0x7f, 0x20, 0xff, 0xff, 0xff, 0xff, 0x0a};
  EXPECT_EQ(zerva_protocol::HexDump(bytes),
            "00000000  55 55 55 55 03 00 00 00  41 42 7f 20 ff ff ff ff  |UUUU....AB. ....|\n"
            "00000010  0a                                                |.|\n"
            "00000011\n");
}

TEST(HexDumpTest, ParseGivesBackTheBytesOfEveryLength) {
  for (size_t n : {0, 1, 7, 8, 15, 16, 17, 32, 41}) {
    Bytes parsed;
    std::string error;
    ASSERT_TRUE(zerva_protocol::ParseHexDump(zerva_protocol::HexDump(Sequence(n)), &parsed, &error)) << n << error;
    EXPECT_EQ(parsed, Sequence(n)) << n;
  }
}

// A dump that ParseHexDump must refuse, and a part of the error that names
// why (empty where any error will do).
struct RefusedDump {
  const char* name;
  const char* text;
  const char* why;
};

void PrintTo(const RefusedDump& d, std::ostream* os) { *os << d.name; }

const RefusedDump kRefusedDumps[] = {
    {"AnAsciiColumnThatDoesNotMatch", "00000000  41                                                |B|\n00000001\n",
     "ASCII"},
    {"AWrongOffset", "00000001  41                                                |A|\n00000002\n", "offset"},
    {"ADumpWithoutItsClosingLength", "00000000  41                                                |A|\n", "closing"},
    {"AWrongClosingLength", "00000000  41                                                |A|\n00000002\n", "offset"},
    {"AShortLineBeforeTheLast",
     "00000000  41                                                |A|\n"
     "00000001  42                                                |B|\n00000002\n",
     "short"},
    {"UpperCaseHex", "00000000  4A                                                |J|\n00000001\n",
     "'4A' is not a lower-case hex byte"},
};

class HexDumpParseRefusesTest : public ::testing::TestWithParam<RefusedDump> {};

TEST_P(HexDumpParseRefusesTest, WithAnErrorSayingWhy) {
  const RefusedDump& d = GetParam();
  Bytes parsed;
  std::string error;
  EXPECT_FALSE(zerva_protocol::ParseHexDump(d.text, &parsed, &error)) << d.text;
  EXPECT_FALSE(error.empty());
  EXPECT_NE(error.find(d.why), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(Dumps, HexDumpParseRefusesTest, ::testing::ValuesIn(kRefusedDumps),
                         [](const ::testing::TestParamInfo<RefusedDump>& info) { return info.param.name; });

Bytes EncodedFrame(const zerva_test::Rec& rec, unsigned int result) {
  CTLVPackage pkg;
  pkg.push_back(rec.build());
  pkg.head().hdrWord0 = result;
  return zerva_test::Encode(pkg);
}

TEST(DescribeFrameTest, NamesTheHeaderFieldsRecordsAndCellsWithTheirOffsets) {
  const Bytes frame = EncodedFrame(zerva_test::Rec(backend::kObjectListingCmd)
                                       .t6(backend::kTagListingType, backend::kObjTypePortEth)
                                       .str(backend::kTagListingKey, "0A")
                                       .i32(4, -1),
                                   7);
  EXPECT_EQ(zerva_protocol::DescribeFrame(frame),
            "[00000000] header: magic 0x55555555, version 3, hdrWord0 (result) 7, hdrWord1 0xFFFFFFFF, "
            "hdrShort0..3 0xFFFD 0xFFFF 0xFFFF 0xFFFF, dataLen 37\n"
            "[0000001c] record 0xD0000C000 (55834624000), 27 bytes of cells\n"
            "[00000026]   tag 0, type 6 (unsigned 64), 8 bytes: 213\n"
            "[00000032]   tag 1, type 2 (text), 3 bytes: \"0A\\0\"\n"
            "[00000039]   tag 4, type 4 (signed), 4 bytes: -1\n");
}

TEST(DescribeFrameTest, SaysWhenTheCodecRefusesTheFrame) {
  Bytes frame = EncodedFrame(zerva_test::Rec(1).u32(0, 1), 0);
  frame.push_back(0);  // one byte more than a record, counted in dataLen
  frame[24] = static_cast<unsigned char>(frame[24] + 1);
  const std::string text = zerva_protocol::DescribeFrame(frame);
  EXPECT_NE(text.find("trailing bytes"), std::string::npos) << text;
  EXPECT_NE(text.find("decode refuses"), std::string::npos) << text;
}

TEST(DescribeFrameTest, SaysWhenDataLenDisagreesWithTheFrameLength) {
  Bytes frame = EncodedFrame(zerva_test::Rec(1).u32(0, 1), 0);
  frame.push_back(0);  // a byte that dataLen does not count
  EXPECT_NE(zerva_protocol::DescribeFrame(frame).find("dataLen counts 18 bytes of body, the frame holds 19"),
            std::string::npos)
      << zerva_protocol::DescribeFrame(frame);
}

TEST(DescribeFrameTest, SaysWhenTheInputIsShorterThanAHeader) {
  EXPECT_EQ(zerva_protocol::DescribeFrame(Bytes(27, 0x55)), "not a frame: 27 bytes\n");
}

TEST(ParseDocBlocksTest, FindsOnlyLabelledFencedBlocks) {
  const std::string md =
      "text\n```text\nlabel=not-a-fence-label\n```\n"
      "```hexdump label=a.request\n00000000\n```\n"
      "```text label=a.outcome\nresult 0\nrow x\n```\n";
  const std::vector<zerva_protocol::DocBlock> blocks = zerva_protocol::ParseDocBlocks(md);
  ASSERT_EQ(blocks.size(), 2u);
  EXPECT_EQ(blocks[0].label, "a.request");
  EXPECT_EQ(blocks[0].text, "00000000\n");
  EXPECT_EQ(blocks[0].line, 5);
  EXPECT_EQ(blocks[1].label, "a.outcome");
  EXPECT_EQ(blocks[1].text, "result 0\nrow x\n");
}

TEST(GeneratedRegionTest, UpdateRefusesADocumentWithoutMarkers) {
  std::string md = "# nothing generated here\n";
  std::string error;
  EXPECT_FALSE(zerva_protocol::UpdateGeneratedRegions(&md, &error));
  EXPECT_NE(error.find("switch-read"), std::string::npos) << error;
}

TEST(GeneratedRegionTest, UpdateFillsEveryRegionWithTheExampleMarkdown) {
  ASSERT_TRUE(zerva_protocol::LoadShippedDeviceConfig(nullptr));
  std::string md;
  for (const zerva_protocol::Example& e : zerva_protocol::Examples()) {
    md += "## " + e.label + "\n<!-- generated:begin " + e.label + " -->\nold\n<!-- generated:end " + e.label + " -->\n";
  }
  std::string error;
  ASSERT_TRUE(zerva_protocol::UpdateGeneratedRegions(&md, &error)) << error;
  for (const zerva_protocol::Example& e : zerva_protocol::Examples()) {
    EXPECT_EQ(zerva_protocol::GeneratedRegion(md, e.label, &error), zerva_protocol::ExampleMarkdown(e)) << e.label;
  }
  EXPECT_EQ(md.find("old\n"), std::string::npos);
}

TEST(ExamplesTest, EveryExampleSendsItsCommandWithItsOwnAnswer) {
  ASSERT_TRUE(zerva_protocol::LoadShippedDeviceConfig(nullptr));
  for (const zerva_protocol::Example& e : zerva_protocol::Examples()) {
    const zerva_protocol::ExampleRun run = e.run(e.defaultAnswer());
    EXPECT_EQ(run.error, "") << e.label;
    EXPECT_GT(run.request.size(), TLVMsgHeadV3::SIZE) << e.label;
    EXPECT_FALSE(run.outcome.empty()) << e.label;
  }
}

}  // namespace
