// Captures what the process logs through ACE_Log_Msg, from every thread.
#ifndef ZERVA_TESTS_SUPPORT_ACE_LOG_CAPTURE_H_
#define ZERVA_TESTS_SUPPORT_ACE_LOG_CAPTURE_H_

#include <gmock/gmock.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/no_copy.h"

namespace zerva_test {

// One captured line, split at the "%D %M (%t) " prefix.
struct AceLine {
  std::string raw;             // the whole formatted text, as logged
  std::string priority;        // "LM_ERROR", ... ("" when the prefix is absent)
  std::string text;            // what follows "(<thread id>) ", without the final newline
  std::string recordPriority;  // the priority the line was logged at (ACE_Log_Record::type()), "LM_ERROR", ...
};

void PrintTo(const AceLine& line, std::ostream* os);

// Matches a line logged at LM_ERROR (the record's priority, and the name its
// "%M" prefix writes) whose text matches text (a string or a string matcher).
::testing::Matcher<const AceLine&> AceError(const ::testing::Matcher<std::string>& text);

// While alive, routes ACE logging to memory (and away from stderr).
class AceLogCapture : NoCopy {
 public:
  AceLogCapture();
  ~AceLogCapture();

  std::vector<AceLine> lines() const;
  // The texts only, in order.
  std::vector<std::string> texts() const;
  void clear();

  class Backend;

 private:
  std::unique_ptr<Backend> backend_;
  void* previousBackend_;
  unsigned long previousFlags_;
};

}  // namespace zerva_test

#endif  // ZERVA_TESTS_SUPPORT_ACE_LOG_CAPTURE_H_
