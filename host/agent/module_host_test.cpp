#include "host/agent/module_host.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/fake_backend.h"

namespace zerva_agent {
namespace {

TEST(ModuleHostTest, LoadsThePluginItsMibAndItsHandlersInOrder) {
  zerva_test::BackendFixture fixture({48, 49, 602});
  ModuleHost host;
  std::string error;
  ASSERT_TRUE(host.load(ZERVA_PLUGIN_PATH, ZERVA_MIB_DIR, &error)) << error;
  EXPECT_EQ(std::string(ZERVA_MIB_DIR) + "/VEM-PERFORMANCE.xml", host.mibPath());
  EXPECT_EQ("VEM-PERFORMANCE-MIB", host.mib().moduleName);
  std::vector<std::string> prefixes;
  for (const HostedHandler& h : host.handlers()) {
    prefixes.push_back(h.prefix.substr(std::string("1.3.6.1.4.1.32473.4.1.21.").size()));
    ASSERT_NE(nullptr, h.object);
    EXPECT_EQ(h.prefix, h.object->prefix);
  }
  EXPECT_EQ((std::vector<std::string>{"1", "4", "5", "3", "7", "10", "11", "15", "12", "13", "14"}), prefixes);
  EXPECT_EQ(MibObject::Scalar, host.handlers()[0].object->kind);
}

TEST(ModuleHostTest, FeaturesTheArrayLacksGiveFewerHandlers) {
  zerva_test::BackendFixture fixture;
  ModuleHost host;
  std::string error;
  ASSERT_TRUE(host.load(ZERVA_PLUGIN_PATH, ZERVA_MIB_DIR, &error)) << error;
  EXPECT_EQ(5u, host.handlers().size());
}

TEST(ModuleHostTest, UnloadAndLoadAgain) {
  zerva_test::BackendFixture fixture;
  ModuleHost host;
  std::string error;
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(host.load(ZERVA_PLUGIN_PATH, ZERVA_MIB_DIR, &error)) << error;
    host.unload();
    EXPECT_TRUE(host.handlers().empty());
  }
}

TEST(ModuleHostTest, MissingLibraryIsAClearError) {
  ModuleHost host;
  std::string error;
  EXPECT_FALSE(host.load("/nonexistent/libnothing.so", ZERVA_MIB_DIR, &error));
  EXPECT_NE(std::string::npos, error.find("/nonexistent/libnothing.so")) << error;
}

TEST(ModuleHostTest, LibraryWithoutFactoryIsRefused) {
  ModuleHost host;
  std::string error;
  EXPECT_FALSE(host.load("libm.so.6", ZERVA_MIB_DIR, &error));
  EXPECT_NE(std::string::npos, error.find("SNMP_SvcModuleCreator")) << error;
}

TEST(ModuleHostTest, MissingMibDescriptionIsAClearErrorAndReleasesTheHandlers) {
  zerva_test::BackendFixture fixture;
  ModuleHost host;
  std::string error;
  EXPECT_FALSE(host.load(ZERVA_PLUGIN_PATH, "/nonexistent-mibs", &error));
  EXPECT_NE(std::string::npos, error.find("VEM-PERFORMANCE.xml")) << error;
  EXPECT_TRUE(host.handlers().empty());
}

}  // namespace
}  // namespace zerva_agent
