// Wrong SNMPv3 credentials get nothing from the agent and change nothing on
// the array: a wrong authentication or privacy passphrase, an unknown user
// or too low a security level. Where the agent can tell, the refusal is its
// USM report (which a manager can tell from a lost packet), not a timeout.
// (Wrong communities: tests/fault/agent_bad_input_test.cpp.)
#include <gtest/gtest.h>

#include <string>

#include "tests/e2e/e2e_support.h"

namespace zerva_e2e {
namespace {

// Requests meant to go unanswered wait one second, once.
const char kShortWait[] = " -t 1 -r 0";

class AccessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    AgentUnderTest::Options options = SmallArray();
    options.extraConfig += kV3UserConfig;
    std::string error;
    ASSERT_TRUE(agent_.start(options, &error)) << error;
    switch_ = SwitchOid();
    // The right credentials work: the refusals below are about credentials.
    const ParsedWalk got = ParseWalk(Tool(agent_, "snmpget", kV3Auth, OidText(switch_)));
    ASSERT_EQ(1u, got.lines.size());
    ASSERT_EQ("1", got.lines[0].value.value);
  }

  // A GET and a SET (switch off) with these credentials: neither gives
  // data, the array's switch stays on and no write reaches it. The clients'
  // output of both, for the caller's checks.
  std::string expectRefused(const std::string& auth) {
    int rc = 0;
    const std::string get = Tool(agent_, "snmpget", auth, OidText(switch_), &rc);
    EXPECT_NE(0, rc) << get;
    EXPECT_TRUE(ParseWalk(get).lines.empty()) << get;
    const std::string set = Tool(agent_, "snmpset", auth, OidText(switch_) + " u 0", &rc);
    EXPECT_NE(0, rc) << set;
    EXPECT_TRUE(ParseWalk(set).lines.empty()) << set;
    EXPECT_EQ(1u, agent_.array().switchState());
    EXPECT_EQ(0u, agent_.requests(agent_.array().codes().setSwitch));
    return get + set;
  }

  AgentUnderTest agent_;
  Oid switch_;
};

TEST_F(AccessTest, V3WrongAuthenticationPassphraseIsRefused) {
  for (const char* auth : {"-v3 -l authPriv -u e2euser -a SHA -A not-the-passphrase -x AES -X e2e-priv-passphrase",
                           "-v3 -l authNoPriv -u e2euser -a SHA -A not-the-passphrase"}) {
    const std::string out = expectRefused(std::string(auth) + kShortWait);
    EXPECT_NE(std::string::npos, out.find("Authentication failure")) << auth << ": " << out;
    EXPECT_EQ(std::string::npos, out.find("Timeout")) << auth << ": " << out;
  }
}

TEST_F(AccessTest, V3UnknownUserIsRefused) {
  const std::string out = expectRefused(
      std::string("-v3 -l authPriv -u nobody -a SHA -A e2e-auth-passphrase -x AES -X e2e-priv-passphrase") +
      kShortWait);
  EXPECT_NE(std::string::npos, out.find("Unknown user name")) << out;
  EXPECT_EQ(std::string::npos, out.find("Timeout")) << out;
}

TEST_F(AccessTest, V3WrongPrivacyPassphraseGetsNoAnswer) {
  // The agent cannot decrypt the scoped PDU and answers nothing.
  const std::string out = expectRefused(
      std::string("-v3 -l authPriv -u e2euser -a SHA -A e2e-auth-passphrase -x AES -X not-the-priv-phrase") +
      kShortWait);
  EXPECT_NE(std::string::npos, out.find("Timeout")) << out;
}

TEST_F(AccessTest, V3BelowTheUsersSecurityLevelIsRefused) {
  // The user is authorised for authPriv only; authNoPriv with the right key
  // authenticates but gets no access.
  const std::string out = expectRefused("-v3 -l authNoPriv -u e2euser -a SHA -A e2e-auth-passphrase");
  EXPECT_NE(std::string::npos, out.find("authorizationError")) << out;
}

}  // namespace
}  // namespace zerva_e2e
