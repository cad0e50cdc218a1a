// Fault injection for the simulator's answers.
//
// A fault applies to the requests of one command (by record identifier) or
// of every command, always or at a random rate, for a number of requests or
// until cleared. The text form, used by the --fault flag and the control
// command, is
//   KIND[=ARG][,cmd=COMMAND][,rate=P][,count=N]
// with KIND one of refuse=CODE, delay=MS, close, garbage, truncate,
// bad-magic, bad-version, huge-len, bad-values,
// bad-body; COMMAND a decimal or 0x-hexadecimal
// record identifier or a command name the simulator knows; P in (0, 1];
// N >= 1 (absent: until cleared).
#ifndef ZERVA_SIM_FAULT_H_
#define ZERVA_SIM_FAULT_H_

#include <cstdint>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace zerva_sim {

enum class FaultKind {
  kRefuse,      // answer with result code `code` and no records
  kDelay,       // wait delayMs, then answer normally
  kClose,       // close the connection without answering
  kGarbage,     // answer bytes that are not a frame, then close
  kTruncate,    // answer a header and part of the body, then close
  kBadMagic,    // answer a frame whose magic is wrong, then close
  kBadVersion,  // answer a frame whose version is wrong, then close
  kHugeLength,  // answer a header announcing a 4 GiB body, then close
  kBadValues,   // answer normally, but every values text (tag 9) is no number list
  kBadBody,     // answer a whole frame whose body does not decode, then close
};

struct FaultRule {
  FaultKind kind = FaultKind::kRefuse;
  uint32_t code = 0;       // kRefuse: the result code
  uint32_t delayMs = 0;    // kDelay
  bool anyCommand = true;  // false: only requests whose first record is `command`
  unsigned long long command = 0;
  double rate = 1.0;   // chance that a matching request is hit
  uint64_t count = 0;  // requests still to hit; 0: until cleared
};

// Longest delay a fault may ask for.
const uint32_t kMaxFaultDelayMs = 60000;

// Resolves a command name to its record identifier; false when unknown.
typedef std::function<bool(const std::string& name, unsigned long long* id)> CommandResolver;

// A command as the text forms of faults and latencies name it: a decimal or
// 0x-hexadecimal record identifier, or a name resolve knows. False when it
// is neither.
bool ParseCommandId(const std::string& text, const CommandResolver& resolve, unsigned long long* id);

// Parses the text form above. False with *error when it is not one.
bool ParseFault(const std::string& text, const CommandResolver& resolve, FaultRule* out, std::string* error);
// The text form of a fault (command as 0x-hexadecimal).
std::string FaultText(const FaultRule& rule);

// The active faults. Thread-safe.
class FaultTable {
 public:
  explicit FaultTable(uint64_t seed) : rng_(seed) {}

  void add(const FaultRule& rule);
  void clear();
  std::vector<FaultRule> list() const;

  // Picks the first active fault that hits a request of this command (rolls
  // its rate, counts it down, drops it when used up). False when none does.
  bool match(unsigned long long command, FaultRule* out);

 private:
  mutable std::mutex mu_;
  std::vector<FaultRule> faults_;
  std::mt19937_64 rng_;
};

}  // namespace zerva_sim

#endif  // ZERVA_SIM_FAULT_H_
