#include "tlv/vem_message_package.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <cstring>
#include <ostream>
#include <regex>

#include "tests/support/ace_log_capture.h"
#include "tests/support/handler_test_support.h"
#include "tlv/coding.h"

using ::testing::ElementsAre;
using zerva_test::AceError;
using zerva_test::AceLogCapture;
using zerva_test::ThrownText;

namespace {

typedef std::vector<unsigned char> Bytes;

// Builds wire bytes field by field.
class Wire {
 public:
  Wire& u8(unsigned v) {
    b_.push_back(static_cast<unsigned char>(v));
    return *this;
  }
  Wire& u16(unsigned v) {
    unsigned char t[2];
    tlv::EncodeFixed16(t, static_cast<uint16_t>(v));
    b_.insert(b_.end(), t, t + 2);
    return *this;
  }
  Wire& u32(uint32_t v) {
    unsigned char t[4];
    tlv::EncodeFixed32(t, v);
    b_.insert(b_.end(), t, t + 4);
    return *this;
  }
  Wire& u64(uint64_t v) {
    unsigned char t[8];
    tlv::EncodeFixed64(t, v);
    b_.insert(b_.end(), t, t + 8);
    return *this;
  }
  Wire& raw(const Bytes& v) {
    b_.insert(b_.end(), v.begin(), v.end());
    return *this;
  }
  Wire& zeros(size_t n) {
    b_.insert(b_.end(), n, 0);
    return *this;
  }
  // A header with the default fields and the given dataLen.
  Wire& head(uint32_t dataLen, uint32_t magic = 0x55555555, uint32_t version = 3) {
    return u32(magic).u32(version).u32(0).u32(0xFFFFFFFF).u16(0xFFFD).u16(0xFFFF).u16(0xFFFF).u16(0xFFFF).u32(dataLen);
  }
  Bytes bytes() const { return b_; }
  size_t size() const { return b_.size(); }

 private:
  Bytes b_;
};

// A message of one header and a body.
Bytes Message(const Bytes& body) { return Wire().head(static_cast<uint32_t>(body.size())).raw(body).bytes(); }

// Matches "at File=<...vem_message_package.cpp>,Line=<n>" followed by rest.
::testing::Matcher<std::string> AtFileLine(const std::string& rest) {
  return ::testing::MatchesRegex("at File=.*vem_message_package\\.cpp,Line=[0-9]+" + rest);
}

std::string Escape(const std::string& s) {
  static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
  return std::regex_replace(s, special, R"(\$&)");
}

const char kGetRecordFn[] =
    ",Function=unsigned int CTLVPackageV3<HEAD>::getRecord(unsigned char*, unsigned int, CTLVRecordV3*&) "
    "[with HEAD = TLVMsgHeadV3]";

// An LM_ERROR line of getRecord: "at File=...,Line=n" + kGetRecordFn + text.
::testing::Matcher<const zerva_test::AceLine&> GetRecordError(const std::string& text) {
  return AceError(AtFileLine(Escape(std::string(kGetRecordFn) + text)));
}

// The LM_ERROR line of decode for a record it failed to parse.
::testing::Matcher<const zerva_test::AceLine&> ParseFailure(size_t bufSize, unsigned int pos) {
  return AceError(AtFileLine(Escape(" : it failed to parse record, buf size=" + std::to_string(bufSize) +
                                    ", parsing pos=" + std::to_string(pos))));
}

// The two LM_ERROR lines of a decode refused before the header is read.
void ExpectNullOrShortBufferLines(const AceLogCapture& log) {
  EXPECT_THAT(
      log.lines(),
      ElementsAre(
          AceError(AtFileLine(Escape(",Function=CTLVPackageV3::verifyMsgHead: pBuf is null or uiBufSize equal zero!"))),
          AceError("invalid MSG header!")));
}

CTLVRecordV3* NewRecord(unsigned long long id) { return new CTLVRecordV3(id, 32); }

unsigned int Cast(const CTLVCell& cell) { return CTLVCell::ValueCast<unsigned int>()(&cell); }

// A cell built from raw wire fields.
std::unique_ptr<CTLVCell> RawCell(unsigned type, unsigned tag, const Bytes& value) {
  std::unique_ptr<CTLVCell> cell(new CTLVCell());
  cell->setCell(static_cast<unsigned short>((tag << 4) | type), reinterpret_cast<const char*>(value.data()),
                value.size());
  return cell;
}

// ---------------------------------------------------------------- header

TEST(TLVMsgHeadV3Test, NewHeaderHasDefaultFields) {
  TLVMsgHeadV3 h;
  EXPECT_EQ(h.magic, 0x55555555u);
  EXPECT_EQ(h.version, 3u);
  EXPECT_EQ(h.hdrWord0, 0u);
  EXPECT_EQ(h.hdrWord1, 0xFFFFFFFFu);
  EXPECT_EQ(h.hdrShort0, 0xFFFD);
  EXPECT_EQ(h.hdrShort1, 0xFFFF);
  EXPECT_EQ(h.hdrShort2, 0xFFFF);
  EXPECT_EQ(h.hdrShort3, 0xFFFF);
  EXPECT_EQ(h.dataLen, 0u);
}

// ---------------------------------------------------------------- decode

TEST(DecodeTest, EmptyBodyMessageDecodesToNoRecordsAndZero) {
  AceLogCapture log;
  Bytes msg = Wire().head(0).bytes();
  ASSERT_EQ(msg.size(), 28u);
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 0u);
  EXPECT_EQ(pkg.size(), 0u);
  EXPECT_TRUE(log.texts().empty());
}

TEST(DecodeTest, TwentySevenByteBufferIsRejectedWithVerifyMsgHeadText) {
  AceLogCapture log;
  Bytes msg = Wire().head(0).bytes();
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(msg.data(), 27), 0xFFFFFFFFu);
  ExpectNullOrShortBufferLines(log);
}

TEST(DecodeTest, NullBufferIsRejectedWithVerifyMsgHeadText) {
  AceLogCapture log;
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(nullptr, 100), 0xFFFFFFFFu);
  ExpectNullOrShortBufferLines(log);
}

// A message whose header decode refuses with the one line "invalid MSG header!".
struct BadHeader {
  const char* name;
  Bytes msg;
};

void PrintTo(const BadHeader& header, std::ostream* os) { *os << header.name; }

class InvalidHeaderTest : public ::testing::TestWithParam<BadHeader> {};

TEST_P(InvalidHeaderTest, IsRejectedWithTheInvalidHeaderLine) {
  AceLogCapture log;
  Bytes msg = GetParam().msg;
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 0xFFFFFFFFu);
  EXPECT_THAT(log.lines(), ElementsAre(AceError("invalid MSG header!")));
}

INSTANTIATE_TEST_SUITE_P(DecodeTest, InvalidHeaderTest,
                         ::testing::Values(BadHeader{"VersionTwo", Wire().head(0, 0x55555555, 2).bytes()},
                                           BadHeader{"WrongMagic", Wire().head(0, 0x55555554, 3).bytes()},
                                           // 10 body bytes, dataLen says 11
                                           BadHeader{"DataLenBeyondTheBuffer", Wire().head(11).u64(1).u16(0).bytes()},
                                           // dataLen + 28 must not wrap around
                                           BadHeader{"HugeDataLen", Wire().head(0xFFFFFFF0u).zeros(40).bytes()}),
                         [](const ::testing::TestParamInfo<BadHeader>& info) { return std::string(info.param.name); });

TEST(DecodeTest, BodyOfOneToNineBytesIsRejectedAtParsingPos28) {
  for (unsigned n = 1; n <= 9; ++n) {
    AceLogCapture log;
    Bytes msg = Wire().head(n).zeros(n).bytes();
    CTLVPackage pkg;
    EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 0xFFFFFFFFu) << n;
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u) << n;
    EXPECT_THAT(lines[0], AceError(AtFileLine(Escape(": MIN_RECORD_SIZE(10) > uiRemainLen, buf size=" +
                                                     std::to_string(28 + n) + ", parsing pos=28"))));
  }
}

TEST(DecodeTest, ShortRemainderAfterARecordIsRejectedAtItsPosition) {
  AceLogCapture log;
  Bytes msg = Message(Wire().u64(7).u16(0).zeros(3).bytes());
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 0xFFFFFFFFu);
  EXPECT_EQ(pkg.size(), 0u);
  EXPECT_THAT(
      log.lines(),
      ElementsAre(AceError(AtFileLine(Escape(": MIN_RECORD_SIZE(10) > uiRemainLen, buf size=41, parsing pos=38")))));
}

TEST(DecodeTest, RecordWithZeroLengthDecodesToOneEmptyRecord) {
  Bytes msg = Message(Wire().u64(0xD0000C000ULL).u16(0).bytes());
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 10u);
  ASSERT_EQ(pkg.size(), 1u);
  EXPECT_EQ(pkg[0]->id(), 0xD0000C000ULL);
  EXPECT_EQ(pkg[0]->cellCount(), 0u);
}

TEST(DecodeTest, RecordLength65526OrMoreIsNeverAccepted) {
  for (unsigned len : {65526u, 65527u, 65530u, 65535u}) {
    AceLogCapture log;
    // One cell that fills the whole record exactly as far as the full-width
    // arithmetic goes: tag word, length len - 4, value.
    Bytes body = Wire().u64(1).u16(len).u16(0x0012).u16(len - 4).zeros(len - 4).bytes();
    Bytes msg = Message(body);
    CTLVPackage pkg;
    EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 0xFFFFFFFFu) << len;
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u) << len;
    EXPECT_THAT(lines[0], GetRecordError(" : data length is too long, ((sDataLen + pos) > usRecordLen + "
                                         "MIN_RECORD_SIZE) ->" +
                                         std::to_string(len - 4) + "+14 > " + std::to_string(len) + "+10"));
    EXPECT_THAT(lines[1], ParseFailure(msg.size(), 28));
  }
}

// A record of 65525 bytes of cells whose second cell header starts 4 bytes
// before the 64 KiB mark: the parse position must not wrap into the record.
Bytes NearWrapMessage(unsigned secondCellLen) {
  Bytes body = Wire()
                   .u64(1)
                   .u16(65525)
                   .u16((1 << 4) | 2)
                   .u16(65518)
                   .zeros(65518)
                   .u16((2 << 4) | 2)
                   .u16(secondCellLen)
                   .zeros(3)
                   .u64(2)
                   .u16(0)
                   .bytes();
  return Message(body);
}

TEST(DecodeTest, CellHeaderNearThe64KiBMarkIsRejectedNotWrapped) {
  for (unsigned len : {65535u, 10u, 0u}) {
    AceLogCapture log;
    Bytes msg = NearWrapMessage(len);
    CTLVPackage pkg;
    EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 0xFFFFFFFFu) << len;
    EXPECT_EQ(pkg.size(), 0u);
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u) << len;
    EXPECT_THAT(lines[0], GetRecordError(" : data length is too long, ((sDataLen + pos) > usRecordLen + "
                                         "MIN_RECORD_SIZE) ->" +
                                         std::to_string(len) + "+65536 > 65525+10"));
  }
}

TEST(DecodeTest, RecordLength65525IsAccepted) {
  Bytes body = Wire().u64(1).u16(65525).u16(0x0012).u16(65521).zeros(65521).bytes();
  Bytes msg = Message(body);
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 65535u);
  ASSERT_EQ(pkg.size(), 1u);
  EXPECT_EQ(pkg[0]->cellCount(), 1u);
}

TEST(DecodeTest, TypeNibbleTenIsRejectedAsDataTypeUnmated) {
  AceLogCapture log;
  // The bad tag word is followed by a length and more cells, not at the end.
  Bytes body = Wire().u64(5).u16(8).u16((3 << 4) | 10).u16(0).u16(0x0013).u16(0).bytes();
  Bytes msg = Message(body);
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 0xFFFFFFFFu);
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[0], GetRecordError(" : data type unmated, received type is 10"));
  EXPECT_THAT(lines[1], ParseFailure(46, 28));
}

TEST(DecodeTest, TypeNibbleTenInTheLastTwoBytesOfARecordIsDroppedAndTheRecordKept) {
  AceLogCapture log;
  // Record: one good cell (tag 1, type 3, 4 bytes) then a lone bad tag word.
  // A second record follows so that the bound check of the cell loop passes.
  Bytes body = Wire().u64(5).u16(10).u16((1 << 4) | 3).u16(4).u32(77).u16((2 << 4) | 10).u64(6).u16(0).bytes();
  Bytes msg = Message(body);
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), body.size());
  ASSERT_EQ(pkg.size(), 2u);
  ASSERT_EQ(pkg[0]->cellCount(), 1u);
  EXPECT_EQ(Cast(*(*pkg[0])[1]), 77u);
  EXPECT_THAT(log.lines(), ElementsAre(AceError(AtFileLine(
                               Escape(std::string(kGetRecordFn) + " : data type unmated, received type is 10")))));
}

TEST(DecodeTest, TypeNineIsAccepted) {
  Bytes msg = Message(Wire().u64(5).u16(5).u16((1 << 4) | 9).u16(1).u8(0x42).bytes());
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 15u);
  EXPECT_EQ((*pkg[0])[1]->type(), 9);
}

TEST(DecodeTest, RecordLongerThanTheRemainderIsRejected) {
  AceLogCapture log;
  Bytes msg = Message(Wire().u64(5).u16(8).u32(0).bytes());  // says 8, has 4
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 0xFFFFFFFFu);
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[0], GetRecordError(" : record length is too long, (usRecordLen +  MIN_RECORD_SIZE) > "
                                       "uiBufSize ->8+10 < 14"));
  EXPECT_THAT(lines[1], ParseFailure(42, 28));
}

TEST(DecodeTest, FailureAtTheThirdRecordLogsItsOwnPositionAndDropsTheRecordsDecodedBefore) {
  AceLogCapture log;
  CTLVPackage pkg;
  // Two empty records of 10 bytes each, then one that says 8 bytes of cells
  // and has 4: it starts at 28 + 20 = 48 in a 62-byte message.
  Bytes msg = Message(Wire().u64(1).u16(0).u64(2).u16(0).u64(3).u16(8).u32(0).bytes());
  ASSERT_EQ(msg.size(), 62u);
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 0xFFFFFFFFu);
  EXPECT_EQ(pkg.size(), 0u);
  EXPECT_TRUE(pkg.empty());
  EXPECT_EQ(pkg.head().dataLen, 0u);
  EXPECT_THAT(log.lines(), ElementsAre(GetRecordError(" : record length is too long, (usRecordLen +  "
                                                      "MIN_RECORD_SIZE) > uiBufSize ->8+10 < 14"),
                                       ParseFailure(62, 48)));
}

TEST(DecodeTest, CellLongerThanItsRecordIsRejected) {
  AceLogCapture log;
  Bytes msg = Message(Wire().u64(5).u16(6).u16(0x0012).u16(3).u16(0).u64(0).u16(0).bytes());
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 0xFFFFFFFFu);
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[0], GetRecordError(" : data length is too long, ((sDataLen + pos) > usRecordLen + "
                                       "MIN_RECORD_SIZE) ->3+14 > 6+10"));
}

TEST(DecodeTest, CellHeaderCutByTheEndOfTheBufferIsRejected) {
  AceLogCapture log;
  // The record claims 6 bytes of cells and the buffer ends with it: a full
  // 4-byte cell and then 2 bytes, too few for the next cell header.
  CTLVPackage pkg;
  Bytes rec = Wire().u64(5).u16(6).u16(0x0012).u16(0).u16(0x0022).bytes();
  CTLVRecordV3* record = reinterpret_cast<CTLVRecordV3*>(0x1);
  EXPECT_EQ(pkg.getRecord(rec.data(), rec.size(), record), 0u);
  EXPECT_EQ(record, nullptr);
  EXPECT_THAT(log.lines(),
              ElementsAre(AceError(AtFileLine(
                  Escape(std::string(kGetRecordFn) + " : (MIN_TLV_SIZE > uiBufSize - pos) ->4 < uiBufSize - 14")))));
}

TEST(DecodeTest, GetRecordReturnsTheRecordSizeOnTheWire) {
  CTLVPackage pkg;
  Bytes rec = Wire().u64(0x1122334455667788ULL).u16(7).u16(0x0032).u16(3).u8('a').u8('b').u8(0).u8(0xEE).bytes();
  CTLVRecordV3* record = nullptr;
  EXPECT_EQ(pkg.getRecord(rec.data(), rec.size(), record), 17u);
  ASSERT_NE(record, nullptr);
  std::unique_ptr<CTLVRecordV3> owned(record);
  EXPECT_EQ(record->id(), 0x1122334455667788ULL);
  ASSERT_EQ(record->cellCount(), 1u);
  EXPECT_EQ((*record)[3]->toString(), "ab");
  EXPECT_EQ(pkg.size(), 0u);
}

TEST(DecodeTest, DecodedRecordGetsAtLeast32BucketsAndMoreForManyCells) {
  Wire few;
  few.u64(1).u16(8).u16(0x0013).u16(0).u16(0x0023).u16(0);
  Wire many;
  many.u64(2).u16(40 * 4);
  for (unsigned t = 0; t < 40; ++t) many.u16((t << 4) | 3).u16(0);
  Bytes msg = Message(Wire().raw(few.bytes()).raw(many.bytes()).bytes());
  CTLVPackage pkg;
  ASSERT_NE(pkg.decode(msg.data(), msg.size()), 0xFFFFFFFFu);
  EXPECT_EQ(pkg[0]->bucketCount(), 32u);
  EXPECT_EQ(pkg[1]->bucketCount(), 40u);
}

TEST(DecodeTest, DecodeAppendsAfterRecordsAlreadyThere) {
  CTLVPackage pkg;
  pkg.push_back(NewRecord(1));
  Bytes msg = Message(Wire().u64(2).u16(0).bytes());
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 10u);
  ASSERT_EQ(pkg.size(), 2u);
  EXPECT_EQ(pkg[0]->id(), 1u);
  EXPECT_EQ(pkg[1]->id(), 2u);
}

TEST(DecodeTest, FailedDecodeDropsEveryRecordAndKeepsTheHeader) {
  AceLogCapture log;
  CTLVPackage pkg;
  pkg.push_back(NewRecord(1));
  pkg.head().hdrWord0 = 99;
  Bytes msg = Message(Wire().u64(2).u16(0).zeros(4).bytes());
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 0xFFFFFFFFu);
  EXPECT_EQ(pkg.size(), 0u);
  EXPECT_EQ(pkg.head().hdrWord0, 99u);
  EXPECT_EQ(pkg.head().dataLen, 0u);
}

TEST(DecodeTest, HeaderFieldsAreCopiedFromTheMessage) {
  Bytes msg =
      Wire().u32(0x55555555).u32(3).u32(17).u32(0x01020304).u16(1).u16(2).u16(3).u16(4).u32(10).u64(9).u16(0).bytes();
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 10u);
  EXPECT_EQ(pkg.head().magic, 0x55555555u);
  EXPECT_EQ(pkg.head().version, 3u);
  EXPECT_EQ(pkg.head().hdrWord0, 17u);
  EXPECT_EQ(pkg.head().hdrWord1, 0x01020304u);
  EXPECT_EQ(pkg.head().hdrShort0, 1);
  EXPECT_EQ(pkg.head().hdrShort1, 2);
  EXPECT_EQ(pkg.head().hdrShort2, 3);
  EXPECT_EQ(pkg.head().hdrShort3, 4);
  EXPECT_EQ(pkg.head().dataLen, 10u);
}

TEST(DecodeTest, TrailingBytesAfterDataLenAreIgnored) {
  Bytes msg = Message(Wire().u64(9).u16(0).bytes());
  msg.push_back(0xAB);
  CTLVPackage pkg;
  EXPECT_EQ(pkg.decode(msg.data(), msg.size()), 10u);
  EXPECT_EQ(pkg.size(), 1u);
}

// ---------------------------------------------------------------- encode

TEST(EncodeTest, EmptyPackageEncodesTo28BytesWithDataLenZero) {
  CTLVPackage pkg;
  unsigned char* out = nullptr;
  unsigned int n = pkg.encode(out);
  std::unique_ptr<unsigned char[]> owned(out);
  ASSERT_EQ(n, 28u);
  EXPECT_EQ(Bytes(out, out + n), Wire().head(0).bytes());
}

TEST(EncodeTest, EncodeIntoA27ByteBufferFails) {
  AceLogCapture log;
  CTLVPackage pkg;
  unsigned char buf[27];
  std::memset(buf, 0xCC, sizeof buf);
  EXPECT_EQ(pkg.encode(buf, 27), 0xFFFFFFFFu);
  EXPECT_THAT(log.lines(), ElementsAre(AceError("buf size is less than data size! buf size=27, data size=28!")));
  for (unsigned char c : buf) EXPECT_EQ(c, 0xCC);
}

TEST(EncodeTest, EncodeIntoANullBufferFails) {
  AceLogCapture log;
  CTLVPackage pkg;
  EXPECT_EQ(pkg.encode(nullptr, 100), 0xFFFFFFFFu);
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], AceError("buf pointer is null!"));
}

TEST(EncodeTest, WritesLittleEndianRecordsAndCellsByteForByte) {
  CTLVPackage pkg;
  CTLVRecordV3* r = NewRecord(0xD0000C000ULL);
  r->append(tlv::NewUintCell(0, CTLVCell::TLV_TYPE_UINT64, 207, 8));
  r->append(tlv::NewStringCell(1, "0A"));
  pkg.push_back(r);
  unsigned char* out = nullptr;
  unsigned int n = pkg.encode(out);
  std::unique_ptr<unsigned char[]> owned(out);
  Bytes body = Wire()
                   .u64(0xD0000C000ULL)
                   .u16(12 + 7)
                   .u16(0x0006)
                   .u16(8)
                   .u64(207)
                   .u16(0x0012)
                   .u16(3)
                   .u8('0')
                   .u8('A')
                   .u8(0)
                   .bytes();
  EXPECT_EQ(Bytes(out, out + n), Message(body));
  EXPECT_EQ(pkg.head().dataLen, body.size());
}

TEST(EncodeTest, EncodeIntoABufferReturnsTheSizeAndMatchesTheAllocatingEncode) {
  CTLVPackage pkg;
  CTLVRecordV3* r = NewRecord(42);
  r->append(tlv::NewUintCell(5, CTLVCell::TLV_TYPE_UINT, 0xDEADBEEF, 4));
  pkg.push_back(r);
  unsigned char* out = nullptr;
  unsigned int n = pkg.encode(out);
  std::unique_ptr<unsigned char[]> owned(out);
  Bytes buf(n + 5, 0xCC);
  EXPECT_EQ(pkg.encode(buf.data(), buf.size()), n);
  EXPECT_EQ(Bytes(buf.begin(), buf.begin() + n), Bytes(out, out + n));
  EXPECT_EQ(buf[n], 0xCC);
}

TEST(EncodeTest, RecordLengthAbove65535IsTruncatedToItsLow16Bits) {
  CTLVPackage pkg;
  CTLVRecordV3* r = NewRecord(1);
  std::string big(65531, 'x');  // cell of 4 + 65531 + 1 = 65536 bytes
  r->append(tlv::NewStringCell(1, big));
  r->append(tlv::NewUintCell(2, CTLVCell::TLV_TYPE_UINT, 1, 4));  // + 8
  pkg.push_back(r);
  unsigned char* out = nullptr;
  unsigned int n = pkg.encode(out);
  std::unique_ptr<unsigned char[]> owned(out);
  EXPECT_EQ(n, 28u + 10u + 65544u);
  EXPECT_EQ(tlv::DecodeFixed16(out + 28 + 8), 65544u & 0xFFFF);
}

TEST(EncodeTest, EncodeThenDecodeReproducesRecordsCellsAndHeader) {
  CTLVPackage pkg;
  pkg.head().hdrWord0 = 5;
  pkg.head().hdrShort2 = 0x1234;
  CTLVRecordV3* a = NewRecord(0xFFFFFFFFFFFFFFFFULL);
  a->append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT, 7, 4));
  a->append(tlv::NewStringCell(11, "P1"));
  std::unique_ptr<CTLVCell> empty(new CTLVCell());
  a->append(empty.release());
  pkg.push_back(a);
  pkg.push_back(NewRecord(3));
  unsigned char* out = nullptr;
  unsigned int n = pkg.encode(out);
  std::unique_ptr<unsigned char[]> owned(out);

  CTLVPackage back;
  EXPECT_EQ(back.decode(out, n), n - 28);
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back.head().hdrWord0, 5u);
  EXPECT_EQ(back.head().hdrShort2, 0x1234);
  EXPECT_EQ(back[0]->id(), 0xFFFFFFFFFFFFFFFFULL);
  ASSERT_EQ(back[0]->cellCount(), 3u);
  auto it = back[0]->cells().begin();
  EXPECT_EQ((*it)->tagWord(), (1 << 4) | 3);
  EXPECT_EQ(Cast(**it), 7u);
  ++it;
  EXPECT_EQ((*it)->tagWord(), (11 << 4) | 2);
  EXPECT_EQ(Bytes((*it)->value(), (*it)->value() + (*it)->length()), (Bytes{'P', '1', 0}));
  ++it;
  EXPECT_EQ((*it)->tagWord(), 4094 << 4);
  EXPECT_EQ((*it)->length(), 0);
  EXPECT_EQ(back[1]->cellCount(), 0u);

  unsigned char* again = nullptr;
  unsigned int m = back.encode(again);
  std::unique_ptr<unsigned char[]> owned2(again);
  EXPECT_EQ(Bytes(again, again + m), Bytes(out, out + n));
}

// ---------------------------------------------------------------- access

TEST(PackageTest, IndexOnAnEmptyPackageThrows) {
  CTLVPackage pkg;
  EXPECT_EQ(ThrownText([&] { pkg[0]; }), "CVEM_Exception: record don't exist, index is 0");
}

TEST(PackageTest, IndexPastTheEndNamesTheIndex) {
  CTLVPackage pkg;
  pkg.push_back(NewRecord(1));
  EXPECT_EQ(pkg[0]->id(), 1u);
  EXPECT_EQ(ThrownText([&] { pkg[1]; }), "CVEM_Exception: record don't exist, index is 1");
}

TEST(PackageTest, ClearDestroysRecordsAndKeepsTheHeader) {
  CTLVPackage pkg;
  pkg.head().hdrWord1 = 8;
  pkg.push_back(NewRecord(1));
  pkg.push_back(NewRecord(2));
  pkg.clear();
  EXPECT_EQ(pkg.size(), 0u);
  EXPECT_EQ(pkg.head().hdrWord1, 8u);
}

TEST(PackageTest, DumpWritesBracesHeaderAndRecords) {
  CTLVPackage pkg;
  CTLVRecordV3* r = NewRecord(0xD0000C000ULL);
  r->append(tlv::NewStringCell(1, "abc"));
  pkg.push_back(r);
  std::ostringstream os;
  pkg.dump(os);
  const std::string text = os.str();
  EXPECT_EQ(text.substr(0, 2), "{\n");
  EXPECT_EQ(text.substr(text.size() - 2), "}\n");
  EXPECT_NE(text.find("magic=0x55555555"), std::string::npos);
  EXPECT_NE(text.find("record id=0xD0000C000"), std::string::npos);
  EXPECT_NE(text.find("tag=1 type=2 len=4 text=\"abc\""), std::string::npos);
}

// ---------------------------------------------------------------- cells

TEST(CellTest, DefaultCellHasTag4094TypeZeroAndNoValue) {
  CTLVCell cell;
  EXPECT_EQ(cell.tag(), 4094);
  EXPECT_EQ(cell.type(), 0);
  EXPECT_EQ(cell.length(), 0);
  EXPECT_EQ(cell.value(), nullptr);
  EXPECT_EQ(ThrownText([&] { cell.checkNumerical(); }),
            "CVEM_Exception: CTLVCell isn't numerical type! tag equal to 4094");
}

TEST(CellTest, OneByteSignedFFCastsToAllOnesAndUnsignedTo255) {
  EXPECT_EQ(Cast(*RawCell(4, 1, {0xFF})), 0xFFFFFFFFu);
  EXPECT_EQ(Cast(*RawCell(3, 1, {0xFF})), 255u);
}

TEST(CellTest, TwoByteValuesAreSignExtendedOnlyForTypeFour) {
  EXPECT_EQ(Cast(*RawCell(4, 1, {0xFE, 0xFF})), 0xFFFFFFFEu);
  EXPECT_EQ(Cast(*RawCell(3, 1, {0xFE, 0xFF})), 0xFFFEu);
}

TEST(CellTest, ThreeByteSignedValueIsNotSignExtended) {
  EXPECT_EQ(Cast(*RawCell(4, 1, {0xFF, 0xFF, 0xFF})), 0x00FFFFFFu);
}

TEST(CellTest, EightByteValueCastsToItsLow32Bits) {
  unsigned char v[8];
  tlv::EncodeFixed64(v, 0x0000000100000002ULL);
  EXPECT_EQ(Cast(*RawCell(6, 1, Bytes(v, v + 8))), 2u);
}

TEST(CellTest, EmptyCellCastsToZero) { EXPECT_EQ(Cast(*RawCell(3, 1, {})), 0u); }

TEST(CellTest, StringCellPassesCheckStringAndFailsCheckNumerical) {
  auto cell = RawCell(2, 12, {'a', 0});
  EXPECT_NO_THROW(cell->checkString());
  EXPECT_EQ(ThrownText([&] { cell->checkNumerical(); }),
            "CVEM_Exception: CTLVCell isn't numerical type! tag equal to 12");
}

TEST(CellTest, TypesThreeFourSixAndNineAreNumerical) {
  for (unsigned type : {3u, 4u, 6u, 9u, 15u}) {
    EXPECT_NO_THROW(RawCell(type, 1, {1})->checkNumerical()) << type;
  }
  for (unsigned type : {0u, 1u, 2u}) {
    EXPECT_THROW(RawCell(type, 1, {1})->checkNumerical(), CVEM_Exception) << type;
  }
}

TEST(CellTest, NumericCellFailsCheckStringWithItsTag) {
  EXPECT_EQ(ThrownText([&] {
              RawCell(3, 64, {1, 0, 0, 0})->checkString();
            }),
            "CVEM_Exception: CTLVCell isn't string type! tag equal to 64");
}

TEST(CellTest, SetCellTakesTypeAndTagFromTheTagWord) {
  auto cell = RawCell(6, 4095, {1, 2});
  EXPECT_EQ(cell->tag(), 4095);
  EXPECT_EQ(cell->type(), 6);
  EXPECT_EQ(cell->tagWord(), 0xFFF6);
}

TEST(CellTest, SetIRefusesValuesLongerThan65535Bytes) {
  CTLVCell cell;
  std::vector<unsigned char> big(65536);
  EXPECT_THROW(cell.set_i(CTLVCell::TLV_TYPE_STRING, 1, big.data(), big.size()), CVEM_Exception);
  EXPECT_EQ(cell.length(), 0);
}

TEST(CellTest, ToStringOfStringsStopsAtTheFirstNul) {
  EXPECT_EQ(RawCell(2, 1, {'a', 'b', 0})->toString(), "ab");
  EXPECT_EQ(RawCell(2, 1, {'a', 'b'})->toString(), "ab");
  EXPECT_EQ(RawCell(2, 1, {})->toString(), "");
  EXPECT_EQ(RawCell(2, 1, {'x', 0, 'y'})->toString(), "x");
}

TEST(CellTest, ToStringOfNumbersIsDecimal) {
  EXPECT_EQ(RawCell(3, 1, {0x2A, 0, 0, 0})->toString(), "42");
  EXPECT_EQ(RawCell(4, 1, {0xFF, 0xFF, 0xFF, 0xFF})->toString(), "-1");
  unsigned char v[8];
  tlv::EncodeFixed64(v, 0xFFFFFFFFFFFFFFFFULL);
  EXPECT_EQ(RawCell(6, 1, Bytes(v, v + 8))->toString(), "18446744073709551615");
  EXPECT_EQ(RawCell(0, 1, {})->toString(), "");
}

TEST(CellTest, JsonObjectBecomesCompactJsonTextWithNul) {
  Json::Value v(Json::objectValue);
  v["sortby"] = "1 ASC";
  CTLVCell cell;
  cell.set(15, v);
  EXPECT_EQ(cell.tag(), 15);
  EXPECT_EQ(cell.type(), 2);
  const std::string expected = "{\"sortby\":\"1 ASC\"}";
  ASSERT_EQ(cell.length(), expected.size() + 1);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(cell.value()), cell.length()), expected + std::string(1, '\0'));
}

TEST(CellTest, JsonScalarsMapToTheirCellTypes) {
  CTLVCell s, u, i, b, n;
  s.set(1, Json::Value("ab"));
  u.set(2, Json::Value(Json::UInt64(7)));
  i.set(3, Json::Value(-2));
  b.set(4, Json::Value(true));
  n.set(5, Json::Value());
  EXPECT_EQ(s.type(), 2);
  EXPECT_EQ(s.toString(), "ab");
  EXPECT_EQ(u.type(), 6);
  EXPECT_EQ(u.length(), 8);
  EXPECT_EQ(Cast(u), 7u);
  EXPECT_EQ(i.type(), 4);
  EXPECT_EQ(i.length(), 4);
  EXPECT_EQ(Cast(i), 0xFFFFFFFEu);
  EXPECT_EQ(b.type(), 3);
  EXPECT_EQ(Cast(b), 1u);
  EXPECT_EQ(n.type(), 0);
  EXPECT_EQ(n.tag(), 5);
  EXPECT_EQ(n.length(), 0);
}

// Collects the bytes of every value released while installed.
struct ReleaseSpy {
  static std::vector<Bytes>& released() {
    static std::vector<Bytes> r;
    return r;
  }
  static void observe(const unsigned char* v, unsigned short len) { released().emplace_back(v, v + len); }
  ReleaseSpy() {
    released().clear();
    g_tlvCellReleaseObserver = &ReleaseSpy::observe;
  }
  ~ReleaseSpy() { g_tlvCellReleaseObserver = nullptr; }
};

TEST(CellTest, DestroyedCellLeavesNoCopyOfItsValueInTheFreedMemory) {
  ReleaseSpy spy;
  const std::string secret = "community-secret";
  {
    std::unique_ptr<CTLVCell> cell(tlv::NewStringCell(1, secret));
    ASSERT_EQ(cell->toString(), secret);
  }
  ASSERT_EQ(ReleaseSpy::released().size(), 1u);
  EXPECT_EQ(ReleaseSpy::released()[0], Bytes(secret.size() + 1, 0));
}

TEST(CellTest, CellsOfADestroyedPackageAreScrubbed) {
  ReleaseSpy spy;
  {
    Bytes msg = Message(Wire().u64(1).u16(8).u16(0x0013).u16(4).u32(0xA5A5A5A5).bytes());
    CTLVPackage pkg;
    ASSERT_EQ(pkg.decode(msg.data(), msg.size()), 18u);
  }
  ASSERT_EQ(ReleaseSpy::released().size(), 1u);
  EXPECT_EQ(ReleaseSpy::released()[0], Bytes(4, 0));
}

TEST(CellTest, CellsBuiltByAFailedGetRecordAreScrubbed) {
  AceLogCapture log;
  ReleaseSpy spy;
  CTLVPackage pkg;
  // One good cell, then a cell that runs past the record end.
  Bytes rec = Wire().u64(1).u16(14).u16(0x0013).u16(4).u32(0x5A5A5A5A).u16(0x0023).u16(9).zeros(4).bytes();
  CTLVRecordV3* record = nullptr;
  EXPECT_EQ(pkg.getRecord(rec.data(), rec.size(), record), 0u);
  ASSERT_EQ(ReleaseSpy::released().size(), 1u);
  EXPECT_EQ(ReleaseSpy::released()[0], Bytes(4, 0));
}

// ---------------------------------------------------------------- records

TEST(RecordTest, AppendIndexesCellsByTagAndLengthCountsThem) {
  CTLVRecordV3 r(9, 32);
  r.append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT, 5, 4));
  r.append(tlv::NewStringCell(70, ""));
  EXPECT_TRUE(r.hasTag(1));
  EXPECT_TRUE(r.hasTag(70));
  EXPECT_FALSE(r.hasTag(2));
  EXPECT_EQ(r.length(), (4u + 4u) + (4u + 1u));
  EXPECT_EQ(Cast(*r[1]), 5u);
  EXPECT_EQ(r.bucketCount(), 32u);
}

TEST(RecordTest, MissingTagThrows) {
  CTLVRecordV3 r(9, 32);
  EXPECT_EQ(ThrownText([&] { r[7]; }), "CVEM_Exception: cell don't exist, tag is 7");
}

TEST(RecordTest, TheFirstCellOfARepeatedTagIsTheIndexedOne) {
  CTLVRecordV3 r(9, 32);
  r.append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT, 5, 4));
  r.append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT, 6, 4));
  EXPECT_EQ(r.cellCount(), 2u);
  EXPECT_EQ(Cast(*r[1]), 5u);
}

TEST(RecordTest, TagsSharingABucketAreAllFound) {
  CTLVRecordV3 r(9, 32);
  r.append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT, 10, 4));
  r.append(tlv::NewUintCell(33, CTLVCell::TLV_TYPE_UINT, 20, 4));
  r.append(tlv::NewUintCell(65, CTLVCell::TLV_TYPE_UINT, 30, 4));
  EXPECT_EQ(Cast(*r[1]), 10u);
  EXPECT_EQ(Cast(*r[33]), 20u);
  EXPECT_EQ(Cast(*r[65]), 30u);
}

TEST(RecordTest, ClearEmptiesCellsAndIndex) {
  CTLVRecordV3 r(9, 32);
  r.append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT, 5, 4));
  r.clear();
  EXPECT_EQ(r.cellCount(), 0u);
  EXPECT_FALSE(r.hasTag(1));
  EXPECT_EQ(r.length(), 0u);
  r.append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT, 6, 4));
  EXPECT_EQ(Cast(*r[1]), 6u);
}

// ---------------------------------------------------------------- iterator

TEST(IteratorTest, IteratorOverAnEmptyPackageIsAtEndAndCheckRecordThrows) {
  CTLVPackage pkg;
  CTLVRecordIterator it(&pkg);
  EXPECT_TRUE(it.isEnd());
  EXPECT_EQ(it.index(), 0xFFFFFFFFu);
  EXPECT_EQ(ThrownText([&] { it.checkRecord(); }), "CVEM_Exception: record don't exist, index is 4294967295");
}

TEST(IteratorTest, WalksEveryRecordThenEnds) {
  CTLVPackage pkg;
  pkg.push_back(NewRecord(1));
  pkg.push_back(NewRecord(2));
  std::vector<unsigned long long> ids;
  for (CTLVRecordIterator it(&pkg); !it.isEnd(); ++it) ids.push_back(it->id());
  EXPECT_THAT(ids, ElementsAre(1u, 2u));
  CTLVRecordIterator it(&pkg);
  ++it;
  ++it;
  EXPECT_TRUE(it.isEnd());
  EXPECT_THROW(*it, CVEM_Exception);
}

TEST(IteratorTest, NullPackageIsAtEnd) {
  CTLVRecordIterator it(nullptr);
  EXPECT_TRUE(it.isEnd());
  EXPECT_THROW(it.checkRecord(), CVEM_Exception);
}

}  // namespace
