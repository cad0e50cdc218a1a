#include "sim/sim_flags.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace zerva_sim {

namespace {

bool ParseCount(const std::string& text, long max, long* out) {
  if (text.empty() || text.size() > 10) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  const long v = strtol(text.c_str(), nullptr, 10);
  if (v > max) return false;
  *out = v;
  return true;
}

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
         "  --help                 this text\n";
}

bool ParseFeatures(const std::string& text, long* mask, std::string* error) {
  if (text == "none") return *mask = 0, true;
  if (text == "all") return *mask = 7, true;
  if (text.find(',') == std::string::npos && text != "48" && text != "49" && text != "602") {
    char* end = nullptr;
    errno = 0;
    const unsigned long v = strtoul(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || errno != 0 || v > 7 || text[0] == '-') {
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
  for (int i = 1; i < argc; ++i) {
    std::string flag = argv[i];
    std::string value;
    bool inlineValue = false;
    const size_t eq = flag.find('=');
    if (flag.compare(0, 2, "--") == 0 && eq != std::string::npos) {
      value = flag.substr(eq + 1);
      flag = flag.substr(0, eq);
      inlineValue = true;
    }
    if (flag == "--help" || flag == "-h") {
      flags.help = true;
      continue;
    }
    static const char* const kWithValue[] = {"--listen", "--topology", "--luns",          "--filesystems", "--features",
                                             "--switch", "--seed",     "--device-config", "--fault"};
    bool known = false;
    for (const char* k : kWithValue) known = known || flag == k;
    if (!known) return *error = "unknown flag '" + flag + "'", false;
    if (!inlineValue) {
      if (i + 1 >= argc) return *error = flag + " needs a value", false;
      value = argv[++i];
    }
    SimOptions& o = flags.options;
    if (flag == "--listen") {
      o.listen = value;
    } else if (flag == "--topology") {
      o.topologyFile = value;
    } else if (flag == "--luns") {
      if (!ParseCount(value, 1L << 20, &o.luns)) return *error = "--luns: a number 0 to 1048576", false;
    } else if (flag == "--filesystems") {
      if (!ParseCount(value, 1L << 16, &o.fileSystems)) return *error = "--filesystems: a number 0 to 65536", false;
    } else if (flag == "--features") {
      if (!ParseFeatures(value, &o.features, error)) return false;
    } else if (flag == "--switch") {
      if (value != "on" && value != "off") return *error = "--switch: on or off", false;
      o.switchOn = value == "on" ? 1 : 0;
    } else if (flag == "--seed") {
      char* end = nullptr;
      errno = 0;
      o.seed = strtoull(value.c_str(), &end, 0);
      if (value.empty() || *end != '\0' || errno != 0 || value[0] == '-') {
        return *error = "--seed: an unsigned number", false;
      }
    } else if (flag == "--device-config") {
      o.deviceConfig = value;
    } else {
      flags.faults.push_back(value);
    }
  }
  if (!flags.help && flags.options.listen.empty()) return *error = "--listen is required", false;
  *out = flags;
  return true;
}

}  // namespace zerva_sim
