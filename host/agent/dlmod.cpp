// zerva_snmp_dlmod: the agent as a module of a stock snmpd.
//
//   dlmod zerva_snmp_dlmod /path/libzerva_snmp_dlmod.so
//   zervaBackend embedded          # our tokens come after the dlmod line
//
// init_zerva_snmp_dlmod registers our configuration tokens; once snmpd has
// read its configuration the module, the back end and the handlers start.
// deinit_zerva_snmp_dlmod (snmpd's shutdown or "dlmod" unload) tears all of
// it down again. The library never calls ACE::init()/ACE::fini().
//
// Every line of the module and the host goes to snmpd's own log through
// snmp_log (zervaLogFile and zervaSyslog choose otherwise), ACE's log
// included; folded lines are summarised by a one-second snmpd alarm.

#include <memory>
#include <string>
#include <vector>

#include "host/agent/agent_log.h"
#include "host/agent/agent_runtime.h"
#include "host/agent/netsnmp_bridge.h"

// Net-SNMP's headers define short macros (ACTION, FREE, ...): they come last.
// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
// clang-format on

namespace {

struct DlmodState {
  zerva_agent::AgentOptions options;
  std::vector<std::string> tokenErrors;
  zerva_agent::AgentRuntime runtime;
  std::string appType;
  bool started = false;
  unsigned int flushAlarm = 0;
};

DlmodState* g_state = nullptr;

void FlushLog(unsigned int, void*) { zerva_agent::FlushAgentLog(); }

int StartAfterConfig(int, int, void*, void*) {
  if (g_state == nullptr || g_state->started) return 0;
  std::string error;
  if (!g_state->tokenErrors.empty()) {
    snmp_log(LOG_ERR, "zerva_snmp_dlmod: configuration errors, not serving\n");
    return 0;
  }
  if (!zerva_agent::ConfigureAgentLog(g_state->options, false, zerva_agent::LogHome::kSnmpLog, &error) ||
      !g_state->runtime.start(g_state->options, "the agent of " + g_state->appType, &error)) {
    snmp_log(LOG_ERR, "zerva_snmp_dlmod: %s\n", error.c_str());
    return 0;
  }
  g_state->started = true;
  return 0;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void init_zerva_snmp_dlmod(void) {
  if (g_state != nullptr) return;
  g_state = new DlmodState;
  const char* app = netsnmp_ds_get_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_APPTYPE);
  g_state->appType = app != nullptr ? app : "snmpd";
  // snmpd's log from the start, until the configuration says otherwise.
  std::string error;
  zerva_agent::ConfigureAgentLog(g_state->options, false, zerva_agent::LogHome::kSnmpLog, &error);
  g_state->flushAlarm = snmp_alarm_register(1, SA_REPEAT, FlushLog, nullptr);
  zerva_agent::RegisterAgentTokens(g_state->appType.c_str(), &g_state->options, &g_state->tokenErrors);
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, StartAfterConfig, nullptr);
}

extern "C" __attribute__((visibility("default"))) void deinit_zerva_snmp_dlmod(void) {
  if (g_state == nullptr) return;
  snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, StartAfterConfig, nullptr, 1);
  if (g_state->flushAlarm != 0) snmp_alarm_unregister(g_state->flushAlarm);
  g_state->runtime.stop();
  zerva_agent::UnregisterAgentTokens(g_state->appType.c_str());
  zerva_agent::CloseAgentLog();
  delete g_state;
  g_state = nullptr;
}
