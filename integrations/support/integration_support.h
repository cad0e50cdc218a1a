// Helpers for the tests of the monitoring-system integrations
// (integrations/): each runs a Debian monitoring tool as a child process
// against the agent on loopback and compares what the tool reports with the
// simulated array's ground truth.
#ifndef ZERVA_INTEGRATIONS_SUPPORT_INTEGRATION_SUPPORT_H_
#define ZERVA_INTEGRATIONS_SUPPORT_INTEGRATION_SUPPORT_H_

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "host/agent/mib_description.h"
#include "tests/process/ground_truth.h"
#include "tests/process/process_harness.h"

namespace zerva_integrations {

// The source tree's directory of the integrations ("/.../integrations").
std::string IntegrationsDir();

// A TCP port on 127.0.0.1 that was free a moment ago.
int FreeTcpPort();

// One HTTP/1.0 GET from 127.0.0.1:port. status 0 and `error` set when no
// answer came (refused, timed out after timeoutMs, not HTTP).
struct HttpResponse {
  int status = 0;
  std::string body;
  std::string error;
};
HttpResponse HttpGet(int port, const std::string& path, int timeoutMs = 20000);

// Calls `done` every `every` until it returns true or `limit` has passed;
// the last result.
bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit,
               std::chrono::milliseconds every = std::chrono::milliseconds(100));

// `text` with the one occurrence of `from` replaced by `to`; *count is the
// number of occurrences there were (the text is unchanged unless 1).
std::string ReplaceOnce(const std::string& text, const std::string& from, const std::string& to, int* count);

// The text a ground-truth string value holds (Value keeps strings as hex).
std::string TextOf(const zerva_test::Value& value);

// The ground-truth value of one cell ("" with *found false when the row has
// no instance in that column).
std::string CellOf(const zerva_test::TableTruth& truth, unsigned int column, const zerva_test::Oid& rowIndex,
                   bool* found = nullptr);

// "" when both maps are equal, else up to `max` lines naming what is
// missing, unexpected or different (key: expected -> actual).
std::string MapDiff(const std::map<std::string, std::string>& expected,
                    const std::map<std::string, std::string>& actual, size_t max = 20);

// The lines of a text, without their line ends.
std::vector<std::string> Lines(const std::string& text);

// A decimal text of a whole number the tool printed as a float ("1291.000000",
// "4.294967295e+09" -> "4294967295"); the text itself when it is not a
// whole number.
std::string WholeNumber(const std::string& text);

// Runs argv (no shell) with the given extra environment ("NAME=value"), in
// `dir` when not empty, waiting at most `limitSeconds`; its output (stdout
// and stderr) and *rc its exit status (-1 when it had to be killed).
std::string RunProgram(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                       const std::string& dir, int limitSeconds, int* rc);

}  // namespace zerva_integrations

#endif  // ZERVA_INTEGRATIONS_SUPPORT_INTEGRATION_SUPPORT_H_
