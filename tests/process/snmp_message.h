// SNMPv2c request messages encoded by hand (BER), for tests that send
// datagrams of their own: floods without waiting for answers, mangled
// copies of good requests.
#ifndef ZERVA_TESTS_PROCESS_SNMP_MESSAGE_H_
#define ZERVA_TESTS_PROCESS_SNMP_MESSAGE_H_

#include <string>

#include "tests/process/process_harness.h"

namespace zerva_test {

// One BER element: tag, definite length (short form, or 0x81/0x82 long
// form), body. REQUIRES: body.size() < 65536.
std::string BerTlv(unsigned char tag, const std::string& body);
// An INTEGER in its shortest two's complement form.
std::string BerInteger(long value);
// An OBJECT IDENTIFIER. REQUIRES: oid has at least two sub-identifiers.
std::string BerObjectId(const Oid& oid);

// An SNMPv2c request of one OID with a NULL value: pduTag 0xA0 for a
// GetRequest, 0xA1 for a GetNextRequest.
std::string SnmpV2cRequest(unsigned char pduTag, const std::string& community, long requestId, const Oid& oid);

}  // namespace zerva_test

#endif  // ZERVA_TESTS_PROCESS_SNMP_MESSAGE_H_
