#include "tests/support/temp_dir.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <system_error>

namespace zerva_test {

TempDir::TempDir() {
  char dir[] = "/tmp/zerva-test.XXXXXX";
  path_ = mkdtemp(dir) != nullptr ? dir : "";
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::file(const std::string& name, const std::string& text) const {
  const std::string p = path_ + "/" + name;
  std::ofstream(p) << text;
  return p;
}

}  // namespace zerva_test
