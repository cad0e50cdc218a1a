// CBackendCapabilitySource: the array's capability list, asked of the
// management back end.
//
// The first question sends the command "GET_SNMP_FEATURES" (its record
// identifier is the code of that name in section "COMMAND" of the device
// configuration) through CSNMP_Configuration::instance()->configure(req, rsp,
// false). The request is one record with that identifier and no cells. The
// answer carries result 0 and one record per supported feature, each holding
// one cell: tag 0, type 3 (unsigned), 4 bytes, the feature number; no records
// means no feature is supported.
//
// A good answer is kept: later
// questions are answered from it without asking again, until askAgain()
// asks anew (the agent does while no answer has come, and when the back
// end's connection was re-established) and a good answer replaces it. A
// failed query (no command code, transport failure, non-zero result,
// malformed answer) is logged once on kit 1. Until the first good answer
// every feature reads as unsupported and the next question asks again;
// after it, a failed askAgain() leaves the kept list as it was.
//
// Every question is recorded with the answer it got (asked()): the agent
// compares those answers with a new list to learn whether the list changes
// what the module was built with.
#ifndef ZERVA_SNMPCOMMON_SNMP_BACKEND_CAPABILITY_H_
#define ZERVA_SNMPCOMMON_SNMP_BACKEND_CAPABILITY_H_

#include <map>
#include <mutex>
#include <set>

#include "snmpcommon/snmp_capability.h"

// Name of the capability command in the device configuration.
extern const char kSnmpFeaturesCommand[];  // "GET_SNMP_FEATURES"

// The questions asked of a capability source and its answers.
struct CSnmpAskedFeatures {
  // Each feature asked, and the answer its last question got.
  std::map<int, bool> answers;
  // A question was answered "unsupported" because the back end had not
  // answered with a list.
  bool unanswered = false;
};

class CBackendCapabilitySource : public ISnmpCapabilitySource {
 public:
  CBackendCapabilitySource() {}
  CBackendCapabilitySource(const CBackendCapabilitySource&) = delete;
  CBackendCapabilitySource& operator=(const CBackendCapabilitySource&) = delete;

  // True when the back end lists the feature. Thread-safe: concurrent first
  // calls share one query. The question and its answer are recorded.
  bool supports(int feature) override;

  // True once the back end has answered.
  bool answered() const;
  // The kept list (empty until answered()).
  std::set<int> features() const;

  // Asks the back end now, whether it has answered before or not. A good
  // answer replaces the kept list: true. A failed query is logged and leaves
  // the kept list (or the lack of one) as it was: false.
  bool askAgain();

  // The questions since construction or the last clearAsked(), with their
  // answers.
  CSnmpAskedFeatures asked() const;
  void clearAsked();

 private:
  // Asks the back end. Returns true and fills *features on a good answer;
  // logs and returns false otherwise. REQUIRES: mu_ is held.
  bool query_i(std::set<int>* features);

  mutable std::mutex mu_;
  bool answered_ = false;
  std::set<int> features_;
  CSnmpAskedFeatures asked_;
};

#endif  // ZERVA_SNMPCOMMON_SNMP_BACKEND_CAPABILITY_H_
