#include "host/agent/snapshot_lifetime.h"

#include <utility>

namespace zerva_agent {

SnapshotLifetime::SnapshotLifetime(std::chrono::milliseconds time, std::function<Clock::time_point()> now,
                                   std::function<uint64_t()> request)
    : time_(time), now_(std::move(now)), request_(std::move(request)) {}

void SnapshotLifetime::noteRead(bool degraded) {
  if (!held_) born_ = now_();
  held_ = true;
  if (degraded) {
    degraded_ = true;
    degradedRequest_ = request_();
  }
}

bool SnapshotLifetime::expired() const {
  if (!held_) return false;
  if (time_.count() <= 0 || now_() - born_ >= time_) return true;
  return degraded_ && request_() != degradedRequest_;
}

void SnapshotLifetime::drop() {
  held_ = false;
  degraded_ = false;
}

}  // namespace zerva_agent
