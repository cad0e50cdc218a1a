#include "tests/process/snmp_message.h"

namespace zerva_test {

std::string BerTlv(unsigned char tag, const std::string& body) {
  std::string out(1, static_cast<char>(tag));
  const size_t n = body.size();
  if (n < 0x80) {
    out += static_cast<char>(n);
  } else if (n < 0x100) {
    out += '\x81';
    out += static_cast<char>(n);
  } else {
    out += '\x82';
    out += static_cast<char>(n >> 8);
    out += static_cast<char>(n & 0xFF);
  }
  return out + body;
}

std::string BerInteger(long value) {
  std::string bytes;
  for (int i = 7; i >= 0; --i) bytes += static_cast<char>((static_cast<unsigned long>(value) >> (8 * i)) & 0xFF);
  // Shortest two's complement form.
  while (bytes.size() > 1 &&
         ((bytes[0] == 0 && (bytes[1] & 0x80) == 0) || (bytes[0] == '\xFF' && (bytes[1] & 0x80) != 0))) {
    bytes.erase(0, 1);
  }
  return BerTlv(0x02, bytes);
}

std::string BerObjectId(const Oid& oid) {
  std::string body(1, static_cast<char>(oid[0] * 40 + oid[1]));
  for (size_t i = 2; i < oid.size(); ++i) {
    std::string part(1, static_cast<char>(oid[i] & 0x7F));
    for (unsigned long v = oid[i] >> 7; v != 0; v >>= 7) part.insert(0, 1, static_cast<char>(0x80 | (v & 0x7F)));
    body += part;
  }
  return BerTlv(0x06, body);
}

std::string SnmpV2cRequest(unsigned char pduTag, const std::string& community, long requestId, const Oid& oid) {
  const std::string varbind = BerTlv(0x30, BerObjectId(oid) + std::string("\x05\x00", 2));
  const std::string pdu = BerTlv(pduTag, BerInteger(requestId) + BerInteger(0) + BerInteger(0) + BerTlv(0x30, varbind));
  return BerTlv(0x30, BerInteger(1) + BerTlv(0x04, community) + pdu);
}

}  // namespace zerva_test
