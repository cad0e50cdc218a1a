// The agent's refusal to listen where other hosts reach it while its
// configuration holds a community or passphrase that ships with
// zerva-snmp-agent (and so is known to anyone who has the package).
//
// The configuration is read as Net-SNMP reads it (snmpd.conf syntax:
// rocommunity, rwcommunity, rocommunity6, rwcommunity6, authcommunity,
// com2sec, com2sec6, createUser; includeFile and includeDir followed), with
// each credential's file and line, so that the refusal names them.
#ifndef ZERVA_AGENT_LISTEN_SAFETY_H_
#define ZERVA_AGENT_LISTEN_SAFETY_H_

#include <string>
#include <vector>

namespace zerva_agent {

// Every community and passphrase that ships with zerva-snmp-agent: those of
// the configurations, demo scripts and documentation in its sources. The one
// list the refusal checks against.
const std::vector<std::string>& ShippedSecrets();
bool IsShippedSecret(const std::string& secret);

// True when only this host reaches a listening address in Net-SNMP's
// transport syntax: unix:PATH (or /PATH), a 127.0.0.0/8 address,
// "localhost", [::1] (udp6/tcp6), a name that resolves to loopback
// addresses only. "161", "udp:161" (no host), 0.0.0.0, "::" and any other
// address are reached by other hosts.
bool IsLocalAddress(const std::string& address);
// The addresses of a comma-separated list that other hosts reach.
std::vector<std::string> NonLocalAddresses(const std::string& addresses);

// A community or passphrase in a configuration.
struct Credential {
  std::string file;  // "" for the built-in configuration
  int line = 0;
  std::string kind;  // "community" or "passphrase"
  std::string value;
};

// The credentials of one configuration line (file and line left empty):
// the community of rocommunity, rwcommunity, rocommunity6, rwcommunity6,
// authcommunity, com2sec, com2sec6, the passphrases of createUser.
std::vector<Credential> LineCredentials(const std::string& line);

// The credentials of a configuration file and the files its includeFile and
// includeDir lines name (a relative path from the including file's
// directory). False with *error for a file that cannot be read.
bool FindCredentials(const std::string& path, std::vector<Credential>* out, std::string* error);

// The refusal's lines, one per credential that ships with the agent when
// `addresses` (comma-separated) holds one that other hosts reach:
//   FILE: line N: community "public" ships with zerva-snmp-agent; choose
//   your own before listening on ADDRESS
// Empty when the agent may listen there.
std::vector<std::string> InsecureListening(const std::vector<Credential>& credentials, const std::string& addresses);

// The whole check for a start or a configuration check: the credentials of
// configFile (those of the line builtInAccess when configFile is ""), against
// the addresses the agent is to listen on. *problems gets the refusal's
// lines (or the reason configFile cannot be read). True when it may listen.
bool SafeToListen(const std::string& configFile, const std::string& builtInAccess, const std::string& addresses,
                  std::vector<std::string>* problems);

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_LISTEN_SAFETY_H_
