// Command-line flags of the zerva-array-sim program.
#ifndef ZERVA_SIM_SIM_FLAGS_H_
#define ZERVA_SIM_SIM_FLAGS_H_

#include <string>
#include <vector>

#include "sim/sim_server.h"

namespace zerva_sim {

struct SimFlags {
  SimOptions options;
  bool help = false;     // -h / --help
  bool version = false;  // --version
};

// The usage text.
std::string SimUsage(const char* program);

// Parses argv[1..] with getopt_long (--flag VALUE or --flag=VALUE); can be
// called again for another argv. False with *error, naming the flag, for an
// unknown flag, a missing or bad value, an argument that is not a flag, or no
// --listen (not needed with --help or --version). Numbers are decimal
// (ParseDecimal).
bool ParseSimFlags(int argc, const char* const* argv, SimFlags* out, std::string* error);

// Parses a --features value: a bitmask 0 to 7 (decimal or 0x-hex, bit 0 = 48,
// bit 1 = 49, bit 2 = 602), "none", "all", or a list such as "48,602".
bool ParseFeatures(const std::string& text, long* mask, std::string* error);

}  // namespace zerva_sim

#endif  // ZERVA_SIM_SIM_FLAGS_H_
