#include "host/agent/listen_safety.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "tests/support/temp_dir.h"

namespace zerva_agent {
namespace {

using zerva_test::TempDir;

TEST(ListenSafetyTest, LoopbackAndUnixAddressesAreLocal) {
  for (const char* address :
       {"udp:127.0.0.1:1161", "127.0.0.1:161", "127.0.0.1", "udp:127.0.0.2:1161", "tcp:127.0.0.1:1161",
        "127.255.0.9:161", "localhost:161", "udp:localhost:1161", "LOCALHOST", "udp6:[::1]:1161", "tcp6:[::1]:1161",
        "udp6:::1", "[::1]:161", "[::1]", "udp6:[::ffff:127.0.0.1]:161", "unix:/run/zerva-snmp-agent/agent.sock",
        "/run/zerva-snmp-agent/agent.sock", " udp:127.0.0.1:1161 "}) {
    EXPECT_TRUE(IsLocalAddress(address)) << address;
  }
}

TEST(ListenSafetyTest, WildcardBarePortAndLanAddressesAreNotLocal) {
  for (const char* address :
       {"udp:0.0.0.0:1161", "0.0.0.0:161", "0.0.0.0", "161", "udp:161", "tcp:161", "udp6:161", "tcp:0.0.0.0:1161",
        "udp6:[::]:161", "[::]:161", "udp6:::", "192.168.1.20:161", "udp:10.0.0.5:1161", "tcp:192.0.2.1:1161",
        "udp6:[2001:db8::1]:161", "udp:", "udp:128.0.0.1:161", "udp:*:161"}) {
    EXPECT_FALSE(IsLocalAddress(address)) << address;
  }
}

TEST(ListenSafetyTest, NonLocalAddressesPicksTheOnesOtherHostsReach) {
  EXPECT_EQ(std::vector<std::string>({"udp:0.0.0.0:2", "161"}),
            NonLocalAddresses("udp:127.0.0.1:1,udp:0.0.0.0:2,unix:/tmp/a.sock,161,udp6:[::1]:3"));
  EXPECT_TRUE(NonLocalAddresses("udp:127.0.0.1:1161").empty());
  EXPECT_TRUE(NonLocalAddresses("").empty());
}

// kind:value of each credential of one line.
std::vector<std::string> Found(const std::string& line) {
  std::vector<std::string> out;
  for (const Credential& c : LineCredentials(line)) out.push_back(c.kind + ":" + c.value);
  return out;
}

TEST(ListenSafetyTest, LineCredentialsFindCommunitiesOfEveryAccessToken) {
  typedef std::vector<std::string> Texts;
  EXPECT_EQ(Texts({"community:public"}), Found("rocommunity public"));
  EXPECT_EQ(Texts({"community:public"}), Found("  rocommunity public 127.0.0.1 .1.3.6.1.4.1.32473"));
  EXPECT_EQ(Texts({"community:private"}), Found("rwcommunity private 10.0.0.0/8 -V all"));
  EXPECT_EQ(Texts({"community:public"}), Found("rocommunity6 public ::1"));
  EXPECT_EQ(Texts({"community:private"}), Found("rwcommunity6 -V all private default"));
  EXPECT_EQ(Texts({"community:public"}), Found("ROCOMMUNITY public"));
  EXPECT_EQ(Texts({"community:public"}), Found("authcommunity read,write public 127.0.0.1"));
  EXPECT_EQ(Texts({"community:private"}), Found("com2sec local 127.0.0.1 private"));
  EXPECT_EQ(Texts({"community:public"}), Found("com2sec -Cn ctx readers default public"));
  EXPECT_EQ(Texts({"community:public"}), Found("com2sec6 readers ::1 public"));
  EXPECT_EQ(Texts({"community:my community"}), Found("rocommunity \"my community\" 127.0.0.1"));
  EXPECT_EQ(Texts({"community:it's"}), Found("rocommunity it\\'s"));
}

TEST(ListenSafetyTest, LineCredentialsFindBothPassphrasesOfCreateUser) {
  typedef std::vector<std::string> Texts;
  EXPECT_EQ(Texts({"passphrase:zerva-auth-pass", "passphrase:zerva-priv-pass"}),
            Found("createUser zerva SHA zerva-auth-pass AES zerva-priv-pass"));
  EXPECT_EQ(Texts({"passphrase:a-pass-word", "passphrase:another-one"}),
            Found("createUser -e 0x8000000001020304 u1 SHA-256 a-pass-word DES another-one"));
  EXPECT_EQ(Texts({"passphrase:only-auth-pass"}), Found("createUser u2 SHA only-auth-pass"));
  EXPECT_EQ(Texts({"passphrase:\"quoted pass\""}), Found("createUser u3 SHA '\"quoted pass\"'"));
}

TEST(ListenSafetyTest, LineCredentialsIgnoreCommentsAndOtherTokens) {
  EXPECT_TRUE(Found("# rocommunity public").empty());
  EXPECT_TRUE(Found("#rocommunity public").empty());
  EXPECT_TRUE(Found("rouser zerva priv").empty());
  EXPECT_TRUE(Found("agentaddress udp:0.0.0.0:161").empty());
  EXPECT_TRUE(Found("trap2sink 127.0.0.1 public").empty());
  EXPECT_TRUE(Found("").empty());
  EXPECT_TRUE(Found("rocommunity").empty());
}

TEST(ListenSafetyTest, FindCredentialsNamesFileAndLineAndFollowsIncludes) {
  TempDir dir;
  ASSERT_EQ(0, mkdir((dir.path() + "/conf.d").c_str(), 0700));
  dir.file("conf.d/b.conf", "\nrwcommunity private 127.0.0.1\n");
  dir.file("conf.d/a.conf", "com2sec x default public\n");
  dir.file("conf.d/ignored.txt", "rocommunity not-read\n");
  dir.file("extra.conf", "createUser u SHA zerva-auth-pass AES mine-and-only-mine\n");
  const std::string main = dir.file("agent.conf",
                                    "# access\nrocommunity s3cret 10.0.0.0/8\nincludeFile extra.conf\n"
                                    "includeDir " +
                                        dir.path() + "/conf.d\n");
  std::vector<Credential> found;
  std::string error;
  ASSERT_TRUE(FindCredentials(main, &found, &error)) << error;
  ASSERT_EQ(5u, found.size());
  EXPECT_EQ(main, found[0].file);
  EXPECT_EQ(2, found[0].line);
  EXPECT_EQ("s3cret", found[0].value);
  EXPECT_EQ(dir.path() + "/extra.conf", found[1].file);
  EXPECT_EQ(1, found[1].line);
  EXPECT_EQ("zerva-auth-pass", found[1].value);
  EXPECT_EQ("mine-and-only-mine", found[2].value);
  EXPECT_EQ(dir.path() + "/conf.d/a.conf", found[3].file);
  EXPECT_EQ("public", found[3].value);
  EXPECT_EQ(dir.path() + "/conf.d/b.conf", found[4].file);
  EXPECT_EQ(2, found[4].line);
  EXPECT_EQ("private", found[4].value);
}

TEST(ListenSafetyTest, FindCredentialsFailsOnAMissingFileOrEndlessIncludes) {
  TempDir dir;
  std::vector<Credential> found;
  std::string error;
  EXPECT_FALSE(FindCredentials(dir.path() + "/none.conf", &found, &error));
  EXPECT_NE(std::string::npos, error.find("none.conf")) << error;
  const std::string self = dir.file("self.conf", "includeFile self.conf\n");
  EXPECT_FALSE(FindCredentials(self, &found, &error));
  EXPECT_NE(std::string::npos, error.find("nest deeper")) << error;
}

TEST(ListenSafetyTest, ShippedCredentialBeyondLoopbackIsRefusedNamingFileLineAndAddress) {
  Credential c;
  c.file = "/etc/zerva/zerva-snmp-agent.conf";
  c.line = 21;
  c.kind = "community";
  c.value = "public";
  Credential own = c;
  own.line = 22;
  own.value = "not-shipped-1";
  EXPECT_EQ(std::vector<std::string>(
                {"/etc/zerva/zerva-snmp-agent.conf: line 21: community \"public\" ships with zerva-snmp-agent; "
                 "choose your own before listening on udp:0.0.0.0:1161"}),
            InsecureListening({c, own}, "udp:127.0.0.1:1161,udp:0.0.0.0:1161"));
  EXPECT_TRUE(InsecureListening({c, own}, "udp:127.0.0.1:1161,unix:/run/a.sock").empty());
  EXPECT_TRUE(InsecureListening({own}, "udp:0.0.0.0:1161").empty());
  EXPECT_TRUE(InsecureListening({c}, "udp:127.0.0.2:1161").empty());
}

TEST(ListenSafetyTest, BuiltInConfigurationIsNamedAsSuch) {
  const std::vector<std::string> lines = InsecureListening(LineCredentials("rocommunity public 127.0.0.1"), "161");
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(
      "the built-in configuration (no -c): community \"public\" ships with zerva-snmp-agent; choose your own "
      "before listening on 161",
      lines[0]);
}

TEST(ListenSafetyTest, SafeToListenChecksTheFileOrTheBuiltInLine) {
  TempDir dir;
  const std::string conf = dir.file("agent.conf", "rocommunity mine-1 10.0.0.0/8\nrwcommunity private 127.0.0.1\n");
  std::vector<std::string> problems;
  EXPECT_FALSE(SafeToListen(conf, "rocommunity public 127.0.0.1", "udp:161", &problems));
  ASSERT_EQ(1u, problems.size());
  EXPECT_EQ(0u, problems[0].find(conf + ": line 2: community \"private\" ships")) << problems[0];
  problems.clear();
  EXPECT_TRUE(SafeToListen(conf, "rocommunity public 127.0.0.1", "udp:127.0.0.1:161", &problems));
  EXPECT_TRUE(problems.empty());
  EXPECT_FALSE(SafeToListen("", "rocommunity public 127.0.0.1", "udp:161", &problems));
  ASSERT_EQ(1u, problems.size());
  EXPECT_EQ(0u, problems[0].find("the built-in configuration (no -c): community \"public\"")) << problems[0];
  EXPECT_TRUE(SafeToListen("", "rocommunity mine-2 127.0.0.1", "udp:161", &problems));
  problems.clear();
  EXPECT_FALSE(SafeToListen(dir.path() + "/none.conf", "", "udp:127.0.0.1:161", &problems));
  ASSERT_EQ(1u, problems.size());
  EXPECT_NE(std::string::npos, problems[0].find("none.conf")) << problems[0];
}

// ------------------------------------------------- the shipped files

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> FilesIn(const std::string& dir, bool recursive) {
  std::vector<std::string> out;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return out;
  while (struct dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = dir + "/" + name;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      if (recursive) {
        for (const std::string& f : FilesIn(path, true)) out.push_back(f);
      }
    } else {
      out.push_back(path);
    }
  }
  closedir(d);
  return out;
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The communities and passphrases of a shipped file: its configuration
// lines, and the -c, -A and -X values of the SNMP commands it shows.
std::vector<std::string> SecretsOf(const std::string& path) {
  std::vector<std::string> out;
  static const std::regex kClientOption("(^|\\s)-[cAX]\\s+([^\\s$]\\S*)");
  static const std::regex kClient("\\bsnmp(get|getnext|walk|bulkwalk|bulkget|set|table|status|df|translate)\\b");
  std::istringstream lines(ReadAll(path));
  std::string line;
  while (std::getline(lines, line)) {
    for (const Credential& c : LineCredentials(line)) out.push_back(c.value);
    if (!std::regex_search(line, kClient)) continue;
    for (std::sregex_iterator m(line.begin(), line.end(), kClientOption), end; m != end; ++m) {
      out.push_back((*m)[2].str());
    }
  }
  return out;
}

TEST(ListenSafetyTest, EveryCredentialOfEveryShippedFileIsOnTheShippedList) {
  const std::string root = ZERVA_SOURCE_DIR;
  std::vector<std::string> files;
  for (const std::string& f : FilesIn(root + "/host/agent", false)) {
    if (EndsWith(f, ".conf")) files.push_back(f);
  }
  for (const std::string& f : FilesIn(root + "/host/agent/conf", true)) files.push_back(f);
  for (const std::string& f : FilesIn(root + "/examples", true)) files.push_back(f);
  for (const std::string& f : FilesIn(root + "/scripts", true)) files.push_back(f);
  ASSERT_FALSE(files.empty());
  size_t seen = 0;
  for (const std::string& f : files) {
    for (const std::string& secret : SecretsOf(f)) {
      ++seen;
      EXPECT_TRUE(IsShippedSecret(secret)) << f << " holds \"" << secret << "\", which ShippedSecrets() lacks";
    }
  }
  // The demo configuration alone holds two communities and two passphrases.
  EXPECT_GE(seen, 4u);
}

TEST(ListenSafetyTest, ShippedFileScanSeesClientOptionsAndConfigurationLines) {
  TempDir dir;
  const std::string f = dir.file("try.sh",
                                 "snmpget -v2c -c community-a host x\n"
                                 "  snmpget -v3 -l authPriv -u u -a SHA -A pass-b -x AES -X pass-c ${PEER} x\n"
                                 "snmpwalk -v2c -c ${COMMUNITY} host\n"
                                 "bash -c true\n"
                                 "rwcommunity community-d 127.0.0.1\n");
  EXPECT_EQ(std::vector<std::string>({"community-a", "pass-b", "pass-c", "community-d"}), SecretsOf(f));
}

TEST(ListenSafetyTest, InstalledConfigurationAnswersThisHostReadOnly) {
  const std::string path = std::string(ZERVA_SOURCE_DIR) + "/host/agent/conf/zerva-snmp-agent.conf";
  std::vector<Credential> found;
  std::string error;
  ASSERT_TRUE(FindCredentials(path, &found, &error)) << error;
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ("public", found[0].value);
  std::istringstream lines(ReadAll(path));
  std::string line;
  std::vector<std::string> active;
  while (std::getline(lines, line)) {
    if (line.empty() || line[0] == '#') continue;
    active.push_back(line);
    for (const char* token : {"rwcommunity", "rwuser", "createUser", "com2sec", "rouser", "access", "includ"}) {
      EXPECT_NE(0u, line.find(token)) << line;
    }
  }
  auto has = [&active](const std::string& l) { return std::find(active.begin(), active.end(), l) != active.end(); };
  EXPECT_TRUE(has("agentaddress udp:127.0.0.1:1161"));
  EXPECT_TRUE(has("rocommunity public 127.0.0.1"));
  EXPECT_TRUE(has("zervaBackend unix:/run/zerva-array-sim/array.sock"));
  EXPECT_TRUE(InsecureListening(found, "udp:127.0.0.1:1161").empty());
  EXPECT_EQ(1u, InsecureListening(found, "udp:0.0.0.0:1161").size());
}

}  // namespace
}  // namespace zerva_agent
