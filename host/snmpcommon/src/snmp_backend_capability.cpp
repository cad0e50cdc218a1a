#include "snmpcommon/snmp_backend_capability.h"

#include <cstdint>
#include <string>

#include "snmpcommon/snmp_configuration.h"
#include "tlv/backend_codes.h"
#include "tlv/vem_message_package.h"
#include "vempub/vem_debug_kit.h"
#include "vempub/vem_decimal.h"
#include "vempub/vem_xml_config.h"

const char kSnmpFeaturesCommand[] = "GET_SNMP_FEATURES";

namespace {

// The command code of GET_SNMP_FEATURES from the device configuration, or 0
// when it is missing or not a decimal number; *text gets the item's text.
unsigned long long FeaturesCommandCode(std::string* text) {
  CVEMXmlConfig::instance()->getDeviceItem("COMMAND", kSnmpFeaturesCommand, *text);
  uint64_t code = 0;
  return ParseDecimal(*text, UINT64_MAX, &code) ? code : 0;
}

// The feature number of one answer record: its feature cell, type 3, 4
// bytes. False when the record has no such cell.
bool FeatureOfRecord(const CTLVRecordV3& record, int* feature) {
  if (!record.hasTag(backend::kTagFeature)) return false;
  const CTLVCell* cell = record[backend::kTagFeature];
  if (cell->type() != CTLVCell::TLV_TYPE_UINT || cell->length() != 4) return false;
  *feature = static_cast<int>(CTLVCell::ValueCast<unsigned int>()(cell));
  return true;
}

// "{48,49,602}".
std::string ListText(const std::set<int>& features) {
  std::string list;
  for (int f : features) list += (list.empty() ? "" : ",") + std::to_string(f);
  return "{" + list + "}";
}

// kept: the list answered before, null when there is none.
void LogFailure(const std::string& what, const std::set<int>* kept) {
  if (kept == nullptr) {
    VEMLog(VEM_KIT_HOST, VEM_LOG_ERROR, "supports", __LINE__,
           "%s %s; every feature reads as unsupported until the back end answers", kSnmpFeaturesCommand, what.c_str());
  } else {
    VEMLog(VEM_KIT_HOST, VEM_LOG_ERROR, "askAgain", __LINE__, "%s %s; the features stay %s until the back end answers",
           kSnmpFeaturesCommand, what.c_str(), ListText(*kept).c_str());
  }
}

}  // namespace

bool CBackendCapabilitySource::supports(int feature) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!answered_) {
    std::set<int> features;
    if (!query_i(&features)) {
      asked_.answers[feature] = false;
      asked_.unanswered = true;
      return false;
    }
    features_.swap(features);
    answered_ = true;
  }
  const bool yes = features_.count(feature) != 0;
  asked_.answers[feature] = yes;
  return yes;
}

bool CBackendCapabilitySource::answered() const {
  std::lock_guard<std::mutex> lock(mu_);
  return answered_;
}

std::set<int> CBackendCapabilitySource::features() const {
  std::lock_guard<std::mutex> lock(mu_);
  return features_;
}

bool CBackendCapabilitySource::askAgain() {
  std::lock_guard<std::mutex> lock(mu_);
  std::set<int> features;
  if (!query_i(&features)) return false;
  features_.swap(features);
  answered_ = true;
  return true;
}

CSnmpAskedFeatures CBackendCapabilitySource::asked() const {
  std::lock_guard<std::mutex> lock(mu_);
  return asked_;
}

void CBackendCapabilitySource::clearAsked() {
  std::lock_guard<std::mutex> lock(mu_);
  asked_ = CSnmpAskedFeatures();
}

bool CBackendCapabilitySource::query_i(std::set<int>* features) {
  const std::set<int>* kept = answered_ ? &features_ : nullptr;
  std::string text;
  const unsigned long long code = FeaturesCommandCode(&text);
  if (code == 0) {
    LogFailure("has no usable command code in the device configuration (section COMMAND, value '" + text + "')", kept);
    return false;
  }
  CTLVPackage req;
  CTLVPackage rsp;
  req.push_back(new CTLVRecordV3(code, CTLVRecordV3::DEFAULT_BUCKETS));
  const int rc = CSNMP_Configuration::instance()->configure(req, rsp, false);
  if (rc != 0) {
    char number[16];
    snprintf(number, sizeof number, "0x%08X", static_cast<unsigned int>(rc));
    const std::string meaning = IsSnmpTransportError(rc) ? SnmpTransportErrorText(rc) : "the back end's code";
    LogFailure(std::string("failed with ") + number + " (" + meaning + ")", kept);
    return false;
  }
  for (size_t i = 0; i < rsp.size(); ++i) {
    int feature = 0;
    if (!FeatureOfRecord(*rsp[i], &feature)) {
      LogFailure("answer record " + std::to_string(i) + " has no 4-byte unsigned cell with tag 0", kept);
      return false;
    }
    features->insert(feature);
  }
  VEMLog(VEM_KIT_HOST, VEM_LOG_DEBUG, "supports", __LINE__, "%s: the array supports features %s", kSnmpFeaturesCommand,
         ListText(*features).c_str());
  return true;
}
