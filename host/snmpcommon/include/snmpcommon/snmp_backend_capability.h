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
// A good answer is remembered for the life of the object and the back end is
// never asked again. A failed query (no command code, transport failure,
// non-zero result, malformed answer) is logged once on kit 1, every feature
// reads as unsupported for that call, and the next call asks again.
#ifndef ZERVA_SNMPCOMMON_SNMP_BACKEND_CAPABILITY_H_
#define ZERVA_SNMPCOMMON_SNMP_BACKEND_CAPABILITY_H_

#include <mutex>
#include <set>

#include "snmpcommon/snmp_capability.h"

// Name of the capability command in the device configuration.
extern const char kSnmpFeaturesCommand[];  // "GET_SNMP_FEATURES"

class CBackendCapabilitySource : public ISnmpCapabilitySource {
 public:
  CBackendCapabilitySource() {}
  CBackendCapabilitySource(const CBackendCapabilitySource&) = delete;
  CBackendCapabilitySource& operator=(const CBackendCapabilitySource&) = delete;

  // True when the back end lists the feature. Thread-safe: concurrent first
  // calls share one query.
  bool supports(int feature) override;

  // True once the back end has answered (its list is then fixed).
  bool answered() const;

 private:
  // Asks the back end. Returns true and fills *features on a good answer;
  // logs and returns false otherwise. REQUIRES: mu_ is held.
  bool query_i(std::set<int>* features);

  mutable std::mutex mu_;
  bool answered_ = false;
  std::set<int> features_;
};

#endif  // ZERVA_SNMPCOMMON_SNMP_BACKEND_CAPABILITY_H_
