// What the agent makes of the AgentX master's answer to a registration:
// the error code in Net-SNMP's log line, its name, and the message.
#include "host/agent/agentx_registration.h"

#include <gtest/gtest.h>

namespace zerva_agent {
namespace {

TEST(AgentxRegistrationTest, RefusalCodeIsReadFromNetSnmpsLogLine) {
  long code = 0;
  EXPECT_TRUE(ParseAgentxRefusal("registering pdu failed: 263!", &code));
  EXPECT_EQ(263, code);
  EXPECT_TRUE(ParseAgentxRefusal("registering pdu failed: 267!\n", &code));
  EXPECT_EQ(267, code);
}

TEST(AgentxRegistrationTest, OtherLogLinesAreNoRefusal) {
  long code = 0;
  for (const char* line : {"", "registering pdu failed: !", "registering pdu failed: 0!",
                           "NET-SNMP version 5.9.3 AgentX subagent connected", "registering failed!"}) {
    EXPECT_FALSE(ParseAgentxRefusal(line, &code)) << line;
  }
  EXPECT_EQ(0, code);
}

TEST(AgentxRegistrationTest, ErrorCodesAreNamedAsInRfc2741) {
  EXPECT_EQ("openFailed (256)", AgentxErrorText(256));
  EXPECT_EQ("duplicateRegistration (263)", AgentxErrorText(263));
  EXPECT_EQ("requestDenied (267)", AgentxErrorText(267));
  EXPECT_EQ("processingError (268)", AgentxErrorText(268));
  EXPECT_EQ("error 269", AgentxErrorText(269));
  EXPECT_EQ("error 5", AgentxErrorText(5));
}

TEST(AgentxRegistrationTest, DuplicateRegistrationSuggestsAnotherAgent) {
  EXPECT_EQ(
      "cannot register vemPerfSwitch 1.3.6.1.4.1.32473.4.1.21.1 at the AgentX master: duplicateRegistration (263) "
      "(another agent serves it?)",
      AgentxRefusalMessage("vemPerfSwitch 1.3.6.1.4.1.32473.4.1.21.1", AgentxErrorText(263)));
  EXPECT_EQ("cannot register x at the AgentX master: requestDenied (267)",
            AgentxRefusalMessage("x", AgentxErrorText(267)));
}

TEST(AgentxRegistrationTest, NoSessionOutsideAnAgentxSubAgent) {
  // No Net-SNMP agent is set up in this process.
  EXPECT_FALSE(AgentxSessionOpen());
}

}  // namespace
}  // namespace zerva_agent
