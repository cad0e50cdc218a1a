// The simulated array's answer latency: how long its management plane takes
// to answer a command. A real array's answers in about a millisecond or
// more; benchmarks of the agent against a slow back end set it here. Unlike
// a delay fault it is the array's normal behaviour, not an injected failure:
// it applies to every request of its command (control requests excepted),
// is listed apart from the faults, and adds to a delay fault.
//
// Text form (--latency, the control command): [COMMAND=]MS, with COMMAND as
// a fault's cmd= names it and MS from 0 to kMaxLatencyMs. Without COMMAND it
// is the latency of every command that has none of its own; MS 0 removes a
// setting.
#ifndef ZERVA_SIM_LATENCY_H_
#define ZERVA_SIM_LATENCY_H_

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sim/fault.h"

namespace zerva_sim {

struct LatencySetting {
  bool anyCommand = true;  // false: only requests whose first record is `command`
  unsigned long long command = 0;
  uint32_t ms = 0;
};

// Longest latency a command may be given.
const uint32_t kMaxLatencyMs = 60000;

// Parses the text form above. False with *error when it is not one.
bool ParseLatency(const std::string& text, const CommandResolver& resolve, LatencySetting* out, std::string* error);
// The text form of a setting (command as 0x-hexadecimal).
std::string LatencyText(const LatencySetting& setting);

// The latencies in force. Thread-safe.
class LatencyTable {
 public:
  // Sets the latency of the setting's command (or of every command),
  // replacing the one it had; ms 0 removes it.
  void set(const LatencySetting& setting);
  void clear();
  // The settings, the every-command one first, then by command.
  std::vector<LatencySetting> list() const;
  // The latency of a request of this command: its own setting, else the
  // every-command one, else 0.
  uint32_t of(unsigned long long command) const;

 private:
  mutable std::mutex mu_;
  uint32_t anyMs_ = 0;
  std::map<unsigned long long, uint32_t> commandMs_;
};

}  // namespace zerva_sim

#endif  // ZERVA_SIM_LATENCY_H_
