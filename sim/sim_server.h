// The array simulator's embedding interface: a management back end that
// speaks the TLV protocol on a socket. The agent runs one in-process as its
// default back end; the zerva-array-sim program runs one on its own; tests
// start one per test and read its ground truth.
#ifndef ZERVA_SIM_ARRAY_SIM_H_
#define ZERVA_SIM_ARRAY_SIM_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace zerva_sim {

struct SimOptions {
  // Topology file; empty: the built-in mid-size array.
  std::string topologyFile;
  // Overrides of the topology (negative: keep what the topology says).
  long luns = -1;
  long fileSystems = -1;
  long features = -1;  // bit 0: 48 (NFS), bit 1: 49 (SMB), bit 2: 602 (file systems)
  long switchOn = -1;  // initial performance switch state
  uint64_t seed = 1;   // workload model seed
  // Where to listen: "unix:/path" or "tcp:127.0.0.1:port" (port 0 picks one).
  std::string listen;
  // Device configuration for the command codes; empty: the host's default.
  std::string deviceConfig;
  // Faults and answer latencies in force from the first request, as
  // --fault and --latency take them (command names of deviceConfig).
  std::vector<std::string> faults;
  std::vector<std::string> latencies;
};

class ArraySimulator;  // the model: topology, statistics, switch, faults

class ArraySimServer {
 public:
  explicit ArraySimServer(const SimOptions& options);
  ~ArraySimServer();  // stops
  ArraySimServer(const ArraySimServer&) = delete;
  ArraySimServer& operator=(const ArraySimServer&) = delete;

  // Loads the topology, binds and starts serving on its own thread(s).
  // False with *error when the topology, the address, a fault or a latency
  // is bad; *badOption (when given) then tells a bad fault or latency text
  // from a file or address that does not work.
  bool start(std::string* error, bool* badOption = nullptr);
  // Closes the listener and every connection; joins the threads.
  void stop();
  // The address actually bound ("tcp:127.0.0.1:40123" when port 0 was asked).
  std::string address() const;

  // The model, for ground truth and fault control in tests and tools.
  ArraySimulator& array();
  // Requests answered so far, by record identifier of the request's first record.
  std::map<unsigned long long, uint64_t> commandCounts() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zerva_sim

#endif  // ZERVA_SIM_ARRAY_SIM_H_
