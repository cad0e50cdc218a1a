#include "vempub/vem_command_line.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace {

enum { kOptListen = VEM_LONG_OPTION_BASE, kOptQuiet };

// What the parse gave, with the options as "name=value" texts.
struct Seen {
  std::vector<std::string> options;
  std::vector<std::string> operands;
  bool help = false;
  bool version = false;
  std::string error;
};

// Parses {"prog", args...} with -c FILE, -f, -h, --listen ADDR and --quiet.
bool Parse(std::vector<const char*> args, Seen* seen, const char* noun = "option", const char* valuePrefix = "",
           bool withOperands = false) {
  args.insert(args.begin(), "prog");
  VEMCommandLineSyntax syntax;
  syntax.shortOptions = "c:fh";
  syntax.longOptions = "listen:,quiet";
  syntax.noun = noun;
  syntax.valuePrefix = valuePrefix;
  const VEMOptionHandler record = [seen](int code, const std::string& value, std::string* error) {
    if (code == 'c' && value == "refused") {
      *error = "-c: refused";
      return false;
    }
    const std::string name = code == kOptListen  ? "listen"
                             : code == kOptQuiet ? "quiet"
                                                 : std::string(1, static_cast<char>(code));
    seen->options.push_back(name + "=" + value);
    return true;
  };
  return VEMParseOptions(static_cast<int>(args.size()), args.data(), syntax, record,
                         withOperands ? &seen->operands : nullptr, &seen->help, &seen->version, &seen->error);
}

TEST(VEMParseOptionsTest, HandsEveryOptionAndValueToTheHandlerInOrder) {
  Seen seen;
  ASSERT_TRUE(Parse({"-fc", "a.conf", "--listen", "udp:1", "--listen=udp:2", "--quiet", "-c", "b"}, &seen))
      << seen.error;
  EXPECT_EQ(seen.options,
            (std::vector<std::string>{"f=", "c=a.conf", "listen=udp:1", "listen=udp:2", "quiet=", "c=b"}));
  EXPECT_FALSE(seen.help);
  EXPECT_FALSE(seen.version);
}

TEST(VEMParseOptionsTest, HelpAndVersionAreNotedNotHandedOn) {
  for (const char* arg : {"-h", "--help"}) {
    Seen seen;
    ASSERT_TRUE(Parse({"-f", arg}, &seen)) << arg << ": " << seen.error;
    EXPECT_TRUE(seen.help) << arg;
    EXPECT_FALSE(seen.version) << arg;
    EXPECT_EQ(seen.options, (std::vector<std::string>{"f="})) << arg;
  }
  Seen seen;
  ASSERT_TRUE(Parse({"--version"}, &seen)) << seen.error;
  EXPECT_TRUE(seen.version);
  EXPECT_FALSE(seen.help);
  EXPECT_TRUE(seen.options.empty());
}

TEST(VEMParseOptionsTest, ShortHelpOnlyWhereTheSyntaxHasIt) {
  const char* args[] = {"prog", "-h"};
  VEMCommandLineSyntax syntax;
  syntax.shortOptions = "f";
  bool help = false;
  bool version = false;
  std::string error;
  const VEMOptionHandler none = [](int, const std::string&, std::string*) { return true; };
  EXPECT_FALSE(VEMParseOptions(2, args, syntax, none, nullptr, &help, &version, &error));
  EXPECT_EQ(error, "unknown option '-h'");
  EXPECT_FALSE(help);
}

TEST(VEMParseOptionsTest, UnknownOptionsAreNamedAsWritten) {
  for (const char* arg : {"-q", "-fq", "--bogus", "--bogus=1"}) {
    Seen seen;
    EXPECT_FALSE(Parse({arg}, &seen)) << arg;
    const std::string named = arg[1] == '-' ? "--bogus" : "-q";
    EXPECT_EQ(seen.error, "unknown option '" + named + "'") << arg;
  }
  Seen seen;
  EXPECT_FALSE(Parse({"--bogus"}, &seen, "flag"));
  EXPECT_EQ(seen.error, "unknown flag '--bogus'");
}

TEST(VEMParseOptionsTest, MissingValueNamesTheOptionWithTheProgramsPrefix) {
  Seen seen;
  EXPECT_FALSE(Parse({"-c"}, &seen));
  EXPECT_EQ(seen.error, "-c needs a value");
  EXPECT_FALSE(Parse({"-f", "--listen"}, &seen));
  EXPECT_EQ(seen.error, "--listen needs a value");
  EXPECT_FALSE(Parse({"--listen"}, &seen, "option", "option "));
  EXPECT_EQ(seen.error, "option --listen needs a value");
}

TEST(VEMParseOptionsTest, ValueForALongOptionWithoutOneIsRefused) {
  Seen seen;
  EXPECT_FALSE(Parse({"--help=all"}, &seen));
  EXPECT_EQ(seen.error, "--help takes no value");
  EXPECT_FALSE(Parse({"--quiet=yes"}, &seen, "option", "option "));
  EXPECT_EQ(seen.error, "option --quiet takes no value");
}

TEST(VEMParseOptionsTest, ArgumentThatIsNotAnOptionIsAnErrorWithoutOperands) {
  Seen seen;
  EXPECT_FALSE(Parse({"-f", "extra", "more"}, &seen));
  EXPECT_EQ(seen.error, "unexpected argument 'extra'");
}

TEST(VEMParseOptionsTest, OperandsAreCollectedInOrderAroundTheOptions) {
  Seen seen;
  ASSERT_TRUE(Parse({"first", "-f", "second", "--listen", "x", "third"}, &seen, "option", "", true)) << seen.error;
  EXPECT_EQ(seen.operands, (std::vector<std::string>{"first", "second", "third"}));
  EXPECT_EQ(seen.options, (std::vector<std::string>{"f=", "listen=x"}));
}

TEST(VEMParseOptionsTest, HandlerRefusalStopsTheParseWithItsError) {
  Seen seen;
  EXPECT_FALSE(Parse({"-c", "refused", "-f"}, &seen));
  EXPECT_EQ(seen.error, "-c: refused");
  EXPECT_TRUE(seen.options.empty());
}

TEST(VEMParseOptionsTest, EachCallStartsAFreshParse) {
  Seen first;
  EXPECT_FALSE(Parse({"-f", "-q"}, &first));
  Seen second;
  ASSERT_TRUE(Parse({"-f"}, &second)) << second.error;
  EXPECT_EQ(second.options, (std::vector<std::string>{"f="}));
}

const VEMProgramTexts kTexts = {"prog", "usage: prog [-f]\n", "prog 1.2.3"};

// What VEMAnswerCommandLine did: its result, the status and what it printed.
struct Answer {
  bool answered;
  int status;
  std::string out;
  std::string err;
  bool operator==(const Answer& o) const {
    return answered == o.answered && status == o.status && out == o.out && err == o.err;
  }
};

std::ostream& operator<<(std::ostream& os, const Answer& a) {
  return os << "{answered " << a.answered << ", status " << a.status << ", out \"" << a.out << "\", err \"" << a.err
            << "\"}";
}

Answer AnswerFor(bool parsed, const std::string& error, bool help, bool version) {
  Answer a = {false, -1, "", ""};
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  a.answered = VEMAnswerCommandLine(parsed, error, help, version, kTexts, &a.status);
  a.err = testing::internal::GetCapturedStderr();
  a.out = testing::internal::GetCapturedStdout();
  return a;
}

TEST(VEMAnswerCommandLineTest, ParseErrorPrintsErrorAndUsageOnStderrWithStatusTwo) {
  const Answer expected = {true, 2, "", "prog: unknown option '-q'\nusage: prog [-f]\n"};
  EXPECT_EQ(AnswerFor(false, "unknown option '-q'", true, true), expected);
  EXPECT_EQ(VEM_EXIT_BAD_USAGE, 2);
}

TEST(VEMAnswerCommandLineTest, HelpPrintsTheUsageOnStdoutWithStatusZero) {
  EXPECT_EQ(AnswerFor(true, "", true, true), (Answer{true, 0, "usage: prog [-f]\n", ""}));
}

TEST(VEMAnswerCommandLineTest, VersionPrintsTheVersionLineOnStdoutWithStatusZero) {
  EXPECT_EQ(AnswerFor(true, "", false, true), (Answer{true, 0, "prog 1.2.3\n", ""}));
}

TEST(VEMAnswerCommandLineTest, PlainCommandLineLetsTheProgramGoOn) {
  EXPECT_EQ(AnswerFor(true, "", false, false), (Answer{false, -1, "", ""}));
}

TEST(VEMRefuseCommandLineTest, PrintsErrorAndUsageOnStderrAndGivesStatusTwo) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int status = VEMRefuseCommandLine(kTexts, "an address is needed");
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(err, "prog: an address is needed\nusage: prog [-f]\n");
  EXPECT_EQ(status, 2);
}

}  // namespace
