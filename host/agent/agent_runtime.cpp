#include "host/agent/agent_runtime.h"

#include <algorithm>
#include <chrono>

#include "host/agent/agent_log.h"
#include "snmpcommon/snmp_backend_capability.h"
#include "snmpcommon/snmp_socket_transport.h"
#include "snmpcommon/snmp_table_base.h"
#include "vempub/vem_install_paths.h"

namespace zerva_agent {

std::string DefaultModulePath() { return VEMLibraryDir() + "/libsnmp_zerva_performance.so"; }
std::string DefaultMibDir() { return VEMDataDir() + "/mibs"; }

bool ConfigureLogging(const AgentOptions& options, bool logToStderr, std::string* error, LogHome home) {
  return ConfigureAgentLog(options, logToStderr, home, error);
}

bool AgentRuntime::start(const AgentOptions& optionsIn, const std::string& where, std::string* error) {
  stop();
  AgentOptions options = optionsIn;
  if (options.modulePath.empty()) options.modulePath = DefaultModulePath();
  if (options.mibDir.empty()) options.mibDir = DefaultMibDir();

  // The back end first: the module asks it for capabilities while it
  // creates its handlers.
  if (!backend_.start(options, error)) return false;
  options_ = options;
  where_ = where;
  std::string summary;
  if (!serve(&summary, error)) {
    stop();
    return false;
  }

  // The start-up line.
  VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "start", __LINE__, "%s", summary.c_str());
  watchFeatures();
  return true;
}

bool AgentRuntime::serve(std::string* summary, std::string* error) {
  const AgentOptions& options = options_;
  backend_.capabilities()->clearAsked();  // the questions of this load only
  if (!module_.load(options.modulePath, options.mibDir, error)) {
    unserve();
    return false;
  }

  ServerSettings settings;
  settings.snapshotTime = std::chrono::seconds(options.snapshotSeconds);
  settings.walkTime = std::chrono::seconds(options.walkSeconds);
  settings.batchRows = options.batchRows;
  settings.request = CurrentSnmpRequest;
  settings.waitTime = std::chrono::milliseconds(options.waitMs);
  settings.maxAge = std::chrono::seconds(options.maxAgeSeconds);
  settings.deadline = RequestDeadline(settings);
  worker_.reset(new BackendWorker());
  settings.worker = worker_.get();
  std::string prefixes;
  for (const HostedHandler& h : module_.handlers()) {
    std::unique_ptr<ObjectServer> server;
    if (h.object->kind == MibObject::Scalar) {
      server.reset(new ScalarServer(*h.object, h.handler, settings));
    } else {
      const bool batch = dynamic_cast<CSnmpTableBase*>(h.handler) != nullptr;
      server.reset(new TableServer(*h.object, h.handler, settings, batch));
    }
    if (!registrations_.add(
            server.get(), [this] { invalidateTables(); }, error)) {
      unserve();
      return false;
    }
    servers_.push_back(std::move(server));
    prefixes += (prefixes.empty() ? "" : ", ") + h.object->name + " " + h.prefix;
  }
  // Walks go from each object to the next in OID order.
  std::vector<ObjectServer*> inOrder;
  for (auto& s : servers_) inOrder.push_back(s.get());
  std::sort(inOrder.begin(), inOrder.end(),
            [](const ObjectServer* a, const ObjectServer* b) { return a->prefix() < b->prefix(); });
  for (size_t i = 0; i + 1 < inOrder.size(); ++i) inOrder[i]->setNext(inOrder[i + 1]);
  const MibDescription& mib = module_.mib();
  if (!mib.moduleArcs.empty()) sysOR_.add(mib.moduleArcs, "The MIB module " + mib.moduleName);

  *summary = "serving " + options.modulePath + " (MIB " + module_.mib().moduleName + " from " + module_.mibPath() +
             "): " + std::to_string(servers_.size()) + " handlers [" + prefixes + "] on " + where_ + ", back end " +
             backend_.description();
  return true;
}

void AgentRuntime::unserve() {
  // An AgentX master keeps our subtrees meanwhile (see
  // SnmpRegistrations::unregisterKeepingMaster): the next serve() takes
  // them up again, stop() removes them.
  registrations_.unregisterKeepingMaster();
  sysOR_.remove();
  worker_.reset();  // waits for the module call under way; the servers' jobs go with it
  servers_.clear();
  module_.unload();  // handlers, module, library
}

void AgentRuntime::stop() {
  // A module call under way ends now instead of when the array answers: the
  // worker is waited for below.
  if (backend_.transport()) backend_.transport()->shutdown();
  featureAlarm_.stop();
  featureWatch_.reset();
  featureSource_.reset();
  unserve();
  registrations_.unregister();  // at an AgentX master too
  backend_.stop();
}

void AgentRuntime::invalidateTables() {
  // A write (the collection switch) changes what every table answers.
  for (auto& s : servers_) s->invalidate();
}

// ---------------------------------------------------------------- the array's features

void AgentRuntime::watchFeatures() {
  std::shared_ptr<CSnmpSocketTransport> transport = backend_.transport();
  featureSource_.reset(
      new BackendFeatureSource(backend_.capabilities(), [transport] { return transport->connectCount(); }));
  featureWatch_.reset(new FeatureWatch(featureSource_.get()));
  featureWatch_->loaded(backend_.capabilities()->asked());
  // Four times a second: the watch itself decides when to ask the back end.
  if (!featureAlarm_.start(std::chrono::milliseconds(250), [this] { followFeatures(); })) {
    VEMLog(VEM_KIT_AGENT, VEM_LOG_ERROR, "watchFeatures", __LINE__,
           "Net-SNMP refuses an alarm: the array's features are not asked again, the module keeps what it got "
           "at start");
  }
}

void AgentRuntime::followFeatures() {
  if (following_ || !featureWatch_ || !featureWatch_->poll()) return;
  following_ = true;
  const std::string change =
      featureWatch_->lastLoadFailed()
          ? "nothing is served since a load of the module failed; the array's features are " +
                featureWatch_->currentText()
          : "the array's features changed from " + featureWatch_->loadedText() + " to " + featureWatch_->currentText();
  // Between two requests: nothing is in flight while the module goes.
  unserve();
  std::string summary;
  std::string error;
  if (serve(&summary, &error)) {
    featureWatch_->loaded(backend_.capabilities()->asked());
    VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "followFeatures", __LINE__, "%s; module loaded again, %s", change.c_str(),
           summary.c_str());
  } else {
    featureWatch_->loadFailed();
    const long long wait = std::chrono::duration_cast<std::chrono::seconds>(featureWatch_->reloadWait()).count();
    VEMLog(VEM_KIT_AGENT, VEM_LOG_ERROR, "followFeatures", __LINE__,
           "%s, but loading the module again failed: %s; serving nothing, trying again in %lld s", change.c_str(),
           error.c_str(), wait);
  }
  following_ = false;
}

}  // namespace zerva_agent
