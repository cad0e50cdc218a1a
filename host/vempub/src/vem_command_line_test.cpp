#include "vempub/vem_command_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

enum { kOptListen = VEM_LONG_OPTION_BASE, kOptHelp };

const struct option kLongOptions[] = {
    {"listen", required_argument, nullptr, kOptListen},
    {"help", no_argument, nullptr, kOptHelp},
    {nullptr, 0, nullptr, 0},
};

// What the handler was given, as "code=value" texts.
struct Seen {
  std::vector<std::string> options;
  std::vector<std::string> operands;
  std::string error;
};

// Parses {"prog", args...} with -c FILE, -f, --listen ADDR and --help.
bool Parse(std::vector<const char*> args, Seen* seen, const VEMOptionWords& words = VEMOptionWords(),
           bool withOperands = false) {
  args.insert(args.begin(), "prog");
  const VEMOptionHandler record = [seen](int code, const std::string& value, std::string* error) {
    if (code == 'c' && value == "refused") {
      *error = "-c: refused";
      return false;
    }
    const std::string name = code < VEM_LONG_OPTION_BASE ? std::string(1, static_cast<char>(code))
                                                         : kLongOptions[code - VEM_LONG_OPTION_BASE].name;
    seen->options.push_back(name + "=" + value);
    return true;
  };
  return VEMParseOptions(static_cast<int>(args.size()), args.data(), "c:f", kLongOptions, words, record,
                         withOperands ? &seen->operands : nullptr, &seen->error);
}

TEST(VEMParseOptionsTest, HandsEveryOptionAndValueToTheHandlerInOrder) {
  Seen seen;
  ASSERT_TRUE(Parse({"-fc", "a.conf", "--listen", "udp:1", "--listen=udp:2", "--help", "-c", "b"}, &seen))
      << seen.error;
  EXPECT_EQ(seen.options, (std::vector<std::string>{"f=", "c=a.conf", "listen=udp:1", "listen=udp:2", "help=", "c=b"}));
}

TEST(VEMParseOptionsTest, UnknownOptionsAreNamedAsWritten) {
  for (const char* arg : {"-q", "-fq", "--bogus", "--bogus=1"}) {
    Seen seen;
    EXPECT_FALSE(Parse({arg}, &seen)) << arg;
    const std::string named = arg[1] == '-' ? "--bogus" : "-q";
    EXPECT_EQ(seen.error, "unknown option '" + named + "'") << arg;
  }
  Seen seen;
  VEMOptionWords flags;
  flags.noun = "flag";
  EXPECT_FALSE(Parse({"--bogus"}, &seen, flags));
  EXPECT_EQ(seen.error, "unknown flag '--bogus'");
}

TEST(VEMParseOptionsTest, MissingValueNamesTheOptionWithTheProgramsPrefix) {
  Seen seen;
  EXPECT_FALSE(Parse({"-c"}, &seen));
  EXPECT_EQ(seen.error, "-c needs a value");
  EXPECT_FALSE(Parse({"-f", "--listen"}, &seen));
  EXPECT_EQ(seen.error, "--listen needs a value");
  VEMOptionWords prefixed;
  prefixed.valuePrefix = "option ";
  EXPECT_FALSE(Parse({"--listen"}, &seen, prefixed));
  EXPECT_EQ(seen.error, "option --listen needs a value");
}

TEST(VEMParseOptionsTest, ValueForALongOptionWithoutOneIsRefused) {
  Seen seen;
  EXPECT_FALSE(Parse({"--help=all"}, &seen));
  EXPECT_EQ(seen.error, "--help takes no value");
  VEMOptionWords prefixed;
  prefixed.valuePrefix = "option ";
  EXPECT_FALSE(Parse({"--help=all"}, &seen, prefixed));
  EXPECT_EQ(seen.error, "option --help takes no value");
}

TEST(VEMParseOptionsTest, ArgumentThatIsNotAnOptionIsAnErrorWithoutOperands) {
  Seen seen;
  EXPECT_FALSE(Parse({"-f", "extra", "more"}, &seen));
  EXPECT_EQ(seen.error, "unexpected argument 'extra'");
}

TEST(VEMParseOptionsTest, OperandsAreCollectedInOrderAroundTheOptions) {
  Seen seen;
  ASSERT_TRUE(Parse({"first", "-f", "second", "--listen", "x", "third"}, &seen, VEMOptionWords(), true)) << seen.error;
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

TEST(VEMAnswerCommandLineTest, ParseErrorPrintsErrorAndUsageOnStderrWithStatusTwo) {
  int status = -1;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_TRUE(VEMAnswerCommandLine(false, "unknown option '-q'", true, true, kTexts, &status));
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(err, "prog: unknown option '-q'\nusage: prog [-f]\n");
  EXPECT_EQ(status, VEM_EXIT_BAD_USAGE);
  EXPECT_EQ(status, 2);
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

TEST(VEMAnswerCommandLineTest, HelpPrintsTheUsageOnStdoutWithStatusZero) {
  int status = -1;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_TRUE(VEMAnswerCommandLine(true, "", true, true, kTexts, &status));
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "usage: prog [-f]\n");
  EXPECT_EQ(err, "");
  EXPECT_EQ(status, 0);
}

TEST(VEMAnswerCommandLineTest, VersionPrintsTheVersionLineOnStdoutWithStatusZero) {
  int status = -1;
  testing::internal::CaptureStdout();
  EXPECT_TRUE(VEMAnswerCommandLine(true, "", false, true, kTexts, &status));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "prog 1.2.3\n");
  EXPECT_EQ(status, 0);
}

TEST(VEMAnswerCommandLineTest, PlainCommandLineLetsTheProgramGoOn) {
  int status = -1;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_FALSE(VEMAnswerCommandLine(true, "", false, false, kTexts, &status));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(status, -1);
}

}  // namespace
