// ConfigReload: what the agent does on SIGHUP, apart from Net-SNMP.
//
// The new configuration is checked first by the program itself in a child
// process (zerva-snmp-agent --check-config with the same -c, -x, --listen
// and --state-dir), with a bounded wait: a configuration it rejects is not
// applied and the old one keeps serving. A good one is read again (by
// Net-SNMP, which redoes access, communities and users, and hands our
// tokens over on top of their defaults); the settings a running agent
// cannot change keep their old value, and the log takes the new level, kit
// levels, destination and folding (a log file is opened again).
#ifndef ZERVA_AGENT_CONFIG_RELOAD_H_
#define ZERVA_AGENT_CONFIG_RELOAD_H_

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "host/agent/agent_options.h"

namespace zerva_agent {

// The arguments (after the program name) of the check of the configuration
// the agent of `cmd` reads: --check-config and its -c, -x, --listen and
// --state-dir.
std::vector<std::string> CheckConfigArguments(const CommandLine& cmd);

// What a check in a child process gave.
struct CheckOutcome {
  bool good = false;   // the child exited 0
  std::string output;  // what it wrote to stdout and stderr, or why it could not run
};

// Runs program with args, collects its output, and waits at most `limit`
// for it to exit (then it is killed, and the check fails).
CheckOutcome RunConfigCheck(const std::string& program, const std::vector<std::string>& args,
                            std::chrono::milliseconds limit);

// The names of the tokens whose value in *reread differs from `running`
// while the agent cannot change them without a restart (what the back end,
// the module and the embedded simulator were set up with, the role); each
// of them gets its running value back in *reread.
std::vector<std::string> KeepRestartSettings(const AgentOptions& running, AgentOptions* reread);

class ConfigReload {
 public:
  struct Steps {
    // Checks the configuration as a start would.
    std::function<CheckOutcome()> check;
    // Reads the configuration again into *options (set to the defaults
    // first); adds the names of settings outside AgentOptions that changed
    // but keep their running value (agentaddress) to *kept.
    std::function<void(AgentOptions* options, std::vector<std::string>* kept)> reread;
    // Applies the log settings; false with *error (a log file that cannot
    // be opened).
    std::function<bool(const AgentOptions& options, std::string* error)> applyLog;
  };

  // configName names the configuration in the log lines ("FILE", or the
  // built-in default when there is no file).
  ConfigReload(std::string configName, Steps steps) : configName_(std::move(configName)), steps_(std::move(steps)) {}

  // One SIGHUP: check, then read and apply. *running becomes the new
  // settings when it is applied. False (and *running unchanged) when the
  // check rejects the configuration: one error line with its problems.
  bool reload(AgentOptions* running);

 private:
  std::string configName_;
  Steps steps_;
};

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_CONFIG_RELOAD_H_
