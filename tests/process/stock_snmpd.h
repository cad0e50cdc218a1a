// A stock snmpd from Debian as a child process of a test: loopback UDP port,
// a temporary configuration of the test's lines (no default configuration
// files, no SMUX), its state and log in the test's directory. It serves as
// the AgentX master of the agent, or loads the agent as its dlmod module.
#ifndef ZERVA_TESTS_PROCESS_STOCK_SNMPD_H_
#define ZERVA_TESTS_PROCESS_STOCK_SNMPD_H_

#include <memory>
#include <string>

#include "tests/process/process_harness.h"

namespace zerva_test {

class StockSnmpd {
 public:
  // The snmpd program, and the agent's dlmod library.
  static std::string Program();
  static std::string DlmodLibrary();
  // The configuration line that loads the agent's dlmod library.
  static std::string DlmodLine();

  // REQUIRES: dir outlives the object.
  explicit StockSnmpd(const TempDir& dir) : dir_(dir) {}
  ~StockSnmpd() { stop(); }
  StockSnmpd(const StockSnmpd&) = delete;
  StockSnmpd& operator=(const StockSnmpd&) = delete;

  // Starts snmpd on udp:127.0.0.1:port with `lines` as its configuration
  // (nothing else: the caller gives the access lines). extraArgs are put
  // before the listening address (for example "-Lf FILE" instead of
  // logging to stdout). False with *error when it exits at once.
  bool start(int port, const std::string& lines, std::string* error, const std::vector<std::string>& extraArgs = {});
  // Starts snmpd as an AgentX master on a socket in the directory, with a
  // community that reads `view` (an OID; "" for everything) from 127.0.0.1.
  // False with *error unless the socket appears within about 5 s.
  bool startMaster(int port, const std::string& view, std::string* error);

  // The AgentX socket of startMaster().
  std::string agentxSocket() const { return dir_.path() + "/agentx.sock"; }
  // What snmpd wrote to stdout and stderr.
  std::string log() const { return ReadFile(logPath()); }
  std::string logPath() const { return dir_.path() + "/snmpd.log"; }
  // True while snmpd runs.
  bool running() { return process_ && process_->running(); }
  // Stops snmpd (SIGTERM) and returns its exit status (-1 when not running).
  int stop();

 private:
  const TempDir& dir_;
  std::unique_ptr<Process> process_;
};

}  // namespace zerva_test

#endif  // ZERVA_TESTS_PROCESS_STOCK_SNMPD_H_
