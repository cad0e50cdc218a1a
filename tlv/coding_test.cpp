#include "tlv/coding.h"

#include <gtest/gtest.h>

namespace {

TEST(CodingTest, Fixed16IsLowByteFirst) {
  unsigned char b[2];
  tlv::EncodeFixed16(b, 0x1234);
  EXPECT_EQ(b[0], 0x34);
  EXPECT_EQ(b[1], 0x12);
  EXPECT_EQ(tlv::DecodeFixed16(b), 0x1234);
}

TEST(CodingTest, Fixed32IsLowByteFirst) {
  unsigned char b[4];
  tlv::EncodeFixed32(b, 0x55555555u + 0x01020304u);
  EXPECT_EQ(b[0], 0x59);
  EXPECT_EQ(b[3], 0x56);
  EXPECT_EQ(tlv::DecodeFixed32(b), 0x55555555u + 0x01020304u);
}

TEST(CodingTest, Fixed64IsLowByteFirst) {
  unsigned char b[8];
  tlv::EncodeFixed64(b, 0xD0000C000ULL);
  const unsigned char expected[8] = {0x00, 0xC0, 0x00, 0x00, 0x0D, 0, 0, 0};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(b[i], expected[i]) << i;
  EXPECT_EQ(tlv::DecodeFixed64(b), 0xD0000C000ULL);
}

TEST(CodingTest, RoundTripsExtremes) {
  unsigned char b[8];
  for (uint64_t v : {0ULL, 1ULL, 0xFFULL, 0x8000000000000000ULL, 0xFFFFFFFFFFFFFFFFULL}) {
    tlv::EncodeFixed64(b, v);
    EXPECT_EQ(tlv::DecodeFixed64(b), v);
  }
}

TEST(CodingTest, FixedUpTo64ReadsEachWidthLowByteFirst) {
  const unsigned char b[8] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x88};
  EXPECT_EQ(tlv::DecodeFixedUpTo64(b, 0), 0u);
  EXPECT_EQ(tlv::DecodeFixedUpTo64(b, 1), 0x01u);
  EXPECT_EQ(tlv::DecodeFixedUpTo64(b, 2), 0x0201u);
  EXPECT_EQ(tlv::DecodeFixedUpTo64(b, 3), 0x030201u);
  EXPECT_EQ(tlv::DecodeFixedUpTo64(b, 5), 0x0504030201ULL);
  EXPECT_EQ(tlv::DecodeFixedUpTo64(b, 8), 0x8807060504030201ULL);
}

TEST(CodingTest, FixedUpTo64AgreesWithTheFixedWidths) {
  unsigned char b[8];
  tlv::EncodeFixed64(b, 0xFEDCBA9876543210ULL);
  EXPECT_EQ(tlv::DecodeFixedUpTo64(b, 2), tlv::DecodeFixed16(b));
  EXPECT_EQ(tlv::DecodeFixedUpTo64(b, 4), tlv::DecodeFixed32(b));
  EXPECT_EQ(tlv::DecodeFixedUpTo64(b, 8), tlv::DecodeFixed64(b));
}

TEST(CodingTest, FixedUpTo64ReadsNoMoreThanEightBytes) {
  // The ninth byte and after are left alone: a longer value reads as its
  // first eight bytes.
  unsigned char b[12] = {0xFF, 0, 0, 0, 0, 0, 0, 0x01, 0xAA, 0xBB, 0xCC, 0xDD};
  EXPECT_EQ(tlv::DecodeFixedUpTo64(b, 12), 0x01000000000000FFULL);
  EXPECT_EQ(tlv::DecodeFixedUpTo64(b, 65535), 0x01000000000000FFULL);
}

}  // namespace
