// A private temporary directory for a test, removed with everything in it.
#ifndef ZERVA_TESTS_SUPPORT_TEMP_DIR_H_
#define ZERVA_TESTS_SUPPORT_TEMP_DIR_H_

#include <string>

#include "tests/support/no_copy.h"

namespace zerva_test {

class TempDir : NoCopy {
 public:
  TempDir();
  ~TempDir();
  // The directory ("" when it could not be made).
  const std::string& path() const { return path_; }
  // Writes `text` to the file `name` in the directory; returns its path.
  std::string file(const std::string& name, const std::string& text) const;

 private:
  std::string path_;
};

}  // namespace zerva_test

#endif  // ZERVA_TESTS_SUPPORT_TEMP_DIR_H_
