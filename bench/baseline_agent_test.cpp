// The baseline agent's command line, run as a process: --help and --version
// answer on stdout and exit 0; a bad command line names the problem, prints
// the usage on stderr and exits 2. None of these starts the agent.
#include <gtest/gtest.h>

#include <string>

#include "tests/process/process_harness.h"
#include "zerva_version.h"

namespace {

struct BaselineRun {
  int rc = -1;
  std::string out;  // stdout only
  std::string err;  // stderr only
};

BaselineRun Baseline(const std::string& args) {
  BaselineRun r;
  const std::string program = std::string("timeout 20 ") + BASELINE_AGENT_PATH + " " + args;
  r.out = zerva_test::RunShell("{ " + program + " 2>/dev/null; }", &r.rc);
  int rc = -1;
  r.err = zerva_test::RunShell("{ " + program + " 2>&1 >/dev/null; }", &rc);
  EXPECT_EQ(rc, r.rc) << args;
  return r;
}

TEST(BaselineAgentCommandLineTest, HelpPrintsTheUsageOnStdout) {
  const BaselineRun r = Baseline("--help");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.out.rfind("usage: baseline_agent --mib FILE", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("--filesystems N"), std::string::npos) << r.out;
  EXPECT_EQ(r.err, "");
}

TEST(BaselineAgentCommandLineTest, VersionPrintsTheProjectVersionOnStdout) {
  const BaselineRun r = Baseline("--version");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.out, std::string("baseline_agent ") + ZERVA_VERSION + "\n");
  EXPECT_EQ(r.err, "");
}

TEST(BaselineAgentCommandLineTest, BadCommandLinesExitTwoWithTheUsage) {
  const struct {
    const char* args;
    const char* message;
  } cases[] = {
      {"--bogus", "baseline_agent: unknown option '--bogus'\n"},
      {"-q", "baseline_agent: unknown option '-q'\n"},
      {"--mib", "baseline_agent: --mib needs a value\n"},
      {"--luns 12x", "baseline_agent: --luns: '12x' is not a number of rows\n"},
      {"--controllers -1", "baseline_agent: --controllers: '-1' is not a number of rows\n"},
      {"--version=2", "baseline_agent: --version takes no value\n"},
      {"extra", "baseline_agent: unexpected argument 'extra'\n"},
  };
  for (const auto& c : cases) {
    const BaselineRun r = Baseline(c.args);
    EXPECT_EQ(r.rc, 2) << c.args;
    EXPECT_EQ(r.err.rfind(c.message, 0), 0u) << c.args << "\n" << r.err;
    EXPECT_NE(r.err.find("usage: baseline_agent"), std::string::npos) << c.args;
    EXPECT_EQ(r.out, "") << c.args;
  }
}

TEST(BaselineAgentCommandLineTest, MissingMibExitsTwo) {
  const BaselineRun r = Baseline("--luns 0010");
  EXPECT_EQ(r.rc, 2);
  EXPECT_EQ(r.err, "baseline_agent: --mib is required\n");
}

}  // namespace
