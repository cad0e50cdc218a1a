#include "snmpcommon/snmp_capability.h"

#include <gtest/gtest.h>

namespace {

TEST(CapabilityTest, NothingIsSupportedWithoutASource) {
  auto previous = SetSnmpCapabilitySource(nullptr);
  EXPECT_FALSE(checkOidFeatureSurport(SNMP_FEATURE_NFS));
  SetSnmpCapabilitySource(previous);
}

TEST(CapabilityTest, TheInstalledSourceAnswers) {
  auto previous = SetSnmpCapabilitySource(std::make_shared<CStaticCapabilitySource>(std::set<int>{49, 602}));
  EXPECT_FALSE(checkOidFeatureSurport(static_cast<tagSNMP_FEATURE_TYPE_E>(48)));
  EXPECT_TRUE(checkOidFeatureSurport(static_cast<tagSNMP_FEATURE_TYPE_E>(49)));
  EXPECT_TRUE(checkOidFeatureSurport(static_cast<tagSNMP_FEATURE_TYPE_E>(602)));
  SetSnmpCapabilitySource(previous);
}

TEST(CapabilityTest, FeatureNumbers) {
  EXPECT_EQ(SNMP_FEATURE_NFS, 48);
  EXPECT_EQ(SNMP_FEATURE_CIFS, 49);
  EXPECT_EQ(SNMP_FEATURE_FILESYSTEM_PERF, 602);
}

}  // namespace
