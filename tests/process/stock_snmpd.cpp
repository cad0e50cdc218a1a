#include "tests/process/stock_snmpd.h"

#include <unistd.h>

#include <chrono>
#include <thread>

namespace zerva_test {

std::string StockSnmpd::Program() { return ZERVA_SNMPD_PROGRAM; }
std::string StockSnmpd::DlmodLibrary() { return ZERVA_AGENT_DLMOD; }
std::string StockSnmpd::DlmodLine() { return "dlmod zerva_snmp_dlmod " + DlmodLibrary() + "\n"; }

bool StockSnmpd::start(int port, const std::string& lines, std::string* error,
                       const std::vector<std::string>& extraArgs) {
  stop();
  const std::string conf = dir_.file("snmpd.conf", lines);
  std::vector<std::string> argv = {"/usr/bin/env", "MIBS=", "SNMP_PERSISTENT_DIR=" + dir_.path(), Program(), "-f"};
  if (extraArgs.empty()) argv.push_back("-Lo");
  argv.insert(argv.end(), {"-C", "-c", conf, "-I", "-smux"});
  argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
  argv.push_back("udp:127.0.0.1:" + std::to_string(port));
  process_.reset(new Process(argv, logPath()));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  if (!process_->running()) {
    *error = "snmpd exited at once: " + log();
    return false;
  }
  return true;
}

bool StockSnmpd::startMaster(int port, const std::string& view, std::string* error) {
  const std::string socket = agentxSocket();
  const std::string lines = "rocommunity public 127.0.0.1" + (view.empty() ? std::string() : " " + view) +
                            "\nmaster agentx\nagentXSocket " + socket + "\n";
  if (!start(port, lines, error)) return false;
  for (int i = 0; i < 50 && access(socket.c_str(), F_OK) != 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  if (access(socket.c_str(), F_OK) != 0) {
    *error = "snmpd opened no AgentX socket " + socket + ": " + log();
    return false;
  }
  return true;
}

int StockSnmpd::stop() {
  if (!process_) return -1;
  const int rc = process_->stop();
  process_.reset();
  return rc;
}

}  // namespace zerva_test
