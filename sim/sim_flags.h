// Command-line flags of the zerva-array-sim program.
#ifndef ZERVA_SIM_SIM_FLAGS_H_
#define ZERVA_SIM_SIM_FLAGS_H_

#include <string>
#include <vector>

#include "sim/sim_server.h"

namespace zerva_sim {

struct SimFlags {
  SimOptions options;
  std::vector<std::string> faults;  // --fault texts, in order
  bool help = false;
};

// The usage text.
std::string SimUsage(const char* program);

// Parses argv[1..]. False with *error for an unknown flag, a missing or bad
// value, or no --listen.
bool ParseSimFlags(int argc, const char* const* argv, SimFlags* out, std::string* error);

// Parses a --features value: a bitmask (decimal or 0x-hex, bit 0 = 48,
// bit 1 = 49, bit 2 = 602), "none", "all", or a list such as "48,602".
bool ParseFeatures(const std::string& text, long* mask, std::string* error);

}  // namespace zerva_sim

#endif  // ZERVA_SIM_SIM_FLAGS_H_
