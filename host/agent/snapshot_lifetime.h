// SnapshotLifetime: which lookups the rows read from the back end may serve.
//
// A table server keeps the rows it read as one snapshot, so that a walk
// over every column reads one consistent copy and the back end is asked
// once per snapshot. The snapshot's age counts from its first read; later
// reads into the same snapshot (further batches) do not make it younger.
// Every lookup begins by asking whether the held snapshot may serve it:
//  - a GET, or a GETNEXT/GETBULK that starts a walk (its OID lies before or
//    at the table, its entry or a column, without a row index), is served
//    while the snapshot is younger than the snapshot time
//    (zervaSnapshotSeconds); after that the rows are dropped and read anew;
//  - a GETNEXT/GETBULK whose OID carries a row index continues a walk: the
//    snapshot serves it while younger than the walk time
//    (zervaWalkSeconds) when that is longer, so that a walk outlasting the
//    snapshot time is answered from the copy it began on. Rows the walk
//    still needs are read into the same snapshot;
//  - whatever its age, a snapshot serves the rest of the SNMP request that
//    last read into it: no request reads the same rows twice, even with a
//    snapshot time of zero.
// A read that fails keeps nothing: the next request reads again, and the
// rest of the request that met the failure answers it without asking the
// back end again.
#ifndef ZERVA_AGENT_SNAPSHOT_LIFETIME_H_
#define ZERVA_AGENT_SNAPSHOT_LIFETIME_H_

#include <chrono>
#include <cstdint>
#include <functional>

namespace zerva_agent {

typedef std::chrono::steady_clock Clock;

class SnapshotLifetime {
 public:
  // What a lookup is, for the age it accepts.
  enum Use {
    kStart,     // a GET, or a GETNEXT/GETBULK that starts a walk
    kContinue,  // a GETNEXT/GETBULK whose OID carries a row index
  };

  // time: how long a snapshot serves lookups that start something;
  // walkTime: how long it serves walks that go on (the longer of the two
  // applies to them); now: the time source; request: the number of the SNMP
  // request being answered. REQUIRES: now and request are callable.
  SnapshotLifetime(std::chrono::milliseconds time, std::chrono::milliseconds walkTime,
                   std::function<Clock::time_point()> now, std::function<uint64_t()> request);

  // Begins a lookup of this use (asks for the request number once). True
  // when a snapshot is held and may not serve the lookup: the caller drops
  // its rows and calls drop().
  bool begin(Use use);
  // True when a GET or a walk starting now would read the table: nothing
  // is held, or the snapshot is older than the snapshot time (which is not
  // zero). Begins no lookup.
  bool wouldReadAtStart() const;
  // Records rows read for the current lookup: a snapshot starts (its age
  // with it) unless one is held already, and it serves the rest of the
  // current request whatever its age.
  void noteRead();
  // Records a failed read for the current lookup: nothing is held, and
  // failedInThisRequest() is true until another request begins.
  void noteFailure();
  // Drops the snapshot: nothing is held until the next read.
  void drop();

  // True between a read and the next drop().
  bool held() const { return held_; }
  // True when a read failed earlier in the request of the current lookup.
  bool failedInThisRequest() const { return failed_ && failedRequest_ == current_; }

 private:
  const std::chrono::milliseconds time_;
  const std::chrono::milliseconds walkTime_;
  const std::function<Clock::time_point()> now_;
  const std::function<uint64_t()> request_;
  uint64_t current_ = 0;  // the request of the current lookup
  bool held_ = false;
  Clock::time_point born_;
  uint64_t readRequest_ = 0;    // the request that last read into the snapshot
  bool failed_ = false;         // a read failed ...
  uint64_t failedRequest_ = 0;  // ... in this request
};

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_SNAPSHOT_LIFETIME_H_
