#include "vempub/vem_install_paths.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <vector>

// Set by the build from its install directories.
#ifndef ZERVA_LIBDIR_TO_DATADIR
#error "ZERVA_LIBDIR_TO_DATADIR must name the data directory relative to the library directory"
#endif

std::string VEMLibraryDir() {
  Dl_info info;
  // Any function of this library names the file it was loaded from.
  if (dladdr(reinterpret_cast<void*>(&VEMLibraryDir), &info) == 0 || info.dli_fname == nullptr) return "";
  char* real = realpath(info.dli_fname, nullptr);
  if (real == nullptr) return "";
  std::string path(real);
  free(real);
  return path.substr(0, path.rfind('/'));
}

std::string VEMDataDir() {
  const std::string lib = VEMLibraryDir();
  return lib.empty() ? "" : VEMJoinPath(lib, ZERVA_LIBDIR_TO_DATADIR);
}

std::string VEMJoinPath(const std::string& dir, const std::string& relative) {
  std::vector<std::string> parts;
  const std::string whole = dir + "/" + relative;
  size_t begin = 0;
  while (begin <= whole.size()) {
    size_t end = whole.find('/', begin);
    if (end == std::string::npos) end = whole.size();
    const std::string part = whole.substr(begin, end - begin);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    begin = end + 1;
  }
  std::string joined;
  for (const std::string& p : parts) joined += "/" + p;
  return joined.empty() ? "/" : joined;
}
