#include "sim/sim_flags.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <sstream>

#include "vempub/vem_command_line.h"
#include "vempub/vem_decimal.h"

namespace zerva_sim {

namespace {

bool ParseCount(const std::string& text, long max, long* out) {
  uint64_t v = 0;
  if (!ParseDecimal(text, static_cast<uint64_t>(max), &v)) return false;
  *out = static_cast<long>(v);
  return true;
}

// A hexadecimal bitmask "0x..." no greater than max.
bool ParseHexMask(const std::string& text, unsigned long max, unsigned long* out) {
  if (text.size() < 3 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) return false;
  if (text.find_first_not_of("0123456789abcdefABCDEF", 2) != std::string::npos) return false;
  errno = 0;
  const unsigned long v = strtoul(text.c_str() + 2, nullptr, 16);
  if (errno != 0 || v > max) return false;
  *out = v;
  return true;
}

// Codes of the long options, in the order of kFlags.
enum Flag {
  kFlagListen = VEM_LONG_OPTION_BASE,
  kFlagTopology,
  kFlagLuns,
  kFlagFileSystems,
  kFlagFeatures,
  kFlagSwitch,
  kFlagSeed,
  kFlagDeviceConfig,
  kFlagFault,
  kFlagLatency,
};

const char kFlags[] = "listen:,topology:,luns:,filesystems:,features:,switch:,seed:,device-config:,fault:,latency:";

}  // namespace

std::string SimUsage(const char* program) {
  return std::string("usage: ") + program +
         " --listen unix:/path|tcp:HOST:PORT [options]\n"
         "  --topology FILE        topology file (default: the built-in mid-size array)\n"
         "  --luns N               replace the LUNs with IDs 0..N-1 (N <= 1048576)\n"
         "  --filesystems N        replace the file systems with IDs 1..N (N <= 65536)\n"
         "  --features F           bitmask (1=48 NFS, 2=49 SMB, 4=602 file systems), list 48,49,602, all or none\n"
         "  --switch on|off        initial performance switch\n"
         "  --seed N               workload seed (default 1)\n"
         "  --device-config FILE   device configuration with the command codes\n"
         "  --fault RULE           inject a fault (repeatable): KIND[=ARG][,cmd=CMD][,rate=P][,count=N]\n"
         "                         KIND: refuse=CODE delay=MS close garbage truncate bad-magic bad-version huge-len\n"
         "                               bad-values bad-body\n"
         "  --latency [CMD=]MS     answer every command (or CMD) MS milliseconds late, as a real array's\n"
         "                         management plane does (repeatable; 0 to 60000)\n"
         "  -h, --help             this text\n"
         "  --version              the program's version\n";
}

bool ParseFeatures(const std::string& text, long* mask, std::string* error) {
  if (text == "none") return *mask = 0, true;
  if (text == "all") return *mask = 7, true;
  if (text.find(',') == std::string::npos && text != "48" && text != "49" && text != "602") {
    uint64_t v = 0;
    unsigned long hex = 0;
    if (ParseHexMask(text, 7, &hex)) {
      v = hex;
    } else if (!ParseDecimal(text, 7, &v)) {
      *error = "--features: '" + text + "' is neither a bitmask 0-7 nor a list of 48, 49, 602";
      return false;
    }
    *mask = static_cast<long>(v);
    return true;
  }
  long m = 0;
  std::istringstream in(text);
  std::string f;
  while (std::getline(in, f, ',')) {
    if (f == "48") {
      m |= 1;
    } else if (f == "49") {
      m |= 2;
    } else if (f == "602") {
      m |= 4;
    } else {
      *error = "--features: unknown feature '" + f + "' (48, 49 or 602)";
      return false;
    }
  }
  if (text.back() == ',') return *error = "--features: empty field", false;
  *mask = m;
  return true;
}

bool ParseSimFlags(int argc, const char* const* argv, SimFlags* out, std::string* error) {
  SimFlags flags;
  SimOptions& o = flags.options;
  const VEMOptionHandler apply = [&flags, &o](int code, const std::string& value, std::string* why) {
    switch (code) {
      case kFlagListen:
        o.listen = value;
        break;
      case kFlagTopology:
        o.topologyFile = value;
        break;
      case kFlagLuns:
        if (!ParseCount(value, 1L << 20, &o.luns)) return *why = "--luns: a number 0 to 1048576", false;
        break;
      case kFlagFileSystems:
        if (!ParseCount(value, 1L << 16, &o.fileSystems)) return *why = "--filesystems: a number 0 to 65536", false;
        break;
      case kFlagFeatures:
        return ParseFeatures(value, &o.features, why);
      case kFlagSwitch:
        if (value != "on" && value != "off") return *why = "--switch: on or off", false;
        o.switchOn = value == "on" ? 1 : 0;
        break;
      case kFlagSeed:
        if (!ParseDecimal(value, UINT64_MAX, &o.seed)) return *why = "--seed: a decimal number 0 to 2^64-1", false;
        break;
      case kFlagDeviceConfig:
        o.deviceConfig = value;
        break;
      case kFlagFault:
        flags.options.faults.push_back(value);
        break;
      case kFlagLatency:
        flags.options.latencies.push_back(value);
        break;
    }
    return true;
  };
  VEMCommandLineSyntax syntax;
  syntax.shortOptions = "h";
  syntax.longOptions = kFlags;
  syntax.noun = "flag";
  if (!VEMParseOptions(argc, argv, syntax, apply, nullptr, &flags.help, &flags.version, error)) return false;
  if (!flags.help && !flags.version && o.listen.empty()) return *error = "--listen is required", false;
  *out = flags;
  return true;
}

}  // namespace zerva_sim
