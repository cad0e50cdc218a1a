#include "host/agent/snapshot_lifetime.h"

#include <algorithm>
#include <utility>

namespace zerva_agent {

SnapshotLifetime::SnapshotLifetime(std::chrono::milliseconds time, std::chrono::milliseconds walkTime,
                                   std::function<Clock::time_point()> now, std::function<uint64_t()> request)
    : time_(time), walkTime_(walkTime), now_(std::move(now)), request_(std::move(request)) {}

bool SnapshotLifetime::begin(Use use) {
  current_ = request_();
  if (!held_) return false;
  if (current_ == readRequest_) return false;  // the request that read the rows goes on with them
  const std::chrono::milliseconds limit = use == kContinue ? std::max(time_, walkTime_) : time_;
  return limit.count() <= 0 || now_() - born_ >= limit;
}

bool SnapshotLifetime::wouldReadAtStart() const {
  if (time_.count() <= 0) return false;  // every request reads: nothing to read before it
  return !held_ || now_() - born_ >= time_;
}

void SnapshotLifetime::noteRead() {
  if (!held_) born_ = now_();
  held_ = true;
  readRequest_ = current_;
}

void SnapshotLifetime::noteFailure() {
  drop();
  failed_ = true;
  failedRequest_ = current_;
}

void SnapshotLifetime::drop() { held_ = false; }

}  // namespace zerva_agent
