// libFuzzer target for the agent's configuration tokens.
//
// The input is the text of a configuration file. Net-SNMP's own file reader
// (read_config_with_type) splits it into lines and hands every line whose
// first word is one of our tokens (compared without regard to case, quotes
// and backslashes taken out) to the handler registered for it: the token as
// written, and the rest of the line with the blanks around it removed. The
// target has Net-SNMP read the text once, with recording handlers, and then:
//
// 1. each (token, rest of line) pair goes to
//    ApplyAgentToken in turn, and each call is checked against what the
//    tokens document (agent_options.h, docs/agent.md):
//    - a refused line leaves the options exactly as they were and an error
//      that names the token (unknown token) or quotes the value;
//    - an accepted line is one of our tokens and changes exactly its own
//      option, to the value written, inside the documented range;
//    - a value is accepted exactly when it is a valid one (numbers: decimal
//      digits within the range, leading zeros read as the value);
// 2. the same pairs go to the agent's own handlers (RegisterAgentTokens), as
//    Net-SNMP calls them: the options and the error list ("token: reason")
//    must be those of the first step;
// 3. ScanRole, which reads the file before Net-SNMP starts, reads it too: no
//    crash, and a refusal names the file and the line (only for texts that
//    hold its token: without it there is nothing it could refuse).
//
// Lines that would make Net-SNMP read other files (includeFile, includeDir,
// includeSearch, ...), switch to another application's handlers ("[type]
// ...") or carry a NUL byte are left out of the file; everything else is
// handed over as it is. Net-SNMP's own complaints (unknown tokens, a token
// without a value) are silenced.
//
// The text lives in a memory file (/proc/self/fd/N), so nothing is left on
// disk. Any broken expectation traps, which libFuzzer reports as a crash and
// saves the input.
#include <strings.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "host/agent/agent_options.h"
#include "host/agent/netsnmp_bridge.h"
#include "snmpcommon/snmp_backend_frame.h"

// Net-SNMP last: its macros clash with the ACE headers the ones above pull in.
// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// clang-format on

namespace {

using zerva_agent::AgentOptions;

// Two application types: ours records what Net-SNMP hands over, the agent's
// holds the handlers the agent registers.
const char kRecordType[] = "zervafuzzrecord";
const char kAgentType[] = "zervafuzzagent";

struct Handed {
  std::string token;
  std::string value;
};

std::vector<Handed> g_handed;
AgentOptions g_agentOptions;
std::vector<std::string> g_agentErrors;
std::string g_path;  // the memory file holding the current text
int g_fd = -1;

void Record(const char* token, char* line) { g_handed.push_back({token, line != nullptr ? line : ""}); }

bool SameOptions(const AgentOptions& a, const AgentOptions& b) {
  return a.modulePath == b.modulePath && a.mibDir == b.mibDir && a.backend == b.backend &&
         a.backendTimeoutMs == b.backendTimeoutMs && a.snapshotSeconds == b.snapshotSeconds &&
         a.walkSeconds == b.walkSeconds && a.waitMs == b.waitMs && a.maxAgeSeconds == b.maxAgeSeconds &&
         a.simLatencies == b.simLatencies && a.batchRows == b.batchRows && a.logLevel == b.logLevel &&
         a.logFile == b.logFile && a.syslog == b.syslog && a.deviceConfig == b.deviceConfig &&
         a.simTopology == b.simTopology && a.simLuns == b.simLuns && a.simFileSystems == b.simFileSystems &&
         a.simFeatures == b.simFeatures && a.simSeed == b.simSeed && a.agentx == b.agentx &&
         a.logFoldSeconds == b.logFoldSeconds && a.kitLogLevels == b.kitLogLevels;
}

// The value as the token sees it: without blanks, tabs and line ends around it.
std::string Trim(const std::string& text) {
  const size_t b = text.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return "";
  return text.substr(b, text.find_last_not_of(" \t\r\n") - b + 1);
}

std::string Lower(const std::string& text) {
  std::string out;
  for (char c : text) out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// A decimal number within [lo, hi] by the rule every number field follows
// (digits only, leading zeros read as the value), computed here with the
// standard library rather than with the parser under test.
bool ValidNumber(const std::string& v, uint64_t lo, uint64_t hi, uint64_t* out) {
  if (v.empty() || v.find_first_not_of("0123456789") != std::string::npos) return false;
  unsigned long long n = 0;
  try {
    n = std::stoull(v);
  } catch (const std::out_of_range&) {
    return false;
  }
  if (n < lo || n > hi) return false;
  *out = n;
  return true;
}

// What a line should do: whether the value is valid, and if so the options
// it must leave (*expected starts as the options before the line).
// A level name in any case.
bool ExpectLevel(const std::string& v, EVEMLogLevel* level) {
  static const struct {
    const char* name;
    EVEMLogLevel level;
  } kLevels[] = {{"trace", VEM_LOG_TRACE},
                 {"debug", VEM_LOG_DEBUG},
                 {"warn", VEM_LOG_WARN},
                 {"error", VEM_LOG_ERROR},
                 {"off", VEM_LOG_OFF}};
  for (const auto& l : kLevels) {
    if (Lower(v) == l.name) {
      *level = l.level;
      return true;
    }
  }
  return false;
}

bool Expect(const std::string& token, const std::string& v, AgentOptions* expected) {
  uint64_t n = 0;
  std::string* path = nullptr;
  if (token == "zervaModule") path = &expected->modulePath;
  if (token == "zervaMibDir") path = &expected->mibDir;
  if (token == "zervaDeviceConfig") path = &expected->deviceConfig;
  if (token == "zervaLogFile") path = &expected->logFile;
  if (token == "zervaSimTopology") path = &expected->simTopology;
  if (path != nullptr) {
    if (v.empty()) return false;
    *path = v;
    return true;
  }
  if (token == "zervaBackend") {
    CSnmpBackendAddress address;
    if (v != "embedded" && !CSnmpBackendAddress::parse(v, address, nullptr)) return false;
    expected->backend = v;
    return true;
  }
  if (token == "zervaBackendTimeout") {
    if (!ValidNumber(v, 1, 3600000, &n)) return false;
    expected->backendTimeoutMs = static_cast<unsigned int>(n);
    return true;
  }
  if (token == "zervaSnapshotSeconds") {
    if (!ValidNumber(v, 0, 86400, &n)) return false;
    expected->snapshotSeconds = static_cast<unsigned int>(n);
    return true;
  }
  if (token == "zervaWalkSeconds") {
    if (!ValidNumber(v, 0, 86400, &n)) return false;
    expected->walkSeconds = static_cast<unsigned int>(n);
    return true;
  }
  if (token == "zervaWaitMilliseconds") {
    if (!ValidNumber(v, 1, 60000, &n)) return false;
    expected->waitMs = static_cast<unsigned int>(n);
    return true;
  }
  if (token == "zervaMaxAgeSeconds") {
    if (!ValidNumber(v, 0, 86400, &n)) return false;
    expected->maxAgeSeconds = static_cast<unsigned int>(n);
    return true;
  }
  if (token == "zervaSimLatency") {
    // Checked against the device configuration's command names at start.
    if (v.empty()) return false;
    expected->simLatencies.push_back(v);
    return true;
  }
  if (token == "zervaBatchRows") {
    if (!ValidNumber(v, 1, 10000, &n)) return false;
    expected->batchRows = static_cast<unsigned int>(n);
    return true;
  }
  if (token == "zervaLogLevel") return ExpectLevel(v, &expected->logLevel);
  if (token == "zervaLogFoldSeconds") {
    if (!ValidNumber(v, 0, 86400, &n)) return false;
    expected->logFoldSeconds = static_cast<unsigned int>(n);
    return true;
  }
  if (token == "zervaKitLogLevel") {
    // Exactly two words: a kit number 0 to 255 and a level.
    std::vector<std::string> words;
    std::string word;
    for (char c : v + " ") {
      if (std::isspace(static_cast<unsigned char>(c)) == 0) {
        word += c;
      } else if (!word.empty()) {
        words.push_back(word);
        word.clear();
      }
    }
    EVEMLogLevel level = VEM_LOG_WARN;
    if (words.size() != 2 || !ValidNumber(words[0], 0, 255, &n) || !ExpectLevel(words[1], &level)) return false;
    expected->kitLogLevels[static_cast<unsigned int>(n)] = level;
    return true;
  }
  if (token == "zervaSyslog") {
    const std::string w = Lower(v);
    if (w == "yes" || w == "true" || w == "on" || w == "1") {
      expected->syslog = true;
      return true;
    }
    if (w == "no" || w == "false" || w == "off" || w == "0") {
      expected->syslog = false;
      return true;
    }
    return false;
  }
  if (token == "zervaRole") {
    if (v != "master" && v != "agentx") return false;
    expected->agentx = v == "agentx";
    return true;
  }
  if (token == "zervaSimLuns" || token == "zervaSimFileSystems") {
    if (!ValidNumber(v, 0, 1000000, &n)) return false;
    (token == "zervaSimLuns" ? expected->simLuns : expected->simFileSystems) = static_cast<long>(n);
    return true;
  }
  if (token == "zervaSimFeatures") {
    if (!ValidNumber(v, 0, 7, &n)) return false;
    expected->simFeatures = static_cast<long>(n);
    return true;
  }
  if (token == "zervaSimSeed") {
    if (!ValidNumber(v, 0, UINT64_MAX, &n)) return false;
    expected->simSeed = n;
    return true;
  }
  return false;
}

bool IsOurToken(const std::string& token) {
  for (const zerva_agent::AgentToken& t : zerva_agent::AgentTokens()) {
    if (token == t.name) return true;
  }
  return false;
}

// The ranges every accepted option must stay in, whatever sequence of lines
// led there.
void CheckRanges(const AgentOptions& o) {
  FUZZ_CHECK(o.backendTimeoutMs <= 3600000);
  FUZZ_CHECK(o.snapshotSeconds <= 86400);
  FUZZ_CHECK(o.walkSeconds <= 86400);
  FUZZ_CHECK(o.waitMs >= 1 && o.waitMs <= 60000);
  FUZZ_CHECK(o.maxAgeSeconds <= 86400);
  for (const std::string& l : o.simLatencies) FUZZ_CHECK(!l.empty());
  FUZZ_CHECK(o.logFoldSeconds <= 86400);
  for (const auto& k : o.kitLogLevels) {
    FUZZ_CHECK(k.first <= 255);
    FUZZ_CHECK(k.second >= VEM_LOG_TRACE && k.second <= VEM_LOG_OFF);
  }
  FUZZ_CHECK(o.batchRows >= 1 && o.batchRows <= 10000);
  FUZZ_CHECK(o.logLevel >= VEM_LOG_TRACE && o.logLevel <= VEM_LOG_OFF);
  FUZZ_CHECK(o.simLuns >= -1 && o.simLuns <= 1000000);
  FUZZ_CHECK(o.simFileSystems >= -1 && o.simFileSystems <= 1000000);
  FUZZ_CHECK(o.simFeatures >= -1 && o.simFeatures <= 7);
  CSnmpBackendAddress address;
  FUZZ_CHECK(o.backend == "embedded" || CSnmpBackendAddress::parse(o.backend, address, nullptr));
  for (const std::string* path : {&o.modulePath, &o.mibDir, &o.logFile, &o.deviceConfig, &o.simTopology}) {
    FUZZ_CHECK(*path == Trim(*path));
  }
}

// One line through ApplyAgentToken, checked. Appends the error line the
// agent's handler would report to *errors.
void ApplyChecked(const Handed& line, AgentOptions* o, std::vector<std::string>* errors) {
  // Net-SNMP only hands over lines of tokens registered for the type.
  bool registered = false;
  for (const zerva_agent::AgentToken& t : zerva_agent::AgentTokens()) {
    registered = registered || strcasecmp(line.token.c_str(), t.name) == 0;
  }
  FUZZ_CHECK(registered);

  const AgentOptions before = *o;
  std::string error;
  const bool accepted = zerva_agent::ApplyAgentToken(line.token, line.value, o, &error);
  const std::string v = Trim(line.value);
  AgentOptions expected = before;
  const bool valid = IsOurToken(line.token) && Expect(line.token, v, &expected);
  FUZZ_CHECK(accepted == valid);
  if (accepted) {
    FUZZ_CHECK(SameOptions(*o, expected));
  } else {
    FUZZ_CHECK(SameOptions(*o, before));
    FUZZ_CHECK(!error.empty());
    if (!IsOurToken(line.token)) {
      FUZZ_CHECK(error.find(line.token) != std::string::npos);
    } else if (!v.empty()) {
      FUZZ_CHECK(error.find("'" + v + "'") != std::string::npos);
    }
    errors->push_back(line.token + ": " + error);
  }
  CheckRanges(*o);
}

// The first word of a line that is neither blank nor a comment, as Net-SNMP
// reads it (quotes and backslashes taken out), in lower case.
// REQUIRES: p = skip_white_const(line) != nullptr.
std::string FirstWord(const char* p) {
  std::vector<char> word(std::char_traits<char>::length(p) + 1);
  copy_nword_const(p, word.data(), static_cast<int>(word.size()));
  return Lower(word.data());
}

// The input without the lines Net-SNMP must not see (see the top).
std::string FileText(const std::string& input) {
  std::string text;
  size_t start = 0;
  while (start < input.size()) {
    size_t end = input.find('\n', start);
    if (end == std::string::npos) end = input.size();
    const std::string line = input.substr(start, end - start);
    start = end + 1;
    if (line.find('\0') != std::string::npos) continue;
    const char* p = skip_white_const(line.c_str());
    if (p != nullptr && (*p == '[' || FirstWord(p).compare(0, 7, "include") == 0)) continue;
    text += line;
    text += '\n';
  }
  return text;
}

void WriteFile(const std::string& text) {
  FUZZ_CHECK(ftruncate(g_fd, 0) == 0);
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = pwrite(g_fd, text.data() + done, text.size() - done, static_cast<off_t>(done));
    FUZZ_CHECK(n > 0);
    done += static_cast<size_t>(n);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  // Net-SNMP's complaints about the fuzzed lines would drown the output:
  // with no handler at all it writes them to stderr, so install one that
  // drops them.
  snmp_disable_log();
  netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
  g_fd = memfd_create("agent_config_fuzz", MFD_CLOEXEC);
  if (g_fd < 0) {
    std::perror("agent_config_fuzz: memfd_create");
    std::abort();
  }
  g_path = "/proc/self/fd/" + std::to_string(g_fd);
  for (const zerva_agent::AgentToken& t : zerva_agent::AgentTokens()) {
    register_config_handler(kRecordType, t.name, Record, nullptr, t.help);
  }
  zerva_agent::RegisterAgentTokens(kAgentType, &g_agentOptions, &g_agentErrors);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = FileText(std::string(reinterpret_cast<const char*>(data), size));
  WriteFile(text);

  // 1. Every handed line, checked one by one.
  g_handed.clear();
  read_config_with_type(g_path.c_str(), kRecordType);
  AgentOptions options;
  std::vector<std::string> errors;
  for (const Handed& line : g_handed) ApplyChecked(line, &options, &errors);

  // 2. The agent's own handlers reach the same options and errors. Net-SNMP
  // finds a line's handler by the token without regard to case and hands it
  // the token as written and a writable copy of the rest of the line.
  g_agentOptions = AgentOptions();
  g_agentErrors.clear();
  for (const Handed& line : g_handed) {
    const config_line* handler = read_config_get_handlers(kAgentType);
    while (handler != nullptr && strcasecmp(handler->config_token, line.token.c_str()) != 0) handler = handler->next;
    FUZZ_CHECK(handler != nullptr && handler->parse_line != nullptr);
    std::vector<char> rest(line.value.begin(), line.value.end());
    rest.push_back('\0');
    handler->parse_line(line.token.c_str(), rest.data());
  }
  FUZZ_CHECK(SameOptions(g_agentOptions, options));
  FUZZ_CHECK(g_agentErrors == errors);

  // 3. The role scan before Net-SNMP starts.
  if (text.find("zervaRole") == std::string::npos) return 0;
  bool agentx = false;
  std::string error;
  if (!zerva_agent::ScanRole(g_path, &agentx, &error)) {
    FUZZ_CHECK(error.compare(0, g_path.size() + 7, g_path + ": line ") == 0);
    FUZZ_CHECK(error.find(": zervaRole: ") != std::string::npos);
  }
  return 0;
}
