// What the agent makes of the AgentX master's answer to a registration:
// the error code in Net-SNMP's log line, its name, and the message. And the
// callbacks behind the watcher of those answers: registered once, switched
// without changing Net-SNMP's callback lists.
#include "host/agent/agentx_registration.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zerva_agent {
namespace {

// The callbacks Net-SNMP runs for a local registration (no agent is set up
// in this process: only the library's callback lists are used).
int RegistrationCallbacks() { return snmp_count_callbacks(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID); }

void IgnoreAnswer(netsnmp_handler_registration*, bool, const std::string&) {}

// Net-SNMP's log lines while a test runs.
std::vector<std::string>* g_netSnmpLog = nullptr;

int CaptureNetSnmpLog(int, int, void* serverarg, void*) {
  auto* message = static_cast<struct snmp_log_message*>(serverarg);
  if (g_netSnmpLog != nullptr && message != nullptr && message->msg != nullptr) g_netSnmpLog->push_back(message->msg);
  return 0;
}

// A registration callback that stops the watcher, as an agent whose module
// goes while Net-SNMP runs through those callbacks would.
int StopWatching(int, int, void*, void*) {
  WatchAgentxRegistrations(nullptr);
  return 0;
}

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

TEST(AgentxRegistrationTest, WatcherIsSwitchedWithoutChangingNetSnmpsCallbacks) {
  const int before = RegistrationCallbacks();
  WatchAgentxRegistrations(IgnoreAnswer);
  const int watching = RegistrationCallbacks();
  EXPECT_EQ(before + 2, watching);  // before and after Net-SNMP's AgentX registration
  WatchAgentxRegistrations(nullptr);
  EXPECT_EQ(watching, RegistrationCallbacks());
  WatchAgentxRegistrations(IgnoreAnswer);
  EXPECT_EQ(watching, RegistrationCallbacks());
  WatchAgentxRegistrations(nullptr);
  RemoveAgentxHooks();
  EXPECT_EQ(before, RegistrationCallbacks());
}

TEST(AgentxRegistrationTest, WatcherStopsFromInsideNetSnmpsRegistrationCallbacks) {
  std::vector<std::string> log;
  g_netSnmpLog = &log;
  netsnmp_log_handler* handler = netsnmp_register_loghandler(NETSNMP_LOGHANDLER_CALLBACK, LOG_DEBUG);
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, CaptureNetSnmpLog, nullptr);
  WatchAgentxRegistrations(IgnoreAnswer);
  snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, StopWatching, nullptr);

  // A list Net-SNMP runs through is changed only after a wait for it to end
  // (which cannot end: the change comes from inside), and logged so.
  snmp_call_callbacks(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, nullptr);

  snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, StopWatching, nullptr, 0);
  RemoveAgentxHooks();
  snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, CaptureNetSnmpLog, nullptr, 0);
  if (handler != nullptr) netsnmp_remove_loghandler(handler);
  g_netSnmpLog = nullptr;
  for (const std::string& line : log) EXPECT_EQ(std::string::npos, line.find("_callback_lock")) << line;
}

}  // namespace
}  // namespace zerva_agent
