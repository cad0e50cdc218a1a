// Backend: the management back end the handlers talk to.
//
// "embedded" starts the array simulator in this process, on a Unix socket in
// a private temporary directory; "unix:PATH" and "tcp:HOST:PORT" name a real
// back end. Either way a CSnmpSocketTransport is installed as the transport
// of CSNMP_Configuration (after a call timed out it answers at once for its
// retry interval, so that one SNMP request waits out at most one back-end
// timeout), the back end's capability list becomes the capability source,
// and the device configuration names the command codes.
#ifndef ZERVA_AGENT_BACKEND_H_
#define ZERVA_AGENT_BACKEND_H_

#include <memory>
#include <string>

#include "host/agent/agent_options.h"

namespace zerva_sim {
class ArraySimServer;
}
class CBackendCapabilitySource;
class CSnmpSocketTransport;

namespace zerva_agent {

class Backend {
 public:
  Backend();
  ~Backend();  // stop()
  Backend(const Backend&) = delete;
  Backend& operator=(const Backend&) = delete;

  // Sets up the back end of the options. False with *error when the address
  // is bad or the embedded simulator cannot start.
  bool start(const AgentOptions& options, std::string* error);
  // Removes the transport and the capability source, stops the simulator
  // and removes its directory.
  void stop();

  // What the handlers talk to, for the start-up line.
  const std::string& description() const { return description_; }
  // The installed transport and capability source (null when stopped).
  const std::shared_ptr<CSnmpSocketTransport>& transport() const { return transport_; }
  const std::shared_ptr<CBackendCapabilitySource>& capabilities() const { return capabilities_; }

 private:
  std::shared_ptr<CSnmpSocketTransport> transport_;
  std::shared_ptr<CBackendCapabilitySource> capabilities_;
  std::unique_ptr<zerva_sim::ArraySimServer> sim_;
  std::string tempDir_;
  std::string description_;
  bool installed_ = false;
};

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_BACKEND_H_
