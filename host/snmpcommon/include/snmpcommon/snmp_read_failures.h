// CSnmpReadFailures: what went wrong, so far in this process, while the
// handlers read the management back end, whether or not the handler's own
// result shows it.
//
// A handler may turn a failure into an answer of its own: a switch query
// that fails reads as "collection off" (an empty table, result 0); a port or
// file system whose statistics the back end refuses, or whose value text is
// no number list, loses its row and the table answers the rest. The host
// counts every such event here, where it sees them:
//  - failed calls: CSNMP_Configuration::configure returned non-zero, a
//    transport code or the back end's own result code alike;
//  - refused texts: SplitToUint refused a text (the handlers parse the back
//    end's value lists with it).
// A caller that reads count() before and after one handler call learns
// whether that call met a failure, whatever the handler answered. The
// counts only grow. They are thread-safe, but the comparison is only
// meaningful while nothing else reads the back end meanwhile (the agent
// answers its requests on one thread).
#ifndef ZERVA_SNMPCOMMON_SNMP_READ_FAILURES_H_
#define ZERVA_SNMPCOMMON_SNMP_READ_FAILURES_H_

#include <cstdint>

class CSnmpReadFailures {
 public:
  // Failed calls plus refused texts.
  static uint64_t count();
  // configure calls that returned non-zero.
  static uint64_t failedCalls();
  // Texts SplitToUint refused.
  static uint64_t refusedTexts();
  // The result of the last failed call (0 before the first).
  static int lastFailedResult();

  // Notes one call that returned result, non-zero
  // (CSNMP_Configuration::configure does).
  static void noteFailedCall(int result);
  // Notes one refused text (SplitToUint does).
  static void noteRefusedText();
};

#endif  // ZERVA_SNMPCOMMON_SNMP_READ_FAILURES_H_
