// The manager singleton is created once per process: by the first of several
// threads that ask at the same moment, and shared with hidden-visibility
// plug-ins. This executable must not touch the manager before these tests.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "vempub/vem_debug_kit.h"

namespace {

TEST(DebugKitSingletonTest, ThreadsAskingAtOnceCreateOneInstance) {
  ASSERT_EQ(CVEMDebugKitMgr::instancesCreated(), 0) << "the manager was created before the test";
  const int kThreads = 16;
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::vector<CVEMDebugKitMgr*> seen(kThreads, nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      ready.fetch_add(1);
      while (!go.load()) {
      }
      seen[i] = CVEMDebugKitMgrSingleton::instance();
    });
  }
  while (ready.load() < kThreads) {
  }
  go.store(true);
  for (auto& t : threads) t.join();
  EXPECT_EQ(CVEMDebugKitMgr::instancesCreated(), 1);
  ASSERT_NE(seen[0], nullptr);
  for (CVEMDebugKitMgr* m : seen) EXPECT_EQ(m, seen[0]);
}

TEST(DebugKitSingletonTest, AHiddenVisibilityPluginSharesTheInstance) {
  void* handle = dlopen(VEM_KIT_PROBE_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  typedef void* (*ProbeFn)();
  ProbeFn probe = reinterpret_cast<ProbeFn>(dlsym(handle, "vem_kit_probe_manager"));
  ASSERT_NE(probe, nullptr);
  EXPECT_EQ(probe(), static_cast<void*>(CVEMDebugKitMgrSingleton::instance()));
  EXPECT_EQ(CVEMDebugKitMgr::instancesCreated(), 1);
  dlclose(handle);
}

}  // namespace
