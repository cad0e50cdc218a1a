#include "snmpcommon/snmp_configuration.h"

#include <gtest/gtest.h>

#include "snmpcommon/snmp_read_failures.h"

#include "tests/support/fake_backend.h"
#include "tests/support/kit_log_capture.h"

namespace {

using zerva_test::Answer;
using zerva_test::FakeBackend;
using zerva_test::KitLogCapture;
using zerva_test::Rec;

TEST(ConfigurationTest, WithoutATransportRequestsAreRefusedAndLogged) {
  KitLogCapture log;
  auto previous = CSNMP_Configuration::instance()->setTransport(nullptr);
  CTLVPackage req, rsp;
  req.push_back(Rec(0x42).build());
  EXPECT_EQ(CSNMP_Configuration::instance()->configure(req, rsp, false), SNMP_TRANSPORT_E_NOT_CONFIGURED);
  auto errors = log.records(VEM_LOG_ERROR);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].kitNo, 1u);
  EXPECT_EQ(errors[0].message, "no back end configured, request 0x42 refused");
  CSNMP_Configuration::instance()->setTransport(previous);
}

TEST(ConfigurationTest, CarriesTheRequestAndTheFlagToTheTransportAndItsCodeBack) {
  auto fake = std::make_shared<FakeBackend>();
  auto previous = CSNMP_Configuration::instance()->setTransport(fake);
  fake->push(Answer{Rec(7).u32(0, 1)});
  fake->push(Answer(1077949460));
  CTLVPackage req, rsp, rsp2;
  req.push_back(Rec(0xD0000C000ULL).t6(0, 213).build());
  EXPECT_EQ(CSNMP_Configuration::instance()->configure(req, rsp, true), 0);
  ASSERT_EQ(rsp.size(), 1u);
  EXPECT_EQ(rsp[0]->id(), 7u);
  EXPECT_EQ(CSNMP_Configuration::instance()->configure(req, rsp2, false), 1077949460);
  auto calls = fake->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_TRUE(calls[0].listing);
  EXPECT_FALSE(calls[1].listing);
  EXPECT_EQ(calls[0].id(), 0xD0000C000ULL);
  CSNMP_Configuration::instance()->setTransport(previous);
}

TEST(ConfigurationTest, CountsTheCallsThatEndedWithATransportCode) {
  auto fake = std::make_shared<FakeBackend>();
  auto previous = CSNMP_Configuration::instance()->setTransport(fake);
  CSNMP_Configuration* config = CSNMP_Configuration::instance();
  const uint64_t before = config->transportFailures();
  fake->push(Answer{Rec(7).u32(0, 1)});
  fake->push(Answer(0x53494D05));  // the back end's own refusal
  fake->push(Answer(SNMP_TRANSPORT_E_TIMEOUT));
  CTLVPackage req;
  req.push_back(Rec(0x42).build());
  for (int i = 0; i < 3; ++i) {
    CTLVPackage rsp;
    config->configure(req, rsp, false);
  }
  EXPECT_EQ(before + 1, config->transportFailures());
  config->setTransport(nullptr);
  CTLVPackage rsp;
  EXPECT_EQ(SNMP_TRANSPORT_E_NOT_CONFIGURED, config->configure(req, rsp, false));
  EXPECT_EQ(before + 2, config->transportFailures());
  config->setTransport(previous);
}

TEST(ConfigurationTest, CountsEveryNonZeroResultAsAFailedRead) {
  auto fake = std::make_shared<FakeBackend>();
  auto previous = CSNMP_Configuration::instance()->setTransport(fake);
  CSNMP_Configuration* config = CSNMP_Configuration::instance();
  const uint64_t calls = CSnmpReadFailures::failedCalls();
  const uint64_t texts = CSnmpReadFailures::refusedTexts();
  const uint64_t all = CSnmpReadFailures::count();
  fake->push(Answer{Rec(7).u32(0, 1)});
  fake->push(Answer(0x53494D05));  // the back end's own refusal
  fake->push(Answer(-1));
  fake->push(Answer(SNMP_TRANSPORT_E_TIMEOUT));
  fake->push(Answer{Rec(7).u32(0, 0)});
  CTLVPackage req;
  req.push_back(Rec(0x42).build());
  for (int i = 0; i < 5; ++i) {
    CTLVPackage rsp;
    config->configure(req, rsp, false);
  }
  EXPECT_EQ(calls + 3, CSnmpReadFailures::failedCalls());
  EXPECT_EQ(SNMP_TRANSPORT_E_TIMEOUT, CSnmpReadFailures::lastFailedResult());  // a success after it changes nothing
  config->setTransport(nullptr);
  CTLVPackage rsp;
  EXPECT_EQ(SNMP_TRANSPORT_E_NOT_CONFIGURED, config->configure(req, rsp, false));
  EXPECT_EQ(calls + 4, CSnmpReadFailures::failedCalls());
  EXPECT_EQ(SNMP_TRANSPORT_E_NOT_CONFIGURED, CSnmpReadFailures::lastFailedResult());
  EXPECT_EQ(texts, CSnmpReadFailures::refusedTexts());
  EXPECT_EQ(all + 4, CSnmpReadFailures::count());
  config->setTransport(previous);
}

TEST(ConfigurationTest, TransportCodesAreTheirOwnRange) {
  EXPECT_TRUE(IsSnmpTransportError(SNMP_TRANSPORT_E_TIMEOUT));
  EXPECT_FALSE(IsSnmpTransportError(0));
  EXPECT_FALSE(IsSnmpTransportError(-1));
  EXPECT_FALSE(IsSnmpTransportError(5));
  EXPECT_STREQ(SnmpTransportErrorText(SNMP_TRANSPORT_E_TIMEOUT), "back end timed out");
  EXPECT_STREQ(SnmpTransportErrorText(5), "");
}

}  // namespace
