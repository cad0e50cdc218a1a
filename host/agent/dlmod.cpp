// zerva_snmp_dlmod: the agent as a module of a stock snmpd.
//
//   dlmod zerva_snmp_dlmod /path/libzerva_snmp_dlmod.so
//   zervaBackend embedded          # our tokens come after the dlmod line
//
// init_zerva_snmp_dlmod registers our configuration tokens; once snmpd has
// read its configuration the module, the back end and the handlers start.
// deinit_zerva_snmp_dlmod (snmpd's shutdown or "dlmod" unload) tears all of
// it down again. The library never touches ACE's process-wide set-up.

#include <memory>
#include <string>
#include <vector>

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
};

DlmodState* g_state = nullptr;

int StartAfterConfig(int, int, void*, void*) {
  if (g_state == nullptr || g_state->started) return 0;
  std::string error;
  if (!g_state->tokenErrors.empty()) {
    snmp_log(LOG_ERR, "zerva_snmp_dlmod: configuration errors, not serving\n");
    return 0;
  }
  if (!zerva_agent::ConfigureLogging(g_state->options, false, &error) ||
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
  zerva_agent::RegisterAgentTokens(g_state->appType.c_str(), &g_state->options, &g_state->tokenErrors);
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, StartAfterConfig, nullptr);
}

extern "C" __attribute__((visibility("default"))) void deinit_zerva_snmp_dlmod(void) {
  if (g_state == nullptr) return;
  snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, StartAfterConfig, nullptr, 1);
  g_state->runtime.stop();
  zerva_agent::UnregisterAgentTokens(g_state->appType.c_str());
  delete g_state;
  g_state = nullptr;
}
