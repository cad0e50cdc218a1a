// Where the agent's log goes: the debug kits' level per kit, their
// destination, the folding of repeated lines, and ACE's log (the TLV
// codec's errors) routed into the kits.
//
// The program logs to stderr unless configured otherwise (to syslog once
// it has gone to the background); loaded into a
// stock snmpd (dlmod) every line goes to snmpd's own log through snmp_log,
// so snmpd's -Lf FILE, -Ls or syslog set-up gets it, and nothing goes to
// stderr. zervaLogFile and zervaSyslog override either default.
#ifndef ZERVA_AGENT_AGENT_LOG_H_
#define ZERVA_AGENT_AGENT_LOG_H_

#include <mutex>
#include <string>

#include "host/agent/agent_options.h"
#include "vempub/vem_debug_kit.h"

namespace zerva_agent {

// The destination when neither -L, zervaLogFile nor zervaSyslog chooses one.
enum class LogHome {
  kStderr,   // the zerva-snmp-agent program in the foreground
  kSnmpLog,  // the dlmod module: snmpd's log
  kSyslog,   // the zerva-snmp-agent program in the background: syslog, facility daemon
};

// Writes records through Net-SNMP's snmp_log with the matching priority
// (error: LOG_ERR, warn: LOG_WARNING, debug and trace: LOG_DEBUG). The time
// stamp is left out when Net-SNMP stamps lines itself (logTimestamp).
class SnmpLogSink : public IVEMLogSink {
 public:
  void write(const CVEMLogRecord& record) override;

  // The syslog priority of a level.
  static int Priority(EVEMLogLevel level);

 private:
  std::mutex mu_;
};

// Sets the kits' levels (zervaLogLevel, then each zervaKitLogLevel), their
// destination (-L: stderr; else zervaLogFile, zervaSyslog, else `home`),
// folding (zervaLogFoldSeconds; 0: every line as it comes), and routes
// ACE's log into kit 3. Pending folded lines of the previous configuration
// are written first. False with *error for a log file that cannot be
// opened (the previous destination stays).
bool ConfigureAgentLog(const AgentOptions& options, bool logToStderr, LogHome home, std::string* error);

// Writes the summaries of fold windows that have ended; the program and the
// dlmod module call it about once a second.
void FlushAgentLog();

// At shutdown or unload: writes every pending summary, gives ACE its own
// log back, and leaves the kits writing to their destination unfolded, or
// to stderr instead of snmpd's log (nothing may be left pointing into a
// library about to be unloaded).
void CloseAgentLog();

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_AGENT_LOG_H_
