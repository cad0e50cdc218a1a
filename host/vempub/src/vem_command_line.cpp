#include "vempub/vem_command_line.h"

#include <cstdio>

namespace {

// The option getopt_long has just refused, as written on the command line.
std::string RefusedOption(const struct option* longOptions, char* const* argv) {
  if (optopt >= VEM_LONG_OPTION_BASE) {
    for (const struct option* o = longOptions; o->name != nullptr; ++o) {
      if (o->val == optopt) return std::string("--") + o->name;
    }
  }
  if (optopt != 0) return std::string("-") + static_cast<char>(optopt);
  // An unknown long option: getopt_long has stepped over it.
  const std::string arg = argv[optind - 1];
  return arg.substr(0, arg.find('='));
}

}  // namespace

bool VEMParseOptions(int argc, const char* const* argv, const char* shortOptions, const struct option* longOptions,
                     const VEMOptionWords& words, const VEMOptionHandler& handler, std::vector<std::string>* operands,
                     std::string* error) {
  // getopt_long may reorder the pointers it is given: it gets a copy.
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) args.push_back(const_cast<char*>(argv[i]));
  args.push_back(nullptr);
  // The leading ':' makes a missing value ':' rather than '?'.
  const std::string optstring = std::string(":") + shortOptions;
  optind = 0;  // a fresh parse (GNU), so that this can be called again
  opterr = 0;  // the errors are reported through *error
  int c;
  while ((c = getopt_long(argc, args.data(), optstring.c_str(), longOptions, nullptr)) != -1) {
    if (c == ':') {
      *error = words.valuePrefix + RefusedOption(longOptions, args.data()) + " needs a value";
      return false;
    }
    if (c == '?') {
      // A long-only option given a value it does not take, or an unknown one.
      *error = optopt >= VEM_LONG_OPTION_BASE
                   ? words.valuePrefix + RefusedOption(longOptions, args.data()) + " takes no value"
                   : std::string("unknown ") + words.noun + " '" + RefusedOption(longOptions, args.data()) + "'";
      return false;
    }
    if (!handler(c, optarg != nullptr ? optarg : "", error)) return false;
  }
  if (operands != nullptr) {
    operands->assign(args.begin() + optind, args.begin() + argc);
  } else if (optind < argc) {
    *error = "unexpected argument '" + std::string(args[optind]) + "'";
    return false;
  }
  return true;
}

int VEMRefuseCommandLine(const VEMProgramTexts& texts, const std::string& error) {
  fprintf(stderr, "%s: %s\n%s", texts.errorPrefix.c_str(), error.c_str(), texts.usage.c_str());
  return VEM_EXIT_BAD_USAGE;
}

bool VEMAnswerCommandLine(bool parsed, const std::string& error, bool help, bool version, const VEMProgramTexts& texts,
                          int* status) {
  if (!parsed) {
    *status = VEMRefuseCommandLine(texts, error);
    return true;
  }
  if (help) {
    fputs(texts.usage.c_str(), stdout);
    *status = VEM_EXIT_OK;
    return true;
  }
  if (version) {
    printf("%s\n", texts.versionLine.c_str());
    *status = VEM_EXIT_OK;
    return true;
  }
  return false;
}
