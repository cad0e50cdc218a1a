#include "host/agent/config_reload.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "vempub/vem_debug_kit.h"

namespace zerva_agent {

std::vector<std::string> CheckConfigArguments(const CommandLine& cmd) {
  std::vector<std::string> args = {"--check-config"};
  if (!cmd.configFile.empty()) args.insert(args.end(), {"-c", cmd.configFile});
  if (!cmd.agentxSocket.empty()) args.insert(args.end(), {"-x", cmd.agentxSocket});
  if (!cmd.listen.empty()) args.insert(args.end(), {"--listen", cmd.listen});
  if (!cmd.stateDir.empty()) args.insert(args.end(), {"--state-dir", cmd.stateDir});
  return args;
}

CheckOutcome RunConfigCheck(const std::string& program, const std::vector<std::string>& args,
                            std::chrono::milliseconds limit) {
  CheckOutcome outcome;
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    outcome.output = std::string("cannot run the check: ") + strerror(errno);
    return outcome;
  }
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid < 0) {
    outcome.output = std::string("cannot run the check: ") + strerror(errno);
    close(pipeFds[0]);
    close(pipeFds[1]);
    return outcome;
  }
  if (pid == 0) {
    // The child: both outputs into the pipe, nothing else of the agent's.
    dup2(pipeFds[1], STDOUT_FILENO);
    dup2(pipeFds[1], STDERR_FILENO);
    const int devNull = open("/dev/null", O_RDONLY);
    if (devNull >= 0) dup2(devNull, STDIN_FILENO);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  close(pipeFds[1]);
  const auto deadline = std::chrono::steady_clock::now() + limit;
  bool timedOut = false;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      timedOut = true;
      break;
    }
    struct pollfd p = {pipeFds[0], POLLIN, 0};
    const int ready = poll(&p, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) continue;
    char buf[4096];
    const ssize_t n = read(pipeFds[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // the child closed its end: it is exiting
    outcome.output.append(buf, static_cast<size_t>(n));
  }
  close(pipeFds[0]);
  int status = 0;
  if (timedOut) {
    kill(pid, SIGKILL);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    outcome.output += "the check did not end within " + std::to_string(limit.count()) + " ms";
    return outcome;
  }
  // Its output ended; the exit follows at once, within the same limit.
  for (;;) {
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    if (done < 0 && errno != EINTR) break;
    if (std::chrono::steady_clock::now() >= deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      outcome.output += "the check did not end within " + std::to_string(limit.count()) + " ms";
      return outcome;
    }
    usleep(10000);
  }
  outcome.good = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (WIFEXITED(status) && WEXITSTATUS(status) == 127 && outcome.output.empty()) {
    outcome.output = "cannot run " + program;
  }
  return outcome;
}

std::vector<std::string> KeepRestartSettings(const AgentOptions& running, AgentOptions* reread) {
  std::vector<std::string> kept;
  auto keep = [&kept](const char* name, auto& now, const auto& before) {
    if (now == before) return;
    now = before;
    kept.push_back(name);
  };
  keep("zervaModule", reread->modulePath, running.modulePath);
  keep("zervaMibDir", reread->mibDir, running.mibDir);
  keep("zervaBackend", reread->backend, running.backend);
  keep("zervaBackendTimeout", reread->backendTimeoutMs, running.backendTimeoutMs);
  keep("zervaSnapshotSeconds", reread->snapshotSeconds, running.snapshotSeconds);
  keep("zervaWalkSeconds", reread->walkSeconds, running.walkSeconds);
  keep("zervaWaitMilliseconds", reread->waitMs, running.waitMs);
  keep("zervaMaxAgeSeconds", reread->maxAgeSeconds, running.maxAgeSeconds);
  keep("zervaBatchRows", reread->batchRows, running.batchRows);
  keep("zervaDeviceConfig", reread->deviceConfig, running.deviceConfig);
  keep("zervaSimTopology", reread->simTopology, running.simTopology);
  keep("zervaSimLuns", reread->simLuns, running.simLuns);
  keep("zervaSimFileSystems", reread->simFileSystems, running.simFileSystems);
  keep("zervaSimFeatures", reread->simFeatures, running.simFeatures);
  keep("zervaSimSeed", reread->simSeed, running.simSeed);
  keep("zervaSimLatency", reread->simLatencies, running.simLatencies);
  keep("zervaRole", reread->agentx, running.agentx);
  return kept;
}

namespace {

std::string OneLine(const std::string& text) {
  std::string line;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string part = text.substr(start, end - start);
    if (!part.empty()) line += (line.empty() ? "" : "; ") + part;
    start = end + 1;
  }
  return line;
}

}  // namespace

bool ConfigReload::reload(AgentOptions* running) {
  const CheckOutcome check = steps_.check();
  if (!check.good) {
    VEMLog(VEM_KIT_AGENT, VEM_LOG_ERROR, "reload", __LINE__,
           "configuration %s not reloaded, the previous one stays: %s", configName_.c_str(),
           OneLine(check.output).c_str());
    return false;
  }
  AgentOptions fresh;
  std::vector<std::string> kept;
  steps_.reread(&fresh, &kept);
  const std::vector<std::string> mine = KeepRestartSettings(*running, &fresh);
  kept.insert(kept.begin(), mine.begin(), mine.end());
  if (!kept.empty()) {
    std::string names;
    for (const std::string& k : kept) names += (names.empty() ? "" : ", ") + k;
    VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "reload", __LINE__,
           "%s changed in %s but keep their running value until a restart", names.c_str(), configName_.c_str());
  }
  std::string error;
  if (!steps_.applyLog(fresh, &error)) {
    // The previous destination stays; the rest is applied.
    VEMLog(VEM_KIT_AGENT, VEM_LOG_ERROR, "reload", __LINE__, "%s; the log keeps its previous destination",
           error.c_str());
    fresh.logFile = running->logFile;
    fresh.syslog = running->syslog;
  }
  *running = fresh;
  VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "reload", __LINE__, "configuration reloaded from %s", configName_.c_str());
  return true;
}

}  // namespace zerva_agent
