// FeatureWatch: when the agent asks the array for its feature list again,
// and when the module has to be loaded again because of the answer.
//
// The module asks the capability source which features the array has while
// it creates its handlers, and never again: the tables it registers follow
// the answers it got then. The watch keeps those answers and the source's
// current list in step:
//  - While the list has not been answered, it is asked again with backoff:
//    1 s after the module was loaded, then 2 s, 4 s, ... apart, at most
//    30 s apart, until an answer comes.
//  - When the back end's connection has been opened again (the transport's
//    connect count changed: the back end restarted, or came back), the list
//    is asked once more at once (with backoff again should that fail).
//  - Otherwise the back end is not asked: an answered list on a connection
//    that stays up is taken as it is.
//  - The module has to be loaded again when the list gives a feature the
//    module asked another answer than the one it got, when a question of
//    the module got no answer (any list differs from none), and after a
//    reload that failed (then again at the backoff's pace, whatever the
//    list says).
// Nothing here depends on Net-SNMP: the agent calls poll() from a Net-SNMP
// alarm, between requests, and does the reload itself.
#ifndef ZERVA_AGENT_FEATURE_WATCH_H_
#define ZERVA_AGENT_FEATURE_WATCH_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "host/agent/snapshot_lifetime.h"
#include "snmpcommon/snmp_backend_capability.h"

namespace zerva_agent {

// What the watch reads of the back end.
class FeatureSource {
 public:
  virtual ~FeatureSource() {}
  // True once the back end has answered with a list; the list.
  virtual bool answered() = 0;
  virtual std::set<int> features() = 0;
  // Asks the back end now: true on a good answer (it becomes the list).
  virtual bool askAgain() = 0;
  // Connections to the back end opened so far.
  virtual uint64_t connectCount() = 0;
};

// The installed capability source, and a connect counter (the transport's).
class BackendFeatureSource : public FeatureSource {
 public:
  // REQUIRES: capabilities is not null; connectCount is callable.
  BackendFeatureSource(std::shared_ptr<CBackendCapabilitySource> capabilities, std::function<uint64_t()> connectCount)
      : capabilities_(std::move(capabilities)), connectCount_(std::move(connectCount)) {}
  bool answered() override { return capabilities_->answered(); }
  std::set<int> features() override { return capabilities_->features(); }
  bool askAgain() override { return capabilities_->askAgain(); }
  uint64_t connectCount() override { return connectCount_(); }

 private:
  std::shared_ptr<CBackendCapabilitySource> capabilities_;
  std::function<uint64_t()> connectCount_;
};

struct FeatureWatchSettings {
  // The first wait of the backoff, and the longest.
  std::chrono::milliseconds firstWait{1000};
  std::chrono::milliseconds longestWait{30000};
  // The time source (tests step it by hand).
  std::function<Clock::time_point()> now = [] { return Clock::now(); };
};

class FeatureWatch {
 public:
  // REQUIRES: source outlives the watch.
  explicit FeatureWatch(FeatureSource* source, FeatureWatchSettings settings = FeatureWatchSettings());
  FeatureWatch(const FeatureWatch&) = delete;
  FeatureWatch& operator=(const FeatureWatch&) = delete;

  // The module has been loaded; these are the questions it asked and the
  // answers it got.
  void loaded(const CSnmpAskedFeatures& asked);
  // Loading the module again failed: nothing is served. poll() asks for
  // another reload after the next wait of the backoff.
  void loadFailed();

  // Called often (the agent: four times a second). Asks the back end when
  // that is due; true when the module has to be loaded again now.
  bool poll();

  // For the log: the features the loaded module was built with ("{48,602}":
  // those it asked that were supported; "no answer"; "nothing, the last
  // load failed"), and the list now ("{48,49,602}", or "no answer").
  std::string loadedText() const;
  std::string currentText() const;
  // True after loadFailed(), until loaded().
  bool lastLoadFailed() const { return loadFailed_; }
  // How long after the last failed load the next one is tried.
  std::chrono::milliseconds reloadWait() const { return reloadWait_; }
  // Queries the watch has made.
  uint64_t asks() const { return asks_; }

 private:
  // The wait after `failures` failed attempts in a row (the first: 1 s).
  std::chrono::milliseconds waitAfter(unsigned int failures) const;
  // True when the list gives an asked feature another answer.
  bool differs() const;

  FeatureSource* source_;
  FeatureWatchSettings settings_;
  CSnmpAskedFeatures loaded_;
  bool loadFailed_ = false;
  uint64_t lastConnects_ = 0;
  bool reask_ = false;            // the connection was opened again: ask once more
  Clock::time_point nextAsk_;     // no ask before this
  unsigned int askFailures_ = 0;  // failed asks in a row
  Clock::time_point nextReload_;
  std::chrono::milliseconds reloadWait_{0};
  unsigned int reloadFailures_ = 0;
  uint64_t asks_ = 0;
};

// "{48,49,602}".
std::string FeatureListText(const std::set<int>& features);

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_FEATURE_WATCH_H_
