#include "host/agent/agent_log.h"

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// clang-format on

#include <syslog.h>

#include <chrono>
#include <memory>

#include "vempub/vem_ace_log_route.h"
#include "vempub/vem_log_folding.h"

namespace zerva_agent {

namespace {

// The folding sink installed by ConfigureAgentLog, for FlushAgentLog.
std::mutex g_mu;
std::shared_ptr<CVEMFoldingSink> g_folding;

// True while this thread is inside SnmpLogSink::write: a Net-SNMP log
// handler that leads back to the kits must not loop.
thread_local bool t_inSnmpLog = false;

}  // namespace

int SnmpLogSink::Priority(EVEMLogLevel level) {
  switch (level) {
    case VEM_LOG_ERROR:
      return LOG_ERR;
    case VEM_LOG_WARN:
      return LOG_WARNING;
    default:
      return LOG_DEBUG;
  }
}

void SnmpLogSink::write(const CVEMLogRecord& record) {
  if (t_inSnmpLog) return;
  std::string line = VEMFormatLogRecord(record);
  // Net-SNMP stamps its lines itself when told to: drop our date and time
  // (27 characters, with the blank).
  const size_t stampLen = 27;
  if (netsnmp_ds_get_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_LOG_TIMESTAMP) && line.size() > stampLen) {
    line.erase(0, stampLen);
  }
  // snmpd answers in one thread, but the embedded simulator and ACE may log
  // from others; Net-SNMP's log handlers are not made for that.
  std::lock_guard<std::mutex> lock(mu_);
  t_inSnmpLog = true;
  snmp_log(Priority(record.level), "%s\n", line.c_str());
  t_inSnmpLog = false;
}

bool ConfigureAgentLog(const AgentOptions& options, bool logToStderr, LogHome home, std::string* error) {
  CVEMDebugKitMgr* kits = CVEMDebugKitMgrSingleton::instance();

  std::shared_ptr<IVEMLogSink> sink;
  std::string destination;
  if (logToStderr) {
    sink = std::make_shared<CVEMStderrSink>();
  } else if (!options.logFile.empty()) {
    auto file = std::make_shared<CVEMFileSink>(options.logFile);
    if (!file->ok()) {
      *error = "cannot log to file:" + options.logFile + ": cannot open log file " + options.logFile;
      return false;
    }
    sink = file;
  } else if (options.syslog || home == LogHome::kSyslog) {
    sink = std::make_shared<CVEMSyslogSink>("zerva-snmp-agent");
  } else if (home == LogHome::kSnmpLog) {
    sink = std::make_shared<SnmpLogSink>();
  } else {
    sink = std::make_shared<CVEMStderrSink>();
  }

  std::shared_ptr<CVEMFoldingSink> folding;
  if (options.logFoldSeconds != 0) {
    folding = std::make_shared<CVEMFoldingSink>(sink, std::chrono::seconds(options.logFoldSeconds));
    sink = folding;
  }

  kits->setLevel(options.logLevel);
  for (const auto& kit : options.kitLogLevels) kits->setLevel(kit.first, kit.second);

  std::shared_ptr<CVEMFoldingSink> previous;
  {
    std::lock_guard<std::mutex> lock(g_mu);
    previous.swap(g_folding);
    g_folding = folding;
  }
  kits->setSink(sink);
  // What the previous sink still counted goes where it was going.
  if (previous) previous->flushAll();

  VEMRouteAceLog(VEM_KIT_ACE);
  return true;
}

void FlushAgentLog() {
  std::shared_ptr<CVEMFoldingSink> folding;
  {
    std::lock_guard<std::mutex> lock(g_mu);
    folding = g_folding;
  }
  if (folding) folding->flush();
}

void CloseAgentLog() {
  std::shared_ptr<CVEMFoldingSink> folding;
  {
    std::lock_guard<std::mutex> lock(g_mu);
    folding.swap(g_folding);
  }
  CVEMDebugKitMgr* kits = CVEMDebugKitMgrSingleton::instance();
  if (folding) {
    folding->flushAll();
    // Lines after this (Net-SNMP's shutdown) go where they went, unfolded.
    if (kits->sink() == folding) kits->setSink(folding->inner());
  }
  VEMUnrouteAceLog();
  // A sink of this library must not outlive it in the manager.
  if (dynamic_cast<SnmpLogSink*>(kits->sink().get()) != nullptr) kits->setSink(nullptr);
}

}  // namespace zerva_agent
