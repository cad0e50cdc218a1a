// A plug-in built with hidden visibility that reaches the debug-kit manager
// through the singleton template, as a loaded module does.
#include "vempub/vem_debug_kit.h"

extern "C" __attribute__((visibility("default"))) void* vem_kit_probe_manager() {
  return CVEMDebugKitMgrSingleton::instance();
}
