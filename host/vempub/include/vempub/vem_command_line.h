// The command line of our programs: getopt_long options (long ones also as
// --name=VALUE), --help and --version, the errors that name the offending
// option, and the answer to a bad command line, --help and --version, which
// every program gives the same way.
#ifndef ZERVA_VEMPUB_VEM_COMMAND_LINE_H_
#define ZERVA_VEMPUB_VEM_COMMAND_LINE_H_

#include <functional>
#include <string>
#include <vector>

// The code of a program's first long option; the others follow in order.
// Codes from here on are above every short option's character.
const int VEM_LONG_OPTION_BASE = 256;

// A program's options and how its errors name them.
struct VEMCommandLineSyntax {
  // The short options as getopt has them, without a leading ':' ("c:fx:").
  // An 'h' among them is -h, the same as --help.
  const char* shortOptions = "";
  // The long options, separated by ',', each followed by ':' when it takes a
  // value ("listen:,state-dir:"). Their codes are VEM_LONG_OPTION_BASE, the
  // next number, and so on, in this order. --help and --version come with
  // every program and are not listed here.
  const char* longOptions = "";
  // "unknown <noun> '-q'": "option" or "flag".
  const char* noun = "option";
  // Put before "--x needs a value" and "--x takes no value": "option " or "".
  const char* valuePrefix = "";
};

// Called for each of the program's options found, with its code (the short
// option's character or the long option's code) and its value ("" for an
// option without one). Returns false with *error to stop the parse at a bad
// value.
typedef std::function<bool(int code, const std::string& value, std::string* error)> VEMOptionHandler;

// Parses argv[1..] with getopt_long on a copy of argv, from the start each
// time (so that it can be called again for another argv). --help (and -h
// where the syntax has it) sets *help, --version sets *version. The arguments
// that are not options go, in order, to *operands; with operands == nullptr
// they are an error. Returns false with *error for an unknown option
// ("unknown option '-q'", "unknown option '--bogus'"), a missing value
// ("--listen needs a value"), a value given to a long option that takes none
// ("--help takes no value"), an argument that is not an option ("unexpected
// argument 'x'"), or what the handler refused.
bool VEMParseOptions(int argc, const char* const* argv, const VEMCommandLineSyntax& syntax,
                     const VEMOptionHandler& handler, std::vector<std::string>* operands, bool* help, bool* version,
                     std::string* error);

// Exit statuses of a program's answer to its command line.
const int VEM_EXIT_OK = 0;
const int VEM_EXIT_BAD_USAGE = 2;

// What a program says about itself.
struct VEMProgramTexts {
  std::string errorPrefix;  // error lines are "<errorPrefix>: <error>"
  std::string usage;        // the usage text, ending in a newline
  std::string versionLine;  // what --version prints, without the newline
};

// The answer to a bad command line, also for what the program finds wrong
// after the parse (a missing or bad argument): "<errorPrefix>: <error>\n" and
// the usage on stderr. Returns VEM_EXIT_BAD_USAGE, the program's exit status.
int VEMRefuseCommandLine(const VEMProgramTexts& texts, const std::string& error);

// The answer to a parsed command line before the program's own work. After a
// parse error (parsed false): VEMRefuseCommandLine's; for help: the usage on
// stdout; for version: the version line on stdout; both status VEM_EXIT_OK.
// Returns true with *status when the program is to exit now, false when it
// goes on.
bool VEMAnswerCommandLine(bool parsed, const std::string& error, bool help, bool version, const VEMProgramTexts& texts,
                          int* status);

#endif  // ZERVA_VEMPUB_VEM_COMMAND_LINE_H_
