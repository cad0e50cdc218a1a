#include "host/agent/listen_safety.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "vempub/vem_text_file.h"

namespace zerva_agent {

namespace {

// How deep includeFile/includeDir may nest (a file that includes itself
// stops here).
const int kMaxIncludeDepth = 8;

std::string Lowered(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The words of a configuration line as Net-SNMP splits them: blanks
// separate words; "..." and '...' hold blanks; a backslash takes the next
// character as it is.
std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> words;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i]))) ++i;
    if (i >= line.size()) break;
    std::string word;
    if (line[i] == '"' || line[i] == '\'') {
      const char quote = line[i++];
      while (i < line.size() && line[i] != quote) {
        if (line[i] == '\\' && i + 1 < line.size()) ++i;
        word += line[i++];
      }
      ++i;  // the closing quote
    } else {
      while (i < line.size() && !std::isspace(static_cast<unsigned char>(line[i]))) {
        if (line[i] == '\\' && i + 1 < line.size()) ++i;
        word += line[i++];
      }
    }
    words.push_back(word);
  }
  return words;
}

// The words that are not options ("-X"), nor the values of the options
// that take one.
std::vector<std::string> Positional(const std::vector<std::string>& words, const std::vector<std::string>& withValue) {
  std::vector<std::string> out;
  for (size_t i = 1; i < words.size(); ++i) {
    if (words[i].size() > 1 && words[i][0] == '-') {
      if (std::find(withValue.begin(), withValue.end(), words[i]) != withValue.end()) ++i;
      continue;
    }
    out.push_back(words[i]);
  }
  return out;
}

bool IsLoopbackIp(const std::string& host) {
  struct in_addr v4;
  if (inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  struct in6_addr v6;
  if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
    if (IN6_IS_ADDR_LOOPBACK(&v6)) return true;
    // ::ffff:127.x.y.z
    return IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127;
  }
  return false;
}

bool IsNumericIp(const std::string& host) {
  unsigned char buffer[sizeof(struct in6_addr)];
  return inet_pton(AF_INET, host.c_str(), buffer) == 1 || inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

// A host name whose every address is a loopback one.
bool ResolvesToLoopbackOnly(const std::string& host) {
  if (Lowered(host) == "localhost") return true;
  struct addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_DGRAM;
  struct addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) return false;
  bool loopback = true;
  for (struct addrinfo* a = found; a != nullptr; a = a->ai_next) {
    char text[INET6_ADDRSTRLEN] = "";
    const void* raw = a->ai_family == AF_INET
                          ? static_cast<const void*>(&reinterpret_cast<struct sockaddr_in*>(a->ai_addr)->sin_addr)
                          : static_cast<const void*>(&reinterpret_cast<struct sockaddr_in6*>(a->ai_addr)->sin6_addr);
    if (inet_ntop(a->ai_family, raw, text, sizeof text) == nullptr || !IsLoopbackIp(text)) loopback = false;
  }
  freeaddrinfo(found);
  return loopback;
}

bool AllDigits(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The host part of an address without its transport ("" when it has none:
// every address of the host).
std::string HostOf(const std::string& rest) {
  if (rest.empty() || AllDigits(rest)) return "";
  if (rest[0] == '[') {
    const size_t close = rest.find(']');
    return close == std::string::npos ? rest.substr(1) : rest.substr(1, close - 1);
  }
  const size_t colons = static_cast<size_t>(std::count(rest.begin(), rest.end(), ':'));
  if (colons == 0) return rest;
  if (colons == 1) return rest.substr(0, rest.find(':'));
  // An IPv6 address without brackets, perhaps followed by :PORT.
  if (IsNumericIp(rest)) return rest;
  const std::string host = rest.substr(0, rest.rfind(':'));
  return IsNumericIp(host) ? host : rest;
}

void Add(const std::string& file, int line, const std::string& kind, const std::string& value,
         std::vector<Credential>* out) {
  Credential c;
  c.file = file;
  c.line = line;
  c.kind = kind;
  c.value = value;
  out->push_back(c);
}

bool ScanFile(const std::string& path, int depth, std::vector<Credential>* out, std::string* error);

// The files of includeDir: its *.conf files, in name order.
bool ScanDirectory(const std::string& dir, int depth, std::vector<Credential>* out, std::string* error) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) {
    *error = dir + ": cannot be read";
    return false;
  }
  std::vector<std::string> names;
  while (struct dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name.size() > 5 && name.compare(name.size() - 5, 5, ".conf") == 0) names.push_back(name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    if (!ScanFile(dir + "/" + name, depth, out, error)) return false;
  }
  return true;
}

bool ScanFile(const std::string& path, int depth, std::vector<Credential>* out, std::string* error) {
  if (depth > kMaxIncludeDepth) {
    *error = path + ": includes nest deeper than " + std::to_string(kMaxIncludeDepth);
    return false;
  }
  std::string text;
  if (!VEMReadTextFile(path, &text, error)) return false;
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash);
  int number = 0;
  const VEMLineVisitor visit = [&](const std::string& line, std::string* why) {
    ++number;
    for (const Credential& c : LineCredentials(line)) Add(path, number, c.kind, c.value, out);
    const std::vector<std::string> words = Words(line);
    if (words.size() < 2) return true;
    const std::string token = Lowered(words[0]);
    if (token != "includefile" && token != "includedir") return true;
    const std::string target = words[1][0] == '/' ? words[1] : dir + "/" + words[1];
    const bool ok =
        token == "includefile" ? ScanFile(target, depth + 1, out, why) : ScanDirectory(target, depth + 1, out, why);
    if (!ok) *why = words[0] + ": " + *why;
    return ok;
  };
  if (VEMForEachLine(text, visit, error)) return true;
  *error = path + ": " + *error;
  return false;
}

}  // namespace

const std::vector<std::string>& ShippedSecrets() {
  static const std::vector<std::string> secrets = {
      // Communities of the installed and the demo configuration, and of the
      // agent without -c.
      "public",
      "private",
      // The demo configuration's SNMPv3 user (host/agent/demo.conf, scripts/run.sh).
      "zerva-auth-pass",
      "zerva-priv-pass",
  };
  return secrets;
}

bool IsShippedSecret(const std::string& secret) {
  const std::vector<std::string>& all = ShippedSecrets();
  return std::find(all.begin(), all.end(), secret) != all.end();
}

bool IsLocalAddress(const std::string& rawAddress) {
  std::string address = rawAddress;
  address.erase(0, address.find_first_not_of(" \t"));
  address.erase(address.find_last_not_of(" \t") + 1);
  if (!address.empty() && address[0] == '/') return true;  // a Unix socket
  std::string rest = address;
  const size_t colon = address.find(':');
  if (colon != std::string::npos) {
    const std::string transport = Lowered(address.substr(0, colon));
    if (transport == "unix") return true;
    static const char* const kInet[] = {"udp",     "tcp",     "udp6",    "tcp6",   "udpv6",    "tcpv6",
                                        "udpipv6", "tcpipv6", "dtlsudp", "tlstcp", "dtlsudp6", "tlstcp6"};
    for (const char* t : kInet) {
      if (transport == t) rest = address.substr(colon + 1);
    }
  }
  const std::string host = HostOf(rest);
  if (host.empty() || host == "*") return false;
  if (IsNumericIp(host)) return IsLoopbackIp(host);
  return ResolvesToLoopbackOnly(host);
}

std::vector<std::string> NonLocalAddresses(const std::string& addresses) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= addresses.size()) {
    size_t end = addresses.find(',', start);
    if (end == std::string::npos) end = addresses.size();
    const std::string one = addresses.substr(start, end - start);
    if (one.find_first_not_of(" \t") != std::string::npos && !IsLocalAddress(one)) out.push_back(one);
    start = end + 1;
  }
  return out;
}

std::vector<Credential> LineCredentials(const std::string& line) {
  std::vector<Credential> out;
  const std::vector<std::string> words = Words(line);
  if (words.empty() || words[0][0] == '#') return out;
  const std::string token = Lowered(words[0]);
  if (token == "rocommunity" || token == "rwcommunity" || token == "rocommunity6" || token == "rwcommunity6") {
    const std::vector<std::string> p = Positional(words, {"-V", "-Cn", "-C"});
    if (!p.empty()) Add("", 0, "community", p[0], &out);
  } else if (token == "authcommunity") {
    const std::vector<std::string> p = Positional(words, {"-V", "-Cn", "-C"});
    if (p.size() > 1) Add("", 0, "community", p[1], &out);
  } else if (token == "com2sec" || token == "com2sec6") {
    // com2sec [-Cn CONTEXT] SECNAME SOURCE COMMUNITY
    const std::vector<std::string> p = Positional(words, {"-Cn", "-C"});
    if (p.size() > 2) Add("", 0, "community", p[2], &out);
  } else if (token == "createuser") {
    // createUser [-e ENGINEID] NAME AUTH [-m|-l] AUTHPASS [PRIV [-m|-l] PRIVPASS]
    const std::vector<std::string> p = Positional(words, {"-e"});
    if (p.size() > 2) Add("", 0, "passphrase", p[2], &out);
    if (p.size() > 4) Add("", 0, "passphrase", p[4], &out);
  }
  return out;
}

bool FindCredentials(const std::string& path, std::vector<Credential>* out, std::string* error) {
  return ScanFile(path, 0, out, error);
}

std::vector<std::string> InsecureListening(const std::vector<Credential>& credentials, const std::string& addresses) {
  std::vector<std::string> lines;
  const std::vector<std::string> open = NonLocalAddresses(addresses);
  if (open.empty()) return lines;
  std::string where;
  for (const std::string& a : open) where += (where.empty() ? "" : ", ") + a;
  for (const Credential& c : credentials) {
    if (!IsShippedSecret(c.value)) continue;
    const std::string place =
        c.file.empty() ? "the built-in configuration (no -c)" : c.file + ": line " + std::to_string(c.line);
    lines.push_back(place + ": " + c.kind + " \"" + c.value +
                    "\" ships with zerva-snmp-agent; choose your own before listening on " + where);
  }
  return lines;
}

bool SafeToListen(const std::string& configFile, const std::string& builtInAccess, const std::string& addresses,
                  std::vector<std::string>* problems) {
  std::vector<Credential> credentials;
  std::string error;
  if (configFile.empty()) {
    credentials = LineCredentials(builtInAccess);
  } else if (!FindCredentials(configFile, &credentials, &error)) {
    problems->push_back(error);
    return false;
  }
  const std::vector<std::string> refusals = InsecureListening(credentials, addresses);
  problems->insert(problems->end(), refusals.begin(), refusals.end());
  return refusals.empty();
}

}  // namespace zerva_agent
