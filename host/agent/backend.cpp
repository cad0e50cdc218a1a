#include "host/agent/backend.h"

#include <stdlib.h>
#include <unistd.h>

#include <chrono>

#include "snmpcommon/snmp_backend_capability.h"
#include "snmpcommon/snmp_configuration.h"
#include "snmpcommon/snmp_socket_transport.h"
#include "vempub/vem_xml_config.h"
#include "sim/array_simulator.h"
#include "sim/sim_server.h"

namespace zerva_agent {

Backend::Backend() {}

Backend::~Backend() { stop(); }

bool Backend::start(const AgentOptions& options, std::string* error) {
  stop();
  const std::string deviceConfig = options.deviceConfig.empty() ? CVEMXmlConfig::defaultPath() : options.deviceConfig;
  CVEMXmlConfig::instance()->setPath(deviceConfig);
  std::string why;
  if (!CVEMXmlConfig::instance()->load(&why)) {
    *error = "cannot read the device configuration: " + why;
    return false;
  }

  // What the transport connects to.
  std::string address;
  if (options.backend == "embedded") {
    char dir[] = "/tmp/zerva-agent-backend.XXXXXX";
    if (mkdtemp(dir) == nullptr) {
      *error = "cannot create a directory for the embedded simulator";
      return false;
    }
    tempDir_ = dir;
    zerva_sim::SimOptions sim;
    sim.topologyFile = options.simTopology;
    sim.luns = options.simLuns;
    sim.fileSystems = options.simFileSystems;
    sim.features = options.simFeatures;
    sim.seed = options.simSeed;
    sim.deviceConfig = deviceConfig;
    sim.latencies = options.simLatencies;
    sim.listen = "unix:" + tempDir_ + "/backend.sock";
    sim_.reset(new zerva_sim::ArraySimServer(sim));
    if (!sim_->start(&why)) {
      *error = "the embedded simulator does not start: " + why;
      stop();
      return false;
    }
    address = sim_->address();
    description_ = "the embedded simulated array at " + address;
  } else {
    address = options.backend;
    description_ = "the back end at " + address;
  }

  CSnmpSocketTransportOptions transport;
  if (!CSnmpBackendAddress::parse(address, transport.address, &why)) {
    *error = "bad back-end address " + address + ": " + why;
    stop();
    return false;
  }
  if (options.backendTimeoutMs != 0) {
    transport.callTimeout = std::chrono::milliseconds(options.backendTimeoutMs);
    transport.listingTimeout = std::chrono::milliseconds(2ULL * options.backendTimeoutMs);
    transport.connectTimeout = std::chrono::milliseconds(options.backendTimeoutMs);
  }
  transport_ = std::make_shared<CSnmpSocketTransport>(transport);
  capabilities_ = std::make_shared<CBackendCapabilitySource>();
  CSNMP_Configuration::instance()->setTransport(transport_);
  SetSnmpCapabilitySource(capabilities_);
  installed_ = true;
  return true;
}

void Backend::stop() {
  if (installed_) {
    CSNMP_Configuration::instance()->setTransport(nullptr);
    SetSnmpCapabilitySource(nullptr);
    installed_ = false;
  }
  transport_.reset();
  capabilities_.reset();
  if (sim_) sim_->stop();
  sim_.reset();
  if (!tempDir_.empty()) {
    unlink((tempDir_ + "/backend.sock").c_str());
    rmdir(tempDir_.c_str());
    tempDir_.clear();
  }
}

}  // namespace zerva_agent
