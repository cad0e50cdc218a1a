// The platform's cell, record and header operations on their own; the codec
// tests in tlv/ exercise them through whole messages.
#include <gtest/gtest.h>

#include "tlv/vem_message_package.h"

namespace {

std::vector<unsigned char> ValueOf(const CTLVCell& c) { return {c.value(), c.value() + c.length()}; }

TEST(TlvOpsTest, SetIReplacesTheValueAndScrubsTheOldOne) {
  std::vector<std::vector<unsigned char>> released;
  static std::vector<std::vector<unsigned char>>* sink;
  sink = &released;
  g_tlvCellReleaseObserver = [](const unsigned char* v, unsigned short n) { sink->emplace_back(v, v + n); };
  CTLVCell cell;
  const char first[] = "abc";
  cell.set_i(CTLVCell::TLV_TYPE_STRING, 3, first, 4);
  unsigned int four = 4;
  cell.set_i(CTLVCell::TLV_TYPE_UINT, 9, &four, 4);
  g_tlvCellReleaseObserver = nullptr;
  EXPECT_EQ(cell.tag(), 9);
  EXPECT_EQ(cell.type(), 3);
  EXPECT_EQ(ValueOf(cell), (std::vector<unsigned char>{4, 0, 0, 0}));
  ASSERT_EQ(released.size(), 1u);
  EXPECT_EQ(released[0], std::vector<unsigned char>(4, 0));
}

TEST(TlvOpsTest, NullValueWithZeroLengthLeavesTheCellEmpty) {
  CTLVCell cell;
  cell.set_i(CTLVCell::TLV_TYPE_STRING, 1, nullptr, 0);
  EXPECT_EQ(cell.length(), 0);
  EXPECT_EQ(cell.value(), nullptr);
  EXPECT_EQ(cell.type(), 2);
  EXPECT_THROW(cell.set_i(CTLVCell::TLV_TYPE_STRING, 1, nullptr, 3), CVEM_Exception);
}

TEST(TlvOpsTest, TagIsKeptToTwelveBits) {
  CTLVCell cell;
  cell.set_i(CTLVCell::TLV_TYPE_UINT, 4095, "\1\0\0\0", 4);
  EXPECT_EQ(cell.tagWord(), 0xFFF3);
}

TEST(TlvOpsTest, ToStringOfOddWidths) {
  CTLVCell three, six, signed8;
  three.setCell((1 << 4) | 3, "\x01\x02\x03", 3);
  EXPECT_EQ(three.toString(), std::to_string(0x030201));
  six.setCell((1 << 4) | 6, "\x01\x00\x00\x00\x01\x00", 6);
  EXPECT_EQ(six.toString(), std::to_string(0x000100000001ULL));
  signed8.setCell((1 << 4) | 4, "\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 8);
  EXPECT_EQ(signed8.toString(), "-2");
}

TEST(TlvOpsTest, HeaderDumpHasOneLinePerField) {
  TLVMsgHeadV3 h;
  std::ostringstream os;
  h.dump(os);
  EXPECT_EQ(os.str(),
            "  magic=0x55555555\n  version=3\n  hdrWord0=0x0\n  hdrWord1=0xFFFFFFFF\n  hdrShort0=0xFFFD\n"
            "  hdrShort1=0xFFFF\n  hdrShort2=0xFFFF\n  hdrShort3=0xFFFF\n  dataLen=0\n");
}

TEST(TlvOpsTest, RecordDumpListsEveryCell) {
  CTLVRecordV3 r(0xFFFFFFFFFFFFFFFFULL, 32);
  r.append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT, 42, 4));
  r.append(tlv::NewStringCell(11, "P1"));
  std::ostringstream os;
  r.dump(os);
  EXPECT_EQ(os.str(),
            "  record id=0xFFFFFFFFFFFFFFFF cells=2 length=15\n"
            "    tag=1 type=3 len=4 value=42\n"
            "    tag=11 type=2 len=3 text=\"P1\"\n");
}

}  // namespace
