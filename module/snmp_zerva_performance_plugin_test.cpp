// Loads the built plug-in as the host does (dlopen, then the one exported
// factory) and checks that it shares the host's singletons and exceptions.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <set>
#include <string>

#include "diag/vem_exception.h"
#include "snmpcommon/snmp_svc_module.h"
#include "tests/support/fake_backend.h"
#include "tests/support/kit_log_capture.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using zerva_test::BackendFixture;
using zerva_test::KitLogCapture;
using zerva_test::PackageText;

// The plug-in, opened for the test's lifetime.
class Plugin {
 public:
  Plugin() : handle_(dlopen(ZERVA_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL)) {}
  ~Plugin() {
    if (handle_ != nullptr) dlclose(handle_);
  }
  bool loaded() const { return handle_ != nullptr; }
  SNMP_SvcModuleCreatorFn creator() const {
    return reinterpret_cast<SNMP_SvcModuleCreatorFn>(dlsym(handle_, SNMP_SVC_MODULE_CREATOR_NAME));
  }

 private:
  void* handle_;
};

// Deletes the handlers of a host list through CSnmpHandler, as the host does.
struct HostList {
  CSnmpHandlerList entries;
  ~HostList() {
    for (auto& entry : entries) delete entry.second;
  }
};

std::set<std::string> DynamicSymbols(const std::string& path) {
  std::set<std::string> names;
  std::string command = "nm -D --defined-only '" + path + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return names;
  char line[4096];
  while (fgets(line, sizeof line, pipe) != nullptr) {
    std::string text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    size_t space = text.rfind(' ');
    names.insert(space == std::string::npos ? text : text.substr(space + 1));
  }
  pclose(pipe);
  return names;
}

TEST(PluginTest, ExportsOnlyTheModuleCreator) {
  std::set<std::string> symbols = DynamicSymbols(ZERVA_PLUGIN_PATH);
  EXPECT_EQ((std::set<std::string>{"SNMP_SvcModuleCreator"}), symbols);
}

TEST(PluginTest, LoadsAndCreatesAModule) {
  Plugin plugin;
  ASSERT_TRUE(plugin.loaded()) << dlerror();
  SNMP_SvcModuleCreatorFn create = plugin.creator();
  ASSERT_NE(nullptr, create);
  std::unique_ptr<CSNMP_Svc_Module> module(create());
  ASSERT_NE(nullptr, module);
  EXPECT_EQ("VEM-PERFORMANCE.xml", module->getMibFileName());
}

TEST(PluginTest, LoadsUnloadsAndLoadsAgain) {
  for (int round = 0; round < 3; ++round) {
    Plugin plugin;
    ASSERT_TRUE(plugin.loaded()) << dlerror();
    std::unique_ptr<CSNMP_Svc_Module> module(plugin.creator()());
    HostList list;
    module->getSvcHandler(list.entries);
    EXPECT_EQ(5u, list.entries.size()) << "round " << round;
  }
}

TEST(PluginTest, RegistrationAsksTheHostsCapabilitySource) {
  BackendFixture fixture({48, 49, 602});
  Plugin plugin;
  ASSERT_TRUE(plugin.loaded()) << dlerror();
  std::unique_ptr<CSNMP_Svc_Module> module(plugin.creator()());
  HostList list;
  module->getSvcHandler(list.entries);
  EXPECT_EQ(11u, list.entries.size());
}

TEST(PluginTest, HandlersReachTheHostsBackEndAndDebugKits) {
  BackendFixture fixture;
  fixture.setSwitch(1);
  Plugin plugin;
  ASSERT_TRUE(plugin.loaded()) << dlerror();
  std::unique_ptr<CSNMP_Svc_Module> module(plugin.creator()());
  HostList list;
  KitLogCapture log;
  module->getSvcHandler(list.entries);
  ASSERT_FALSE(list.entries.empty());
  ASSERT_EQ("1.3.6.1.4.1.32473.4.1.21.1", list.entries.front().first);

  CVEM_SnmpContext ctx;
  CTLVPackage req;
  CTLVPackage rsp;
  EXPECT_EQ(0, list.entries.front().second->OnQueryLeaf(ctx, req, rsp));
  EXPECT_THAT(PackageText(rsp), ElementsAre("0xFFFFFFFFFFFFFFFF: 0/3/4/1"));
  ASSERT_EQ(1u, fixture.backend().callCount());
  EXPECT_EQ(zerva_test::kGetSwitchCmd, fixture.backend().calls()[0].id());
  EXPECT_THAT(
      log.traces(),
      Contains("leave virtual int CPerformanceSwithHandler::queryLeaf(const CVEM_SnmpContext&, CTLVCell*&): OK"));
}

TEST(PluginTest, WrongKindExceptionIsCaughtAsVemException) {
  Plugin plugin;
  ASSERT_TRUE(plugin.loaded()) << dlerror();
  std::unique_ptr<CSNMP_Svc_Module> module(plugin.creator()());
  HostList list;
  module->getSvcHandler(list.entries);
  CSnmpHandler* leaf = list.entries.front().second;
  CVEM_SnmpContext ctx;
  CTLVPackage req;
  CTLVPackage rsp;
  bool caught = false;
  try {
    leaf->OnQueryTable(ctx, req, rsp);
  } catch (CVEM_Exception&) {
    caught = true;
  }
  EXPECT_TRUE(caught);
  caught = false;
  try {
    leaf->OnQueryTable(ctx, req, rsp);
  } catch (std::exception& e) {
    caught = true;
  }
  EXPECT_TRUE(caught);
}

}  // namespace
