// The agent's state directory (--state-dir) and the SNMPv3 users kept in it.
//
// The directory holds two files besides what Net-SNMP puts there:
//  - zerva-snmp-agent.conf: Net-SNMP's persistent file (engineID, engineBoots,
//    users created over SNMP). Net-SNMP rewrites it at start and at exit.
//  - users.conf: the users `zerva-snmp-agent --create-user` made, as
//    Net-SNMP usmUser lines holding only keys localized to the agent's
//    engineID (never a passphrase), each followed by its access line
//    (rouser/rwuser NAME priv). The tool appends to it; the agent reads it
//    after its configuration and never writes it.
//
// The agent hands Net-SNMP its configuration file, then these two files, to
// read (NetSnmpConfigFiles), so that the engineID and the engine's boot
// count carry over from one run to the next and the users' keys stay valid.
#ifndef ZERVA_AGENT_V3_USERS_H_
#define ZERVA_AGENT_V3_USERS_H_

#include <cstdio>
#include <string>
#include <vector>

namespace zerva_agent {

// The two files in a state directory.
std::string PersistentFile(const std::string& stateDir);  // STATE/zerva-snmp-agent.conf
std::string UsersFile(const std::string& stateDir);       // STATE/users.conf

// What Net-SNMP is to read, in order, as its comma-separated list of
// configuration files: configFile (when given), then the persistent file and
// the users file of stateDir (when there). False with *error when a path
// holds a ',' (it would split the list).
bool NetSnmpConfigFiles(const std::string& configFile, const std::string& stateDir, std::string* files,
                        std::string* error);

// Creates an empty users file (a comment, mode 0600) in stateDir when there
// is none, so that Net-SNMP's list of files holds it from the start and a
// user created while the agent runs is read on SIGHUP. False when it cannot
// be created (the agent then goes on without it).
bool EnsureUsersFile(const std::string& stateDir);

// The engineID kept in a persistent file (its last oldEngineID line), as
// bytes; "" when the file has none or cannot be read.
std::string ReadEngineId(const std::string& persistentFile);

// A key localized to an engineID (RFC 3414 A.2, with the hash of the
// authentication protocol): authProtocol is SHA, SHA-224, SHA-256, SHA-384
// or SHA-512. keyLength 0 keeps the hash's length; a smaller one cuts the
// key (privacy keys: 16 bytes for AES and DES). False with *error.
bool LocalizedKey(const std::string& authProtocol, const std::string& engineId, const std::string& passphrase,
                  size_t keyLength, std::string* key, std::string* error);

// A user for the users file.
struct NewUser {
  std::string name;
  std::string authProtocol = "SHA";  // SHA | SHA-224 | SHA-256 | SHA-384 | SHA-512
  std::string privProtocol = "AES";  // AES | DES
  bool readWrite = false;
  std::string authPassphrase;
  std::string privPassphrase;
};

// Checks the parts of a user that come from the command line: the name
// (1 to 32 letters, digits, '.', '_', '-') and the protocols. False with
// *error naming the bad one.
bool CheckNewUser(const NewUser& user, std::string* error);
// A passphrase is at least this long.
const size_t kMinPassphrase = 8;
// False with *error ("the WHAT passphrase has fewer than 8 characters").
bool CheckPassphrase(const std::string& what, const std::string& passphrase, std::string* error);

// The user names the state directory already knows (users file and
// persistent file).
std::vector<std::string> KnownUsers(const std::string& stateDir);

// The lines the users file gets for a user whose keys are localized to
// engineId: a comment, the usmUser line (storage type readOnly: Net-SNMP
// never copies it into its persistent file), the access line.
bool UserLines(const NewUser& user, const std::string& engineId, std::string* lines, std::string* error);

// Creates the user in stateDir: takes the engineID kept there (making one,
// in the persistent file, when the agent has not run there yet), refuses a
// name the directory knows, appends UserLines to the users file (mode 0600,
// owned as the directory). False with *error; nothing is written then.
bool CreateUser(const std::string& stateDir, const NewUser& user, std::string* error);

// Reads the authentication, then the privacy passphrase: from `in` one per
// line, or, when `in` is a terminal, asked on `prompt` without echo. False
// with *error when a line is missing.
bool ReadPassphrases(FILE* in, FILE* prompt, std::string* auth, std::string* priv, std::string* error);

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_V3_USERS_H_
