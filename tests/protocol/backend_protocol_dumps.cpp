// backend_protocol_dumps: prints the generated examples of
// docs/backend-protocol.md, or rewrites them in place.
//
//   backend_protocol_dumps                 # every example's markdown on stdout
//   backend_protocol_dumps --update FILE   # replace the generated regions of FILE
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/protocol/protocol_examples.h"

namespace {

// Reads a whole file into *text. False when it cannot be read.
bool ReadFile(const char* path, std::string* text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream buf;
  buf << in.rdbuf();
  *text = buf.str();
  return true;
}

// Replaces the file's content with text. False when it cannot be written.
bool WriteFile(const char* path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  return static_cast<bool>(out);
}

int Update(const char* path) {
  std::string text;
  if (!ReadFile(path, &text)) {
    fprintf(stderr, "cannot read %s\n", path);
    return 1;
  }
  std::string error;
  if (!zerva_protocol::UpdateGeneratedRegions(&text, &error)) {
    fprintf(stderr, "%s: %s\n", path, error.c_str());
    return 1;
  }
  if (!WriteFile(path, text)) {
    fprintf(stderr, "cannot write %s\n", path);
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string error;
  if (!zerva_protocol::LoadShippedDeviceConfig(&error)) {
    fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  if (argc == 3 && strcmp(argv[1], "--update") == 0) return Update(argv[2]);
  if (argc != 1) {
    fprintf(stderr, "usage: %s [--update docs/backend-protocol.md]\n", argv[0]);
    return 2;
  }
  for (const zerva_protocol::Example& example : zerva_protocol::Examples()) {
    printf("<!-- generated:begin %s -->\n%s<!-- generated:end %s -->\n\n", example.label.c_str(),
           zerva_protocol::ExampleMarkdown(example).c_str(), example.label.c_str());
  }
  return 0;
}
