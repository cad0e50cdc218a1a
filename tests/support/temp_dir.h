// A private temporary directory for a test, removed with everything in it.
#ifndef ZERVA_TESTS_SUPPORT_TEMP_DIR_H_
#define ZERVA_TESTS_SUPPORT_TEMP_DIR_H_

#include <string>

namespace zerva_test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  // The directory ("" when it could not be made).
  const std::string& path() const { return path_; }
  // Writes `text` to the file `name` in the directory; returns its path.
  std::string file(const std::string& name, const std::string& text) const;

 private:
  std::string path_;
};

}  // namespace zerva_test

#endif  // ZERVA_TESTS_SUPPORT_TEMP_DIR_H_
