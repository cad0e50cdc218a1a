// Captures what the debug kits write, at every level, while alive.
#ifndef ZERVA_TESTS_SUPPORT_KIT_LOG_CAPTURE_H_
#define ZERVA_TESTS_SUPPORT_KIT_LOG_CAPTURE_H_

#include <memory>
#include <string>
#include <vector>

#include "vempub/vem_debug_kit.h"
#include "tests/support/no_copy.h"

namespace zerva_test {

class KitLogCapture : NoCopy {
 public:
  // Sets every kit to trace level and routes records to memory; the
  // destructor restores the previous sink and level.
  KitLogCapture();
  ~KitLogCapture();

  std::vector<CVEMLogRecord> records() const;
  // Records of one level.
  std::vector<CVEMLogRecord> records(EVEMLogLevel level) const;
  // Messages of trace records (the "enter ..." / "leave ..." lines).
  std::vector<std::string> traces() const;
  void clear();

  class Sink;

 private:
  std::shared_ptr<Sink> sink_;
  std::shared_ptr<IVEMLogSink> previousSink_;
  EVEMLogLevel previousLevel_;
};

}  // namespace zerva_test

#endif  // ZERVA_TESTS_SUPPORT_KIT_LOG_CAPTURE_H_
