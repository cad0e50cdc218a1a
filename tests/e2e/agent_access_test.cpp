// Wrong credentials get nothing from the agent and change nothing on the
// array: SNMPv3 with a wrong authentication or privacy passphrase, an
// unknown user or too low a security level; v2c with a wrong community.
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
    SimAgent::Options options;
    options.extraConfig = kV3UserConfig;
    std::string error;
    ASSERT_TRUE(agent_.start(options, &error)) << error;
    switch_ = Mib().objects.front().oid;
    switch_.push_back(0);
    // The right credentials work: the refusals below are about credentials.
    const ParsedWalk got = ParseWalk(agent_.tool("snmpget", kV3Auth, OidText(switch_)));
    ASSERT_EQ(1u, got.lines.size());
    ASSERT_EQ("1", got.lines[0].value.value);
  }

  // A GET and a SET (switch off) with these credentials: neither gives
  // data, the array's switch stays on and no write reaches it. The clients'
  // output of both, for the caller's checks.
  std::string expectRefused(const std::string& auth) {
    int rc = 0;
    const std::string get = agent_.tool("snmpget", auth, OidText(switch_), &rc);
    EXPECT_NE(0, rc) << get;
    EXPECT_TRUE(ParseWalk(get).lines.empty()) << get;
    const std::string set = agent_.tool("snmpset", auth, OidText(switch_) + " u 0", &rc);
    EXPECT_NE(0, rc) << set;
    EXPECT_TRUE(ParseWalk(set).lines.empty()) << set;
    EXPECT_EQ(1u, agent_.array().switchState());
    EXPECT_EQ(0u, agent_.count(agent_.array().codes().setSwitch));
    return get + set;
  }

  SimAgent agent_;
  Oid switch_;
};

TEST_F(AccessTest, V3WrongAuthenticationPassphraseIsRefused) {
  const std::string out =
      expectRefused("-v3 -l authPriv -u e2euser -a SHA -A not-the-passphrase -x AES -X e2e-priv-passphrase");
  EXPECT_NE(std::string::npos, out.find("Authentication failure")) << out;
}

TEST_F(AccessTest, V3UnknownUserIsRefused) {
  const std::string out =
      expectRefused("-v3 -l authPriv -u nobody -a SHA -A e2e-auth-passphrase -x AES -X e2e-priv-passphrase");
  EXPECT_NE(std::string::npos, out.find("Unknown user name")) << out;
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

TEST_F(AccessTest, WrongCommunityGetsNoAnswerAndTheRightOneDoes) {
  const std::string out = expectRefused(std::string("-v2c -c not-public") + kShortWait);
  EXPECT_NE(std::string::npos, out.find("Timeout")) << out;
  const ParsedWalk right = ParseWalk(agent_.tool("snmpget", kReadCommunity, OidText(switch_)));
  ASSERT_EQ(1u, right.lines.size());
  EXPECT_EQ((Value{"Gauge32", "1"}), right.lines[0].value);
}

}  // namespace
}  // namespace zerva_e2e
