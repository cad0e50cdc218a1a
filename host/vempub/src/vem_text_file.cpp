#include "vempub/vem_text_file.h"

#include <fstream>
#include <sstream>

bool VEMReadTextFile(const std::string& path, std::string* text, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    *error = path + ": cannot be read";
    return false;
  }
  std::ostringstream all;
  all << in.rdbuf();
  *text = all.str();
  return true;
}

bool VEMForEachLine(const std::string& text, const VEMLineVisitor& visit, std::string* error) {
  std::istringstream in(text);
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    std::string why;
    if (!visit(line, &why)) {
      *error = "line " + std::to_string(number) + ": " + why;
      return false;
    }
  }
  return true;
}
