// libFuzzer target for the device configuration reader.
//
// Arbitrary bytes go to CVEMXmlConfig::loadFromString. Whatever the input,
// the reader must not crash, and loading is all or nothing: a refused text
// comes with an error and leaves the items loaded before it untouched, an
// accepted one replaces them (the sentinel item then answers only if the
// text itself defines it).
//
// Any broken expectation traps, which libFuzzer reports as a crash and saves
// the input.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "fuzz/fuzz_check.h"
#include "vempub/vem_debug_kit.h"
#include "vempub/vem_xml_config.h"

namespace {

const char kSentinelConfig[] =
    "<device><section name=\"FUZZ\"><item key=\"SENTINEL\" value=\"4242\"/></section></device>";

std::string Lookup(const char* section, const char* key) {
  std::string value;
  return CVEMXmlConfig::instance()->getDeviceItem(section, key, value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = [] {
    // Missing items are logged; the fuzzer's output should show findings only.
    CVEMDebugKitMgrSingleton::instance()->setLevel(VEM_LOG_OFF);
    return true;
  }();
  (void)quiet;

  CVEMXmlConfig* config = CVEMXmlConfig::instance();
  std::string error;
  FUZZ_CHECK(config->loadFromString(kSentinelConfig, &error));
  FUZZ_CHECK(Lookup("FUZZ", "SENTINEL") == "4242");

  const std::string text(reinterpret_cast<const char*>(data), size);
  error.clear();
  const bool accepted = config->loadFromString(text, &error);
  if (!accepted) {
    FUZZ_CHECK(!error.empty());
    FUZZ_CHECK(Lookup("FUZZ", "SENTINEL") == "4242");
  } else if (text.find("SENTINEL") == std::string::npos) {
    // Without the word anywhere in the text, no item can be named so.
    FUZZ_CHECK(Lookup("FUZZ", "SENTINEL").empty());
  }
  // Lookups of names the text may or may not hold never fail.
  Lookup("COMMAND", "GET_PERFORMANCE_SWITCH");
  Lookup("", "");
  return 0;
}
