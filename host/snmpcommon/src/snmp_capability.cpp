#include "snmpcommon/snmp_capability.h"

#include <mutex>

namespace {

std::mutex& SourceMutex() {
  static std::mutex* mu = new std::mutex();
  return *mu;
}

std::shared_ptr<ISnmpCapabilitySource>& Source() {
  static std::shared_ptr<ISnmpCapabilitySource>* source = new std::shared_ptr<ISnmpCapabilitySource>();
  return *source;
}

}  // namespace

std::shared_ptr<ISnmpCapabilitySource> SetSnmpCapabilitySource(std::shared_ptr<ISnmpCapabilitySource> source) {
  std::lock_guard<std::mutex> lock(SourceMutex());
  std::swap(Source(), source);
  return source;
}

bool checkOidFeatureSurport(tagSNMP_FEATURE_TYPE_E feature) {
  std::shared_ptr<ISnmpCapabilitySource> source;
  {
    std::lock_guard<std::mutex> lock(SourceMutex());
    source = Source();
  }
  return source && source->supports(static_cast<int>(feature));
}
