#include "vempub/vem_command_line.h"

#include <getopt.h>

#include <climits>
#include <cstdio>
#include <sstream>

namespace {

// Codes of the options every program has, beyond any program's own.
const int kOptHelp = INT_MAX - 1;
const int kOptVersion = INT_MAX;

// The long option table getopt_long wants: the program's options, then
// --help and --version. The names stay in *names.
std::vector<struct option> LongOptions(const char* list, std::vector<std::string>* names) {
  std::istringstream in(list);
  std::string name;
  while (std::getline(in, name, ',')) names->push_back(name);
  std::vector<struct option> options;
  int code = VEM_LONG_OPTION_BASE;
  for (std::string& n : *names) {
    const bool takesValue = !n.empty() && n.back() == ':';
    if (takesValue) n.pop_back();
    options.push_back({n.c_str(), takesValue ? required_argument : no_argument, nullptr, code++});
  }
  options.push_back({"help", no_argument, nullptr, kOptHelp});
  options.push_back({"version", no_argument, nullptr, kOptVersion});
  options.push_back({nullptr, 0, nullptr, 0});
  return options;
}

// The option getopt_long has just refused, as written on the command line.
std::string RefusedOption(const std::vector<struct option>& longOptions, char* const* argv) {
  if (optopt >= VEM_LONG_OPTION_BASE) {
    for (const struct option& o : longOptions) {
      if (o.name != nullptr && o.val == optopt) return std::string("--") + o.name;
    }
  }
  if (optopt != 0) return std::string("-") + static_cast<char>(optopt);
  // An unknown long option: getopt_long has stepped over it.
  const std::string arg = argv[optind - 1];
  return arg.substr(0, arg.find('='));
}

}  // namespace

bool VEMParseOptions(int argc, const char* const* argv, const VEMCommandLineSyntax& syntax,
                     const VEMOptionHandler& handler, std::vector<std::string>* operands, bool* help, bool* version,
                     std::string* error) {
  std::vector<std::string> names;
  const std::vector<struct option> longOptions = LongOptions(syntax.longOptions, &names);
  // The leading ':' makes a missing value ':' rather than '?'.
  const std::string shortOptions = std::string(":") + syntax.shortOptions;
  const bool shortHelp = shortOptions.find('h') != std::string::npos;
  // getopt_long may reorder the pointers it is given: it gets a copy.
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) args.push_back(const_cast<char*>(argv[i]));
  args.push_back(nullptr);
  optind = 0;  // a fresh parse (GNU), so that this can be called again
  opterr = 0;  // the errors are reported through *error
  int c;
  while ((c = getopt_long(argc, args.data(), shortOptions.c_str(), longOptions.data(), nullptr)) != -1) {
    if (c == ':') {
      *error = syntax.valuePrefix + RefusedOption(longOptions, args.data()) + " needs a value";
      return false;
    }
    if (c == '?') {
      // A long option given a value it does not take, or an unknown one.
      *error = optopt >= VEM_LONG_OPTION_BASE
                   ? syntax.valuePrefix + RefusedOption(longOptions, args.data()) + " takes no value"
                   : std::string("unknown ") + syntax.noun + " '" + RefusedOption(longOptions, args.data()) + "'";
      return false;
    }
    if (c == kOptHelp || (shortHelp && c == 'h')) {
      *help = true;
    } else if (c == kOptVersion) {
      *version = true;
    } else if (!handler(c, optarg != nullptr ? optarg : "", error)) {
      return false;
    }
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
