#include "tests/e2e/e2e_support.h"

#include <gtest/gtest.h>

#include <cctype>
#include <sstream>

namespace zerva_e2e {

using zerva_agent::MibObject;

const char kSmallTopology[] =
    "controllers 0A 0B 1A 2D\n"
    // Ethernet: reported statuses 5, 6, 0; offline (1) and link down (7)
    // left out; two bond members left out (their traffic is on bond0).
    "port 213 1 eth0 5\n"
    "port 213 2 eth1 6\n"
    "port 213 3 eth2 0\n"
    "port 213 4 eth3 1\n"
    "port 213 5 eth4 7\n"
    "port 213 6 eth5 5 bond=bond0\n"
    "port 213 7 eth6 6 bond=bond0\n"
    "port 212 20 fc0 5\n"
    "port 212 21 fc1 1\n"
    "port 212 22 fc2 0\n"
    "port 252 30 fcoe0 6\n"
    "port 252 31 fcoe1 7\n"
    // Bond ports are reported whatever their status.
    "port 235 40 bond0 5\n"
    "port 235 41 bond1 1\n"
    "lun_ids 0-9 100 205-214 4000\n"
    "filesystem_ids 1-12 100\n"
    "features 48,49,602\n"
    "switch on\n"
    "page_size 8\n";

const char kReadCommunity[] = "-v2c -c public";
const char kWriteCommunity[] = "-v2c -c private";
const char kV3UserConfig[] =
    "createUser e2euser SHA e2e-auth-passphrase AES e2e-priv-passphrase\n"
    "rwuser e2euser priv\n";
const char kV3Auth[] = "-v3 -l authPriv -u e2euser -a SHA -A e2e-auth-passphrase -x AES -X e2e-priv-passphrase";

// ---------------------------------------------------------------------------
// snmpwalk output

namespace {

std::string Trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && isspace(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && isspace(static_cast<unsigned char>(s[e - 1]))) --e;
  return s.substr(b, e - b);
}

// "65 74 68 30 " -> "65746830".
std::string HexDigits(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (isxdigit(static_cast<unsigned char>(c))) out += static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return out;
}

// True for a line of hex byte pairs ("6F 65 30 "): the rest of a long
// Hex-STRING, which snmpwalk breaks over several lines.
bool IsHexRun(const std::string& line) {
  const std::string t = Trim(line);
  if (t.empty()) return false;
  for (char c : t) {
    if (c != ' ' && !isxdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

// The text between the quotes of STRING: "..." with \" and \\ undone.
std::string Unquote(const std::string& s) {
  std::string out;
  const std::string t = Trim(s);
  if (t.size() < 2 || t.front() != '"' || t.back() != '"') return t;
  for (size_t i = 1; i + 1 < t.size(); ++i) {
    if (t[i] == '\\' && i + 2 < t.size()) ++i;
    out += t[i];
  }
  return out;
}

}  // namespace

ParsedWalk ParseWalk(const std::string& output) {
  ParsedWalk walk;
  std::istringstream in(output);
  std::string line;
  bool hexOpen = false;  // the last instance was a Hex-STRING that may go on
  while (std::getline(in, line)) {
    const size_t eq = line.find(" = ");
    if (line.empty() || line[0] != '.' || eq == std::string::npos) {
      if (hexOpen && IsHexRun(line)) {
        walk.lines.back().value.value += HexDigits(line);
      } else if (!Trim(line).empty()) {
        walk.others.push_back(line);
        hexOpen = false;
      }
      continue;
    }
    hexOpen = false;
    const std::string rest = line.substr(eq + 3);
    const size_t colon = rest.find(": ");
    WalkLine w;
    w.oid = ParseOid(line.substr(0, eq));
    if (rest == "\"\"") {
      w.value = {"OCTETS", ""};
    } else if (colon == std::string::npos) {
      walk.others.push_back(line);  // No Such Instance, No more variables, ...
      continue;
    } else {
      const std::string type = rest.substr(0, colon);
      const std::string text = rest.substr(colon + 2);
      if (type == "Hex-STRING") {
        w.value = {"OCTETS", HexDigits(text)};
        hexOpen = true;
      } else if (type == "STRING") {
        w.value = {"OCTETS", Hex(Unquote(text))};
      } else if (type == "Timeticks" && text.find('(') != std::string::npos) {
        const size_t open = text.find('(');
        w.value = {type, text.substr(open + 1, text.find(')') - open - 1)};
      } else {
        w.value = {type, Trim(text)};
      }
    }
    walk.lines.push_back(w);
  }
  return walk;
}

std::map<Oid, Value> InstancesUnder(const ParsedWalk& walk, const Oid& prefix, std::vector<std::string>* problems) {
  std::map<Oid, Value> out;
  const Oid* previous = nullptr;
  for (const WalkLine& l : walk.lines) {
    if (!Under(l.oid, prefix)) continue;
    if (previous != nullptr && !(*previous < l.oid)) {
      problems->push_back("not increasing: " + OidText(l.oid) + " after " + OidText(*previous));
    }
    if (!out.emplace(l.oid, l.value).second) problems->push_back("twice: " + OidText(l.oid));
    previous = &l.oid;
  }
  return out;
}

// ---------------------------------------------------------------------------
// The agent

AgentUnderTest::Options SmallArray() {
  AgentUnderTest::Options o;
  o.topology = kSmallTopology;
  o.frozenMs = kFrozenMs;
  o.extraConfig = "zervaSnapshotSeconds 0\n";
  return o;
}

std::string Tool(const AgentUnderTest& agent, const std::string& program, const std::string& auth,
                 const std::string& args, int* rc) {
  return agent.snmp().tool(program, auth + " -Ox -Ot", args, rc);
}

ParsedWalk Walk(const AgentUnderTest& agent, const Oid& root, const std::string& program, const std::string& options,
                int* rc, std::string* raw) {
  const std::string out = Tool(agent, program, std::string(kReadCommunity) + " " + options, OidText(root), rc);
  if (raw != nullptr) *raw = out;
  return ParseWalk(out);
}

TableTruth Truth(const AgentUnderTest& agent, const MibObject& table, bool* served) {
  std::string error;
  TableTruth t = GroundTruth(agent.array(), table, served, &error);
  EXPECT_EQ("", error) << table.name;
  return t;
}

}  // namespace zerva_e2e
