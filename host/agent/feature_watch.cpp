#include "host/agent/feature_watch.h"

#include <algorithm>

namespace zerva_agent {

std::string FeatureListText(const std::set<int>& features) {
  std::string list;
  for (int f : features) list += (list.empty() ? "" : ",") + std::to_string(f);
  return "{" + list + "}";
}

FeatureWatch::FeatureWatch(FeatureSource* source, FeatureWatchSettings settings)
    : source_(source), settings_(std::move(settings)) {
  lastConnects_ = source_->connectCount();
  nextAsk_ = settings_.now();
  nextReload_ = nextAsk_;
}

std::chrono::milliseconds FeatureWatch::waitAfter(unsigned int failures) const {
  std::chrono::milliseconds wait = settings_.firstWait;
  for (unsigned int i = 0; i < failures && wait < settings_.longestWait; ++i) wait *= 2;
  return std::min(wait, settings_.longestWait);
}

void FeatureWatch::loaded(const CSnmpAskedFeatures& asked) {
  loaded_ = asked;
  loadFailed_ = false;
  reloadFailures_ = 0;
  lastConnects_ = source_->connectCount();
  if (!reask_ && !source_->answered()) {
    // The module's own questions were the first attempt.
    nextAsk_ = settings_.now() + waitAfter(0);
    askFailures_ = 1;
  }
}

void FeatureWatch::loadFailed() {
  loadFailed_ = true;
  reloadWait_ = waitAfter(reloadFailures_);
  nextReload_ = settings_.now() + reloadWait_;
  ++reloadFailures_;
}

bool FeatureWatch::poll() {
  const Clock::time_point now = settings_.now();
  const uint64_t connects = source_->connectCount();
  if (connects != lastConnects_) {
    lastConnects_ = connects;
    reask_ = true;
    nextAsk_ = now;
    askFailures_ = 0;
  }
  if ((reask_ || !source_->answered()) && now >= nextAsk_) {
    ++asks_;
    const bool ok = source_->askAgain();
    // A connection this question opened is no reason to ask once more.
    lastConnects_ = source_->connectCount();
    if (ok) {
      reask_ = false;
      askFailures_ = 0;
    } else {
      nextAsk_ = now + waitAfter(askFailures_);
      ++askFailures_;
    }
  }
  if (loadFailed_) return now >= nextReload_;
  return source_->answered() && differs();
}

bool FeatureWatch::differs() const {
  if (loaded_.unanswered) return true;
  const std::set<int> features = source_->features();
  for (const auto& asked : loaded_.answers) {
    if ((features.count(asked.first) != 0) != asked.second) return true;
  }
  return false;
}

std::string FeatureWatch::loadedText() const {
  if (loadFailed_) return "nothing, the last load failed";
  if (loaded_.unanswered) return "no answer";
  std::set<int> yes;
  for (const auto& asked : loaded_.answers) {
    if (asked.second) yes.insert(asked.first);
  }
  return FeatureListText(yes);
}

std::string FeatureWatch::currentText() const {
  return source_->answered() ? FeatureListText(source_->features()) : "no answer";
}

}  // namespace zerva_agent
