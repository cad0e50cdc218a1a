#include "host/agent/v3_users.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "tests/support/temp_dir.h"

namespace zerva_agent {
namespace {

using zerva_test::TempDir;

std::string Bytes(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

std::string HexOf(const std::string& bytes) {
  std::string out;
  char two[3];
  for (unsigned char c : bytes) {
    snprintf(two, sizeof two, "%02x", c);
    out += two;
  }
  return out;
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(V3UsersTest, LocalizedShaKeyIsTheOneOfRfc3414) {
  // RFC 3414 A.3.2: "maplesyrup", engineID 00...02.
  std::string key;
  std::string error;
  ASSERT_TRUE(LocalizedKey("SHA", Bytes("000000000000000000000002"), "maplesyrup", 0, &key, &error)) << error;
  EXPECT_EQ("6695febc9288e36282235fc7151f128497b38f3f", HexOf(key));
}

TEST(V3UsersTest, KeysAreTheOnesNetSnmpsCreateUserMakes) {
  // What Net-SNMP kept in its persistent file for
  // "createUser zerva SHA zerva-auth-pass AES zerva-priv-pass".
  const std::string engine = Bytes("80001f88807c072778fbbc046b00000000");
  std::string auth;
  std::string priv;
  std::string error;
  ASSERT_TRUE(LocalizedKey("SHA", engine, "zerva-auth-pass", 0, &auth, &error)) << error;
  ASSERT_TRUE(LocalizedKey("SHA", engine, "zerva-priv-pass", 16, &priv, &error)) << error;
  EXPECT_EQ("7871736cbbadff3f3e642b97b7826cb781ee7464", HexOf(auth));
  EXPECT_EQ("2001d4993b70b2786f3e8e411bcf0b20", HexOf(priv));
}

TEST(V3UsersTest, KeyLengthFollowsTheHash) {
  const std::string engine = Bytes("80001f88807c072778fbbc046b00000000");
  std::string key;
  std::string error;
  const std::pair<const char*, size_t> lengths[] = {
      {"SHA", 20}, {"SHA-224", 28}, {"SHA-256", 32}, {"SHA-384", 48}, {"SHA-512", 64}};
  for (const auto& p : lengths) {
    ASSERT_TRUE(LocalizedKey(p.first, engine, "long-enough", 0, &key, &error)) << p.first << ": " << error;
    EXPECT_EQ(p.second, key.size()) << p.first;
  }
  EXPECT_FALSE(LocalizedKey("MD5", engine, "long-enough", 0, &key, &error));
  EXPECT_NE(std::string::npos, error.find("MD5")) << error;
}

TEST(V3UsersTest, CheckNewUserNamesTheBadPart) {
  NewUser user;
  std::string error;
  user.name = "monitor-1.a_b";
  EXPECT_TRUE(CheckNewUser(user, &error)) << error;
  user.name = "";
  EXPECT_FALSE(CheckNewUser(user, &error));
  user.name = std::string(33, 'a');
  EXPECT_FALSE(CheckNewUser(user, &error));
  user.name = "a b";
  EXPECT_FALSE(CheckNewUser(user, &error));
  EXPECT_NE(std::string::npos, error.find("'a b'")) << error;
  user.name = "ok";
  user.authProtocol = "MD5";
  EXPECT_FALSE(CheckNewUser(user, &error));
  EXPECT_NE(std::string::npos, error.find("'MD5'")) << error;
  user.authProtocol = "SHA-384";
  user.privProtocol = "AES-256";
  EXPECT_FALSE(CheckNewUser(user, &error));
  EXPECT_NE(std::string::npos, error.find("'AES-256'")) << error;
  user.privProtocol = "DES";
  EXPECT_TRUE(CheckNewUser(user, &error)) << error;
}

TEST(V3UsersTest, PassphraseUnderEightCharactersIsRefused) {
  std::string error;
  EXPECT_TRUE(CheckPassphrase("privacy", "12345678", &error));
  EXPECT_FALSE(CheckPassphrase("privacy", "1234567", &error));
  EXPECT_EQ("the privacy passphrase has fewer than 8 characters", error);
}

TEST(V3UsersTest, NetSnmpReadsTheConfigurationThenTheStateFiles) {
  TempDir dir;
  std::string files;
  std::string error;
  ASSERT_TRUE(NetSnmpConfigFiles("/etc/a.conf", dir.path(), &files, &error)) << error;
  EXPECT_EQ("/etc/a.conf", files);
  dir.file("users.conf", "");
  dir.file("zerva-snmp-agent.conf", "");
  ASSERT_TRUE(NetSnmpConfigFiles("/etc/a.conf", dir.path(), &files, &error)) << error;
  EXPECT_EQ("/etc/a.conf," + dir.path() + "/zerva-snmp-agent.conf," + dir.path() + "/users.conf", files);
  ASSERT_TRUE(NetSnmpConfigFiles("", "", &files, &error)) << error;
  EXPECT_EQ("", files);
  EXPECT_FALSE(NetSnmpConfigFiles("/etc/a,b.conf", dir.path(), &files, &error));
  EXPECT_NE(std::string::npos, error.find("/etc/a,b.conf")) << error;
}

TEST(V3UsersTest, EnsureUsersFileMakesAnEmptyOneAndLeavesAnExistingOneAlone) {
  TempDir dir;
  ASSERT_TRUE(EnsureUsersFile(dir.path()));
  const std::string made = ReadAll(UsersFile(dir.path()));
  EXPECT_EQ(0u, made.find("# SNMPv3 users of zerva-snmp-agent --create-user")) << made;
  EXPECT_TRUE(KnownUsers(dir.path()).empty());
  struct stat st;
  ASSERT_EQ(0, stat(UsersFile(dir.path()).c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);
  dir.file("users.conf", "rouser x priv\n");
  ASSERT_TRUE(EnsureUsersFile(dir.path()));
  EXPECT_EQ("rouser x priv\n", ReadAll(UsersFile(dir.path())));
  EXPECT_FALSE(EnsureUsersFile(dir.path() + "/missing"));
}

TEST(V3UsersTest, EngineIdIsTheLastOneOfThePersistentFile) {
  TempDir dir;
  EXPECT_EQ("", ReadEngineId(dir.path() + "/none.conf"));
  const std::string f = dir.file("p.conf", "# x\noldEngineID 0x0102\nengineBoots 3\noldEngineID 0x80001F8880AB\n");
  EXPECT_EQ(Bytes("80001f8880ab"), ReadEngineId(f));
}

NewUser Monitor(bool readWrite) {
  NewUser user;
  user.name = "monitor";
  user.authProtocol = "SHA-256";
  user.privProtocol = "AES";
  user.readWrite = readWrite;
  user.authPassphrase = "auth-passphrase-1";
  user.privPassphrase = "priv-passphrase-2";
  return user;
}

TEST(V3UsersTest, UserLinesHoldLocalizedKeysAndTheAccessLine) {
  const std::string engine = Bytes("80001f8880aabbccddeeff00112233");
  std::string lines;
  std::string error;
  ASSERT_TRUE(UserLines(Monitor(false), engine, &lines, &error)) << error;
  std::string auth;
  std::string priv;
  ASSERT_TRUE(LocalizedKey("SHA-256", engine, "auth-passphrase-1", 0, &auth, &error));
  ASSERT_TRUE(LocalizedKey("SHA-256", engine, "priv-passphrase-2", 16, &priv, &error));
  EXPECT_NE(std::string::npos, lines.find("\nusmUser 1 5 0x80001f8880aabbccddeeff00112233 \"monitor\" \"monitor\" NULL "
                                          ".1.3.6.1.6.3.10.1.1.5 0x" +
                                          HexOf(auth) + " .1.3.6.1.6.3.10.1.2.4 0x" + HexOf(priv) + " \"\"\n"))
      << lines;
  EXPECT_NE(std::string::npos, lines.find("\nrouser monitor priv\n")) << lines;
  EXPECT_EQ(std::string::npos, lines.find("passphrase-")) << lines;
  ASSERT_TRUE(UserLines(Monitor(true), engine, &lines, &error)) << error;
  EXPECT_NE(std::string::npos, lines.find("\nrwuser monitor priv\n")) << lines;
  NewUser shortPass = Monitor(false);
  shortPass.privPassphrase = "short";
  EXPECT_FALSE(UserLines(shortPass, engine, &lines, &error));
  EXPECT_NE(std::string::npos, error.find("privacy")) << error;
}

TEST(V3UsersTest, CreateUserMakesTheEngineIdOnceAndStoresNoPassphrase) {
  TempDir dir;
  std::string error;
  ASSERT_TRUE(CreateUser(dir.path(), Monitor(false), &error)) << error;
  const std::string engine = ReadEngineId(PersistentFile(dir.path()));
  ASSERT_EQ(17u, engine.size());
  EXPECT_EQ(std::string("\x80\x00\x1f\x88\x80", 5), engine.substr(0, 5));
  NewUser second = Monitor(true);
  second.name = "operator";
  ASSERT_TRUE(CreateUser(dir.path(), second, &error)) << error;
  EXPECT_EQ(engine, ReadEngineId(PersistentFile(dir.path())));
  EXPECT_EQ(std::vector<std::string>({"monitor", "operator"}), KnownUsers(dir.path()));

  const std::string users = ReadAll(UsersFile(dir.path()));
  EXPECT_NE(std::string::npos, users.find("usmUser 1 5 0x" + HexOf(engine) + " \"monitor\"")) << users;
  EXPECT_NE(std::string::npos, users.find("rwuser operator priv")) << users;
  struct stat st;
  ASSERT_EQ(0, stat(UsersFile(dir.path()).c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);
  ASSERT_EQ(0, stat(PersistentFile(dir.path()).c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);
  DIR* d = opendir(dir.path().c_str());
  ASSERT_NE(nullptr, d);
  while (struct dirent* e = readdir(d)) {
    const std::string text = ReadAll(dir.path() + "/" + e->d_name);
    EXPECT_EQ(std::string::npos, text.find("passphrase-")) << e->d_name;
  }
  closedir(d);
}

TEST(V3UsersTest, CreateUserKeepsTheAgentsEngineIdAndRefusesAKnownName) {
  TempDir dir;
  // A persistent file as the agent writes it, with a user made over SNMP.
  dir.file("zerva-snmp-agent.conf",
           "usmUser 1 3 0x80001f8880010203 0x6f6c64 0x6f6c64 NULL .1.3.6.1.6.3.10.1.1.3 0x00 .1.3.6.1.6.3.10.1.2.4 "
           "0x00 \"\"\nengineBoots 4\noldEngineID 0x80001f8880010203\n");
  std::string error;
  ASSERT_TRUE(CreateUser(dir.path(), Monitor(false), &error)) << error;
  EXPECT_NE(std::string::npos, ReadAll(UsersFile(dir.path())).find("usmUser 1 5 0x80001f8880010203 \"monitor\""));
  EXPECT_EQ(Bytes("80001f8880010203"), ReadEngineId(PersistentFile(dir.path())));
  const std::string before = ReadAll(UsersFile(dir.path()));
  EXPECT_FALSE(CreateUser(dir.path(), Monitor(true), &error));
  EXPECT_NE(std::string::npos, error.find("'monitor' exists already")) << error;
  NewUser old = Monitor(false);
  old.name = "old";
  EXPECT_FALSE(CreateUser(dir.path(), old, &error));
  EXPECT_NE(std::string::npos, error.find("'old' exists already")) << error;
  EXPECT_EQ(before, ReadAll(UsersFile(dir.path())));
}

TEST(V3UsersTest, FilesCreatedByRootBelongToTheStateDirectorysOwner) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  TempDir dir;
  const std::string state = dir.path() + "/state";
  ASSERT_EQ(0, mkdir(state.c_str(), 0750));
  const uid_t uid = 65534;
  const gid_t gid = 65534;
  ASSERT_EQ(0, chown(state.c_str(), uid, gid));
  std::string error;
  ASSERT_TRUE(CreateUser(state, Monitor(false), &error)) << error;
  for (const std::string& path : {UsersFile(state), PersistentFile(state)}) {
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st)) << path;
    EXPECT_EQ(uid, st.st_uid) << path;
    EXPECT_EQ(gid, st.st_gid) << path;
    EXPECT_EQ(0600u, st.st_mode & 0777) << path;
  }
}

TEST(V3UsersTest, CreateUserNeedsAnExistingDirectory) {
  TempDir dir;
  std::string error;
  EXPECT_FALSE(CreateUser(dir.path() + "/missing", Monitor(false), &error));
  EXPECT_NE(std::string::npos, error.find("/missing")) << error;
}

TEST(V3UsersTest, PassphrasesAreReadOneALine) {
  char text[] = "first-line-1\r\nsecond-line-2\nthird\n";
  FILE* in = fmemopen(text, sizeof text - 1, "r");
  ASSERT_NE(nullptr, in);
  std::string auth;
  std::string priv;
  std::string error;
  EXPECT_TRUE(ReadPassphrases(in, stderr, &auth, &priv, &error)) << error;
  fclose(in);
  EXPECT_EQ("first-line-1", auth);
  EXPECT_EQ("second-line-2", priv);

  char one[] = "only-one-line\n";
  in = fmemopen(one, sizeof one - 1, "r");
  ASSERT_NE(nullptr, in);
  EXPECT_FALSE(ReadPassphrases(in, stderr, &auth, &priv, &error));
  fclose(in);
  EXPECT_NE(std::string::npos, error.find("privacy")) << error;
}

}  // namespace
}  // namespace zerva_agent
