#include "host/agent/v3_users.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// clang-format on

namespace zerva_agent {

namespace {

struct AuthProtocol {
  const char* name;
  const oid* hash;
};

const AuthProtocol kAuthProtocols[] = {
    {"SHA", usmHMACSHA1AuthProtocol},          {"SHA-224", usmHMAC128SHA224AuthProtocol},
    {"SHA-256", usmHMAC192SHA256AuthProtocol}, {"SHA-384", usmHMAC256SHA384AuthProtocol},
    {"SHA-512", usmHMAC384SHA512AuthProtocol},
};
const size_t kProtocolOidLength = 10;  // every usm*Protocol OID
// AES-128 and DES both take 16 bytes (DES: the key and the pre-IV).
const size_t kPrivKeyLength = 16;

const AuthProtocol* FindAuth(const std::string& name) {
  for (const AuthProtocol& p : kAuthProtocols) {
    if (name == p.name) return &p;
  }
  return nullptr;
}

const oid* FindPriv(const std::string& name) {
  if (name == "AES") return usmAESPrivProtocol;
  if (name == "DES") return usmDESPrivProtocol;
  return nullptr;
}

std::string OidText(const oid* name) {
  std::string text;
  for (size_t i = 0; i < kProtocolOidLength; ++i) text += "." + std::to_string(name[i]);
  return text;
}

std::string Hex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text = "0x";
  for (unsigned char c : bytes) {
    text += kDigits[c >> 4];
    text += kDigits[c & 0xF];
  }
  return text;
}

// "0x..." (or bare hex digits) as bytes; "" when it is not hex.
std::string FromHex(const std::string& text) {
  std::string digits = text;
  if (digits.compare(0, 2, "0x") == 0 || digits.compare(0, 2, "0X") == 0) digits = digits.substr(2);
  if (digits.empty() || digits.size() % 2 != 0) return "";
  std::string bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    int value = 0;
    for (size_t j = i; j < i + 2; ++j) {
      const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(digits[j])));
      if (c >= '0' && c <= '9') {
        value = value * 16 + (c - '0');
      } else if (c >= 'a' && c <= 'f') {
        value = value * 16 + (c - 'a' + 10);
      } else {
        return "";
      }
    }
    bytes += static_cast<char>(value);
  }
  return bytes;
}

// The words of the lines of a file that start with `token`.
std::vector<std::vector<std::string>> LinesOf(const std::string& path, const std::string& token) {
  std::vector<std::vector<std::string>> out;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string word;
    words >> word;
    if (word != token) continue;
    std::vector<std::string> rest;
    while (words >> word) rest.push_back(word);
    out.push_back(rest);
  }
  return out;
}

// A user name as Net-SNMP writes it: "name" or 0xHEX.
std::string UserName(const std::string& word) {
  if (word.size() >= 2 && word.front() == '"' && word.back() == '"') return word.substr(1, word.size() - 2);
  const std::string bytes = FromHex(word);
  return bytes.empty() ? word : bytes;
}

bool Fail(std::string* error, const std::string& text) {
  *error = text;
  return false;
}

// Makes a file we created belong to the state directory's owner (the tool
// may run as root for an agent that runs as its own user).
bool OwnLikeDirectory(int fd, const std::string& path, const struct stat& dir, std::string* error) {
  struct stat st;
  if (fstat(fd, &st) != 0) return Fail(error, path + ": " + strerror(errno));
  if ((st.st_uid != dir.st_uid || st.st_gid != dir.st_gid) && fchown(fd, dir.st_uid, dir.st_gid) != 0) {
    return Fail(error, path + ": cannot give it to the owner of its directory: " + strerror(errno));
  }
  if (fchmod(fd, 0600) != 0) return Fail(error, path + ": " + strerror(errno));
  return true;
}

bool AppendTo(const std::string& path, const std::string& text, const struct stat& dir, std::string* error) {
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return Fail(error, path + ": " + strerror(errno));
  bool ok = OwnLikeDirectory(fd, path, dir, error);
  if (ok && write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    ok = Fail(error, path + ": " + strerror(errno));
  }
  if (close(fd) != 0 && ok) ok = Fail(error, path + ": " + strerror(errno));
  return ok;
}

// A new engineID in Net-SNMP's own form for a random one: enterprise 8072
// (net-snmp), format 128, then 12 random bytes.
bool NewEngineId(std::string* engineId, std::string* error) {
  unsigned char random[12];
  if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
    return Fail(error, std::string("cannot make an engineID: ") + strerror(errno));
  }
  *engineId = std::string("\x80\x00\x1f\x88\x80", 5) + std::string(reinterpret_cast<char*>(random), sizeof random);
  return true;
}

// One line of a passphrase from `in`, without its line end.
bool ReadLine(FILE* in, std::string* line) {
  line->clear();
  int c = 0;
  bool any = false;
  while ((c = fgetc(in)) != EOF) {
    any = true;
    if (c == '\n') break;
    line->push_back(static_cast<char>(c));
  }
  if (!line->empty() && line->back() == '\r') line->pop_back();
  return any;
}

bool AskWithoutEcho(FILE* in, FILE* prompt, const char* question, std::string* answer) {
  struct termios saved;
  const int fd = fileno(in);
  const bool terminal = tcgetattr(fd, &saved) == 0;
  if (terminal) {
    struct termios quiet = saved;
    quiet.c_lflag &= static_cast<tcflag_t>(~ECHO);
    tcsetattr(fd, TCSAFLUSH, &quiet);
  }
  fprintf(prompt, "%s", question);
  fflush(prompt);
  const bool ok = ReadLine(in, answer);
  if (terminal) tcsetattr(fd, TCSAFLUSH, &saved);
  fprintf(prompt, "\n");
  return ok;
}

}  // namespace

std::string PersistentFile(const std::string& stateDir) { return stateDir + "/zerva-snmp-agent.conf"; }
std::string UsersFile(const std::string& stateDir) { return stateDir + "/users.conf"; }

bool EnsureUsersFile(const std::string& stateDir) {
  const std::string path = UsersFile(stateDir);
  if (access(path.c_str(), F_OK) == 0) return true;
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  static const char kHeader[] =
      "# SNMPv3 users of zerva-snmp-agent --create-user: keys localized to the engineID\n"
      "# kept in zerva-snmp-agent.conf here, and each user's access line. The agent\n"
      "# reads this file after its configuration and never writes it.\n";
  const bool ok = write(fd, kHeader, sizeof kHeader - 1) == static_cast<ssize_t>(sizeof kHeader - 1);
  return close(fd) == 0 && ok;
}

bool NetSnmpConfigFiles(const std::string& configFile, const std::string& stateDir, std::string* files,
                        std::string* error) {
  std::vector<std::string> list;
  if (!configFile.empty()) list.push_back(configFile);
  for (const std::string& path : {PersistentFile(stateDir), UsersFile(stateDir)}) {
    if (!stateDir.empty() && access(path.c_str(), F_OK) == 0) list.push_back(path);
  }
  files->clear();
  for (const std::string& path : list) {
    if (path.find(',') != std::string::npos) return Fail(error, path + ": a path with ',' cannot be used");
    *files += (files->empty() ? "" : ",") + path;
  }
  return true;
}

std::string ReadEngineId(const std::string& persistentFile) {
  std::string engineId;
  for (const std::vector<std::string>& words : LinesOf(persistentFile, "oldEngineID")) {
    if (!words.empty()) engineId = FromHex(words[0]);
  }
  return engineId;
}

bool LocalizedKey(const std::string& authProtocol, const std::string& engineId, const std::string& passphrase,
                  size_t keyLength, std::string* key, std::string* error) {
  const AuthProtocol* auth = FindAuth(authProtocol);
  if (auth == nullptr) return Fail(error, "unknown authentication protocol '" + authProtocol + "'");
  if (passphrase.size() < kMinPassphrase) return Fail(error, "the passphrase has fewer than 8 characters");
  u_char ku[SNMP_MAXBUF_SMALL];
  size_t kuLength = sizeof ku;
  u_char kul[SNMP_MAXBUF_SMALL];
  size_t kulLength = sizeof kul;
  if (generate_Ku(auth->hash, kProtocolOidLength, reinterpret_cast<const u_char*>(passphrase.data()), passphrase.size(),
                  ku, &kuLength) != SNMPERR_SUCCESS ||
      generate_kul(auth->hash, kProtocolOidLength, reinterpret_cast<const u_char*>(engineId.data()), engineId.size(),
                   ku, kuLength, kul, &kulLength) != SNMPERR_SUCCESS) {
    memset(ku, 0, sizeof ku);
    return Fail(error, "Net-SNMP cannot make a " + authProtocol + " key");
  }
  memset(ku, 0, sizeof ku);
  if (keyLength != 0 && keyLength > kulLength) return Fail(error, "the key is too short");
  key->assign(reinterpret_cast<char*>(kul), keyLength != 0 ? keyLength : kulLength);
  memset(kul, 0, sizeof kul);
  return true;
}

bool CheckNewUser(const NewUser& user, std::string* error) {
  if (user.name.empty() || user.name.size() > 32) return Fail(error, "a user name has 1 to 32 characters");
  for (char c : user.name) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') {
      return Fail(error, "user name '" + user.name + "': only letters, digits, '.', '_' and '-'");
    }
  }
  if (FindAuth(user.authProtocol) == nullptr) {
    return Fail(error, "'" + user.authProtocol + "' is not SHA, SHA-224, SHA-256, SHA-384 or SHA-512");
  }
  if (FindPriv(user.privProtocol) == nullptr) return Fail(error, "'" + user.privProtocol + "' is not AES or DES");
  return true;
}

bool CheckPassphrase(const std::string& what, const std::string& passphrase, std::string* error) {
  if (passphrase.size() >= kMinPassphrase) return true;
  return Fail(error, "the " + what + " passphrase has fewer than " + std::to_string(kMinPassphrase) + " characters");
}

std::vector<std::string> KnownUsers(const std::string& stateDir) {
  std::vector<std::string> names;
  for (const std::string& path : {UsersFile(stateDir), PersistentFile(stateDir)}) {
    // usmUser STATUS STORAGE ENGINEID NAME SECNAME ...
    for (const std::vector<std::string>& words : LinesOf(path, "usmUser")) {
      if (words.size() > 3) names.push_back(UserName(words[3]));
    }
  }
  return names;
}

bool UserLines(const NewUser& user, const std::string& engineId, std::string* lines, std::string* error) {
  if (!CheckNewUser(user, error) || !CheckPassphrase("authentication", user.authPassphrase, error) ||
      !CheckPassphrase("privacy", user.privPassphrase, error)) {
    return false;
  }
  if (engineId.empty()) return Fail(error, "no engineID");
  std::string authKey;
  std::string privKey;
  if (!LocalizedKey(user.authProtocol, engineId, user.authPassphrase, 0, &authKey, error) ||
      !LocalizedKey(user.authProtocol, engineId, user.privPassphrase, kPrivKeyLength, &privKey, error)) {
    return false;
  }
  const AuthProtocol* auth = FindAuth(user.authProtocol);
  char when[32] = "";
  const time_t now = time(nullptr);
  struct tm tm;
  if (gmtime_r(&now, &tm) != nullptr) strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S UTC", &tm);
  std::ostringstream os;
  os << "# " << user.name << ": " << user.authProtocol << ", " << user.privProtocol << ", "
     << (user.readWrite ? "read-write" : "read-only") << "; zerva-snmp-agent --create-user, " << when << "\n"
     << "usmUser 1 " << ST_READONLY << " " << Hex(engineId) << " \"" << user.name << "\" \"" << user.name << "\" NULL "
     << OidText(auth->hash) << " " << Hex(authKey) << " " << OidText(FindPriv(user.privProtocol)) << " " << Hex(privKey)
     << " \"\"\n"
     << (user.readWrite ? "rwuser " : "rouser ") << user.name << " priv\n";
  *lines = os.str();
  return true;
}

bool CreateUser(const std::string& stateDir, const NewUser& user, std::string* error) {
  if (!CheckNewUser(user, error)) return false;
  struct stat dir;
  if (stat(stateDir.c_str(), &dir) != 0) return Fail(error, stateDir + ": " + strerror(errno));
  if (!S_ISDIR(dir.st_mode)) return Fail(error, stateDir + ": not a directory");
  for (const std::string& known : KnownUsers(stateDir)) {
    if (known == user.name) return Fail(error, "user '" + user.name + "' exists already in " + stateDir);
  }
  // The engineID the agent keeps here; a new one when it has not run here yet
  // (it takes it up at its next start).
  const std::string persistent = PersistentFile(stateDir);
  std::string engineId = ReadEngineId(persistent);
  const bool newEngine = engineId.empty();
  if (newEngine && !NewEngineId(&engineId, error)) return false;
  std::string lines;
  if (!UserLines(user, engineId, &lines, error)) return false;
  if (newEngine && !AppendTo(persistent, "oldEngineID " + Hex(engineId) + "\n", dir, error)) return false;
  return AppendTo(UsersFile(stateDir), lines, dir, error);
}

bool ReadPassphrases(FILE* in, FILE* prompt, std::string* auth, std::string* priv, std::string* error) {
  if (isatty(fileno(in))) {
    if (!AskWithoutEcho(in, prompt, "authentication passphrase: ", auth) ||
        !AskWithoutEcho(in, prompt, "privacy passphrase: ", priv)) {
      return Fail(error, "no passphrase given");
    }
    return true;
  }
  if (!ReadLine(in, auth)) return Fail(error, "standard input holds no authentication passphrase");
  if (!ReadLine(in, priv)) return Fail(error, "standard input holds no privacy passphrase (the second line)");
  return true;
}

}  // namespace zerva_agent
