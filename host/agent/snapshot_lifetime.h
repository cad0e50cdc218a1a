// SnapshotLifetime: how long rows read from the back end may be served.
//
// A table server keeps the rows it read as one snapshot, so that a walk
// over every column reads one consistent copy and the back end is asked
// once per snapshot (zervaSnapshotSeconds). The snapshot's time starts
// with its first read; later reads into the same snapshot (further
// batches) do not extend it. Once the time is up the rows are dropped and
// read again; a snapshot time of zero keeps nothing beyond one lookup.
//
// Rows read while a back-end call failed (the handler answered anyway,
// e.g. an empty table because the switch query timed out) serve only the
// SNMP request that read them: the next request reads the table again.
#ifndef ZERVA_AGENT_SNAPSHOT_LIFETIME_H_
#define ZERVA_AGENT_SNAPSHOT_LIFETIME_H_

#include <chrono>
#include <cstdint>
#include <functional>

namespace zerva_agent {

typedef std::chrono::steady_clock Clock;

class SnapshotLifetime {
 public:
  // time: how long a snapshot is served; now: the time source; request:
  // the number of the SNMP request being answered.
  // REQUIRES: now and request are callable.
  SnapshotLifetime(std::chrono::milliseconds time, std::function<Clock::time_point()> now,
                   std::function<uint64_t()> request);

  // Records rows read now: a snapshot starts (its time with it) unless one
  // is held already. degraded: a back-end call failed during the read, so
  // the snapshot serves the current request only.
  void noteRead(bool degraded);
  // True when a snapshot is held and may no longer be served: its time is
  // up (at exactly the snapshot time, or always for a zero time), or it
  // holds rows of a degraded read and another request is being answered.
  bool expired() const;
  // Drops the snapshot: nothing is held until the next read.
  void drop();

  // True between a read and the next drop().
  bool held() const { return held_; }
  // True when the held snapshot holds rows of a degraded read.
  bool degraded() const { return degraded_; }

 private:
  const std::chrono::milliseconds time_;
  const std::function<Clock::time_point()> now_;
  const std::function<uint64_t()> request_;
  bool held_ = false;
  Clock::time_point born_;
  bool degraded_ = false;         // the snapshot holds rows of a degraded read ...
  uint64_t degradedRequest_ = 0;  // ... made for this request
};

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_SNAPSHOT_LIFETIME_H_
