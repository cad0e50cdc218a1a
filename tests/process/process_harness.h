// Helpers for tests that run the agent, the simulator or a stock snmpd as
// child processes on loopback and ask them with the Debian SNMP clients.
#ifndef ZERVA_TESTS_PROCESS_PROCESS_HARNESS_H_
#define ZERVA_TESTS_PROCESS_PROCESS_HARNESS_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace zerva_test {

// The subtree the module serves, and its one scalar (the collection switch).
extern const char kSubtree[];
extern const char kSwitch[];

// Numeric OIDs as the tests hold them.
typedef std::vector<unsigned long> Oid;
Oid ParseOid(const std::string& dotted);  // ".1.3.6" or "1.3.6"
std::string OidText(const Oid& oid);      // ".1.3.6"
// True when oid is prefix or lies under it.
bool Under(const Oid& oid, const Oid& prefix);
// kSubtree and kSwitch as OIDs.
Oid Subtree();
Oid SwitchOid();
// The index of a row whose index is a text: its length, then its bytes.
Oid StringIndex(const std::string& text);
// A column of a table (table OID, entry 1, column), and one of its
// instances (the column and the row's index).
Oid ColumnOid(const Oid& table, unsigned long column);
Oid InstanceOid(const Oid& table, unsigned long column, const Oid& index);

// A UDP port on 127.0.0.1 that was free a moment ago.
int FreeUdpPort();

// A child process with stdout and stderr to `output`, ended (SIGTERM, then
// SIGKILL) when the object goes.
class Process {
 public:
  Process(const std::vector<std::string>& argv, const std::string& output);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  pid_t pid() const { return pid_; }
  // True while the child has not exited.
  bool running();
  // Waits for the exit (at most about 5 s); the exit status, 128 + signal,
  // or -1 when it is still running.
  int wait();
  // Sends SIGTERM and waits; SIGKILL after about 5 s. The exit status, or -1.
  int stop();
  // Sends `signal` and reaps the child.
  void kill(int signal);

 private:
  pid_t pid_ = -1;
};

// Runs a shell command; its output (stdout and stderr), and *rc its exit code.
std::string RunShell(const std::string& command, int* rc = nullptr);

// The whole text of a file ("" when it cannot be read).
std::string ReadFile(const std::string& path);

// The lines of text (without their newline) that contain part.
std::vector<std::string> LinesWith(const std::string& text, const std::string& part);

// The names and types of a walk's lines ("OID = TYPE"), values left out:
// statistics move between two walks. "No more variables" lines are skipped.
std::vector<std::string> Shape(const std::string& walk);

// Loopback SNMP through the Debian client programs: numeric OIDs, bounded
// timeouts (2 s, one retry), no MIB files, client state in `stateDir`.
class Snmp {
 public:
  Snmp(const std::string& stateDir, int port);
  // Runs `program` (snmpget, snmpwalk, ...) with `auth` and `args`.
  std::string tool(const std::string& program, const std::string& auth, const std::string& args,
                   int* rc = nullptr) const;
  std::string get(const std::string& oid, const std::string& auth = "-v2c -c public") const;
  std::string walk(const std::string& auth = "-v2c -c public") const;
  // Waits (at most about 15 s) until the agent answers a GET of the switch.
  bool ready(const std::string& auth = "-v2c -c public") const;
  int port() const { return port_; }
  // The environment prefix the tools run with.
  const std::string& env() const { return env_; }

 private:
  int port_;
  std::string env_;
};

}  // namespace zerva_test

#endif  // ZERVA_TESTS_PROCESS_PROCESS_HARNESS_H_
