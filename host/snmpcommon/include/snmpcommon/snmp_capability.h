// The host's capability query: does the storage array support a feature?
//
// checkOidFeatureSurport asks the installed capability source. With no source
// installed every feature reads as unsupported.
#ifndef ZERVA_SNMPCOMMON_SNMP_CAPABILITY_H_
#define ZERVA_SNMPCOMMON_SNMP_CAPABILITY_H_

#include <memory>
#include <set>

// Feature numbers of the array's capability list that the host knows.
enum tagSNMP_FEATURE_TYPE_E {
  SNMP_FEATURE_NFS = 48,              // NFS file service: the NFSv3, NFSv4 and NFSv4.1 tables
  SNMP_FEATURE_CIFS = 49,             // SMB/CIFS file service: the SMBv1 and SMBv2 tables
  SNMP_FEATURE_FILESYSTEM_PERF = 602  // file-system statistics: the file-system table and two controller columns
};

// Answers capability questions.
class ISnmpCapabilitySource {
 public:
  virtual ~ISnmpCapabilitySource() {}
  virtual bool supports(int feature) = 0;
};

// A fixed set of supported features.
class CStaticCapabilitySource : public ISnmpCapabilitySource {
 public:
  explicit CStaticCapabilitySource(std::set<int> features) : features_(std::move(features)) {}
  bool supports(int feature) override { return features_.count(feature) != 0; }

 private:
  std::set<int> features_;
};

// Installs the source (null: nothing is supported). Returns the previous one.
std::shared_ptr<ISnmpCapabilitySource> SetSnmpCapabilitySource(std::shared_ptr<ISnmpCapabilitySource> source);

// True when the storage array supports the feature.
bool checkOidFeatureSurport(tagSNMP_FEATURE_TYPE_E feature);

#endif  // ZERVA_SNMPCOMMON_SNMP_CAPABILITY_H_
