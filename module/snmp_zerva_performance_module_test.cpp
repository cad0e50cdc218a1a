#include "module/snmp_zerva_performance_module.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "performance/snmp_zerva_performance_cache_handler.h"
#include "performance/snmp_zerva_performance_controllerNFSV3_handler.h"
#include "performance/snmp_zerva_performance_controllerNFSV41_handler.h"
#include "performance/snmp_zerva_performance_controllerNFSV4_handler.h"
#include "performance/snmp_zerva_performance_controllerSMBV1_handler.h"
#include "performance/snmp_zerva_performance_controllerSMBV2_handler.h"
#include "performance/snmp_zerva_performance_fileSystem_handler.h"
#include "performance/snmp_zerva_performance_lun_handler.h"
#include "performance/snmp_zerva_performance_node_handler.h"
#include "performance/snmp_zerva_performance_port_handler.h"
#include "performance/snmp_zerva_performance_switch.h"
#include "snmpcommon/snmp_capability.h"
#include "tests/support/fake_backend.h"
#include "tests/support/kit_log_capture.h"

namespace {

using ::testing::ElementsAre;
using zerva_test::KitLogCapture;

const char kSig[] =
    "virtual void CSNMP_ZervaPerformanceSvcModule::getSvcHandler(std::list<std::pair<const "
    "std::basic_string<char>, CSnmpHandler*> >&)";
const std::string kBase = "1.3.6.1.4.1.32473.4.1.21.";

// Answers from a fixed set, records every question, and can be told to
// throw on the n-th question about a feature.
class RecordingSource : public ISnmpCapabilitySource {
 public:
  explicit RecordingSource(std::set<int> features) : features_(std::move(features)) {}
  bool supports(int feature) override {
    std::lock_guard<std::mutex> lock(mu_);
    asked_.push_back(feature);
    if (feature == throwOn_ && ++seen_ == throwAt_) throw std::runtime_error("capability query failed");
    return features_.count(feature) != 0;
  }
  void throwOnQuery(int feature, int nth) {
    throwOn_ = feature;
    throwAt_ = nth;
  }
  std::vector<int> asked() const {
    std::lock_guard<std::mutex> lock(mu_);
    return asked_;
  }

 private:
  mutable std::mutex mu_;
  std::set<int> features_;
  std::vector<int> asked_;
  int throwOn_ = -1;
  int throwAt_ = 0;
  int seen_ = 0;
};

// Installs a capability source for the test and restores the previous one.
class ScopedSource {
 public:
  explicit ScopedSource(std::shared_ptr<RecordingSource> source)
      : source_(source), previous_(SetSnmpCapabilitySource(source)) {}
  ~ScopedSource() { SetSnmpCapabilitySource(previous_); }
  RecordingSource& operator*() { return *source_; }
  RecordingSource* operator->() { return source_.get(); }

 private:
  std::shared_ptr<RecordingSource> source_;
  std::shared_ptr<ISnmpCapabilitySource> previous_;
};

// Owns the handlers of a host list, as the host does, and deletes them
// through CSnmpHandler.
struct HostList {
  CSnmpHandlerList entries;
  ~HostList() {
    for (auto& entry : entries) delete entry.second;
  }
  std::vector<std::string> prefixes() const {
    std::vector<std::string> out;
    for (const auto& entry : entries) out.push_back(entry.first);
    return out;
  }
  std::vector<std::string> types() const {
    std::vector<std::string> out;
    for (const auto& entry : entries) out.push_back(entry.second ? typeid(*entry.second).name() : "null");
    return out;
  }
};

// The module registering its handlers into an empty host list while the
// capability source answers for features. The log starts after the module is
// built, so it holds what getSvcHandler wrote.
struct Registration {
  explicit Registration(std::set<int> features) : source(std::make_shared<RecordingSource>(std::move(features))) {
    module.getSvcHandler(list.entries);
  }
  ScopedSource source;
  CSNMP_ZervaPerformanceSvcModule module;
  KitLogCapture log;
  HostList list;
};

template <typename T>
std::string Type() {
  return typeid(T).name();
}

std::vector<std::string> Prefixes(std::initializer_list<int> arcs) {
  std::vector<std::string> out;
  for (int arc : arcs) out.push_back(kBase + std::to_string(arc));
  return out;
}

TEST(SvcModuleTest, MibFileNameIsVemPerformanceXml) {
  CSNMP_ZervaPerformanceSvcModule module;
  EXPECT_EQ("VEM-PERFORMANCE.xml", module.getMibFileName());
}

TEST(SvcModuleTest, CreatorReturnsANewModuleOnEachCall) {
  std::unique_ptr<CSNMP_Svc_Module> first(SNMP_SvcModuleCreator());
  std::unique_ptr<CSNMP_Svc_Module> second(SNMP_SvcModuleCreator());
  ASSERT_NE(nullptr, first);
  ASSERT_NE(nullptr, second);
  EXPECT_NE(first.get(), second.get());
  EXPECT_NE(nullptr, dynamic_cast<CSNMP_ZervaPerformanceSvcModule*>(first.get()));
  EXPECT_EQ("VEM-PERFORMANCE.xml", first->getMibFileName());
}

TEST(SvcModuleTest, NoFeatureGivesTheFiveFixedTablesInRegistrationOrder) {
  Registration reg({});
  EXPECT_EQ(Prefixes({1, 4, 5, 3, 7}), reg.list.prefixes());
  EXPECT_THAT(reg.list.types(), ElementsAre(Type<CPerformanceSwithHandler>(), Type<CPerformanceLunHandler>(),
                                            Type<CPerformancePortHandler>(), Type<CPerformanceNodeHandler>(),
                                            Type<CPerformanceCacheHandler>()));
}

TEST(SvcModuleTest, OnlyCifsAddsTheTwoSmbTables) {
  Registration reg({49});
  EXPECT_EQ(Prefixes({1, 4, 5, 3, 7, 12, 13}), reg.list.prefixes());
  EXPECT_EQ(Type<CPerformanceControllerSMBV1Handler>(), reg.list.types()[5]);
  EXPECT_EQ(Type<CPerformanceControllerSMBV2Handler>(), reg.list.types()[6]);
}

TEST(SvcModuleTest, OnlyNfsAddsTheThreeNfsTables) {
  Registration reg({48});
  EXPECT_EQ(Prefixes({1, 4, 5, 3, 7, 10, 11, 15}), reg.list.prefixes());
}

TEST(SvcModuleTest, OnlyFileSystemFeatureAddsTheFileSystemTable) {
  Registration reg({602});
  EXPECT_EQ(Prefixes({1, 4, 5, 3, 7, 14}), reg.list.prefixes());
  EXPECT_EQ(Type<CPerformanceFileSystemHandler>(), reg.list.types().back());
}

TEST(SvcModuleTest, AllFeaturesGiveElevenTablesInRegistrationOrder) {
  Registration reg({48, 49, 602});
  EXPECT_EQ(Prefixes({1, 4, 5, 3, 7, 10, 11, 15, 12, 13, 14}), reg.list.prefixes());
  EXPECT_THAT(
      reg.list.types(),
      ElementsAre(Type<CPerformanceSwithHandler>(), Type<CPerformanceLunHandler>(), Type<CPerformancePortHandler>(),
                  Type<CPerformanceNodeHandler>(), Type<CPerformanceCacheHandler>(),
                  Type<CPerformanceControllerNFSV3Handler>(), Type<CPerformanceControllerNFSV4Handler>(),
                  Type<CPerformanceControllerNFSV41Handler>(), Type<CPerformanceControllerSMBV1Handler>(),
                  Type<CPerformanceControllerSMBV2Handler>(), Type<CPerformanceFileSystemHandler>()));
}

TEST(SvcModuleTest, FeaturesAreAskedOnceEachIn48_49_602Order) {
  Registration reg({48, 49, 602});
  // The registry asks 48, 49 and 602 once each, in that order; between them
  // the node table's and the five controller tables' constructors ask 602
  // for their file-system columns.
  EXPECT_EQ((std::vector<int>{602, 48, 602, 602, 602, 49, 602, 602, 602}), reg.source->asked());
}

TEST(SvcModuleTest, UnsupportedFeaturesAreStillAskedOnceEach) {
  Registration reg({});
  // Only the node table's constructor asks besides the registry here.
  EXPECT_EQ((std::vector<int>{602, 48, 49, 602}), reg.source->asked());
}

TEST(SvcModuleTest, EntriesAlreadyInTheListStayInFrontUntouched) {
  ScopedSource source(std::make_shared<RecordingSource>(std::set<int>{49}));
  CSNMP_ZervaPerformanceSvcModule module;
  HostList list;
  CPerformanceCacheHandler* existing = new CPerformanceCacheHandler();
  list.entries.push_back(std::make_pair(std::string("1.3.6.1.2.1.1"), existing));
  list.entries.push_back(std::make_pair(std::string("1.3.6.1.2.1.2"), static_cast<CSnmpHandler*>(nullptr)));
  module.getSvcHandler(list.entries);
  ASSERT_EQ(9u, list.entries.size());
  auto it = list.entries.begin();
  EXPECT_EQ("1.3.6.1.2.1.1", it->first);
  EXPECT_EQ(existing, it->second);
  ++it;
  EXPECT_EQ("1.3.6.1.2.1.2", it->first);
  EXPECT_EQ(nullptr, it->second);
  std::vector<std::string> prefixes = list.prefixes();
  EXPECT_EQ(Prefixes({1, 4, 5, 3, 7, 12, 13}), std::vector<std::string>(prefixes.begin() + 2, prefixes.end()));
}

TEST(SvcModuleTest, SecondCallAddsAnIndependentSetOfNewHandlers) {
  Registration first({48, 49, 602});
  HostList second;
  first.module.getSvcHandler(second.entries);
  ASSERT_EQ(first.list.prefixes(), second.prefixes());
  std::set<CSnmpHandler*> all;
  for (auto& e : first.list.entries) all.insert(e.second);
  for (auto& e : second.entries) all.insert(e.second);
  EXPECT_EQ(22u, all.size());
  EXPECT_EQ(0u, all.count(nullptr));
}

TEST(SvcModuleTest, TraceHasOneEnterAndOneOkLeaveOnKitZero) {
  Registration reg({48, 49, 602});
  std::vector<std::string> kit0;
  for (const CVEMLogRecord& r : reg.log.records()) {
    if (r.kitNo == 0) kit0.push_back(std::to_string(r.level) + " " + r.message);
  }
  const std::string trace = std::to_string(VEM_LOG_TRACE) + " ";
  EXPECT_THAT(kit0, ElementsAre(trace + "enter " + kSig + "...", trace + "leave " + kSig + ": OK"));
}

TEST(SvcModuleTest, RegistryLogsNothingButItsTrace) {
  zerva_test::BackendFixture fixture;  // the device configuration the handlers read
  Registration reg({});
  for (const CVEMLogRecord& r : reg.log.records()) {
    EXPECT_EQ(VEM_LOG_TRACE, r.level) << r.message;
  }
  EXPECT_EQ(2u, reg.log.records().size());
}

TEST(SvcModuleTest, ThrowingConstructorKeepsEarlierEntriesAndTracesOk) {
  auto recording = std::make_shared<RecordingSource>(std::set<int>{48, 49, 602});
  recording->throwOnQuery(602, 1);  // the node table's constructor, entry 4
  ScopedSource source(recording);
  CSNMP_ZervaPerformanceSvcModule module;
  HostList list;
  KitLogCapture log;
  EXPECT_THROW(module.getSvcHandler(list.entries), std::runtime_error);
  EXPECT_EQ(Prefixes({1, 4, 5}), list.prefixes());
  EXPECT_THAT(log.traces(), ElementsAre(std::string("enter ") + kSig + "...", std::string("leave ") + kSig + ": OK"));
  // Nothing after the failure was asked.
  EXPECT_EQ((std::vector<int>{602}), recording->asked());
}

TEST(SvcModuleTest, ThrowingFeatureQueryAfterTheFixedTablesKeepsFiveEntries) {
  auto recording = std::make_shared<RecordingSource>(std::set<int>{48, 49, 602});
  // The 7th question about 602 is the registry's own, after the node table
  // and the five controller tables asked theirs.
  recording->throwOnQuery(602, 7);
  ScopedSource source(recording);
  CSNMP_ZervaPerformanceSvcModule module;
  HostList list;
  KitLogCapture log;
  EXPECT_THROW(module.getSvcHandler(list.entries), std::runtime_error);
  EXPECT_EQ(Prefixes({1, 4, 5, 3, 7, 10, 11, 15, 12, 13}), list.prefixes());
  ASSERT_EQ(2u, log.traces().size());
  EXPECT_EQ(std::string("leave ") + kSig + ": OK", log.traces()[1]);
}

}  // namespace
