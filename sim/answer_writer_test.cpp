#include "sim/answer_writer.h"

#include <gtest/gtest.h>

#include "tlv/coding.h"
#include "tlv/vem_message_package.h"

namespace zerva_sim {
namespace {

TEST(AnswerWriterTest, EncodesWhatTheCodecDecodes) {
  AnswerWriter w(0x53494D03);
  w.beginRecord(0xFFFFFFFFFFFFFFFFULL);
  w.str(1, "12");
  w.u32(64, 5);
  w.beginRecord(7);
  w.t6(0, 11);
  std::vector<unsigned char> bytes = w.finish();
  EXPECT_EQ(tlv::DecodeFixed32(bytes.data() + 8), 0x53494D03u);
  EXPECT_EQ(tlv::DecodeFixed32(bytes.data() + 24), bytes.size() - 28);
  CTLVPackage pkg;
  ASSERT_NE(pkg.decode(bytes.data(), static_cast<unsigned>(bytes.size())), CTLVPackage::FAILED);
  ASSERT_EQ(pkg.size(), 2u);
  EXPECT_EQ((*pkg[0])[1]->toString(), "12");
  EXPECT_EQ((*pkg[0])[1]->length(), 3u);
  EXPECT_EQ(CTLVCell::ValueCast<unsigned int>()((*pkg[0])[64]), 5u);
  EXPECT_EQ(pkg[1]->id(), 7u);
  EXPECT_EQ((*pkg[1])[0]->type(), CTLVCell::TLV_TYPE_UINT64);
  EXPECT_EQ((*pkg[1])[0]->length(), 8u);
}

TEST(AnswerWriterTest, EmptyIsAHeaderWithTheCode) {
  const std::vector<unsigned char> bytes = AnswerWriter::Empty(9);
  ASSERT_EQ(bytes.size(), 28u);
  EXPECT_EQ(tlv::DecodeFixed32(bytes.data()), TLVMsgHeadV3::MAGIC);
  EXPECT_EQ(tlv::DecodeFixed32(bytes.data() + 8), 9u);
  EXPECT_EQ(tlv::DecodeFixed32(bytes.data() + 24), 0u);
}

TEST(AnswerWriterTest, ReportsARecordTooLongForItsLengthField) {
  AnswerWriter w;
  w.beginRecord(1);
  const std::string big(60000, 'x');
  w.str(1, big);
  EXPECT_TRUE(w.ok());
  w.str(2, big);
  w.finish();
  EXPECT_FALSE(w.ok());
}

}  // namespace
}  // namespace zerva_sim
