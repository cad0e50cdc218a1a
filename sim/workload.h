// The simulated array's workload: statistics computed on demand from
// (object, item, time) and the model seed, with no per-object history.
//
// Every object has a few streams of operations (block objects: reads and
// writes; file objects: reads, writes and metadata operations). A stream's
// arrival rate varies smoothly with time (a base rate modulated by two
// sinusoids), so its cumulative operation count has a closed form: the
// floor of the rate's integral. Counters are therefore monotonic and need
// no stored state. Published rates are per sample period of 5 seconds: the
// operations counted in the last complete period, divided by its length.
// Everything else (sizes, latencies, hit ratios, utilisation) is derived
// from the same rates and from per-object parameters drawn from a hash of
// (seed, object type, object key), so memory stays proportional to the
// topology and values are identical for the same seed and time.
#ifndef ZERVA_SIM_WORKLOAD_H_
#define ZERVA_SIM_WORKLOAD_H_

#include <cstdint>
#include <vector>

namespace zerva_sim {

// Length of one statistics sample period.
const uint64_t kSamplePeriodMs = 5000;

// Cumulative counters of one object up to a time (ground truth; monotonic).
struct Counters {
  uint64_t readOps = 0;
  uint64_t writeOps = 0;
  uint64_t otherOps = 0;  // file objects only
  uint64_t readKB = 0;
  uint64_t writeKB = 0;
};

// The rates of one object in the sample period that ends at or before a
// time: what the statistics items are derived from.
struct Sample {
  uint32_t readOps = 0;   // per second
  uint32_t writeOps = 0;  // per second
  uint32_t otherOps = 0;  // per second, file objects only
  uint32_t readSizeKB = 0;
  uint32_t writeSizeKB = 0;
  // Average response times and cache hit ratios of the period's operations:
  // 0 for a stream whose rate is 0 (nothing was measured).
  uint32_t readLatencyUs = 0;
  uint32_t writeLatencyUs = 0;
  uint32_t otherLatencyUs = 0;
  uint32_t readHitPct = 0;
  uint32_t writeHitPct = 0;
};

class WorkloadModel {
 public:
  explicit WorkloadModel(uint64_t seed) : seed_(seed) {}

  // True for the object types the model measures.
  static bool knowsType(uint32_t objType);
  // True when items of this object type are file operations (file systems
  // and controller protocol services) rather than block I/O.
  static bool isFileType(uint32_t objType);

  // Cumulative counters of an object at time tMs.
  Counters counters(uint32_t objType, uint64_t key, uint64_t tMs) const;
  // The sample of the last complete period at time tMs (all zero before the
  // first period has ended).
  Sample sample(uint32_t objType, uint64_t key, uint64_t tMs) const;

  // The value of one statistic item. False when the item is not published
  // for this object type. key identifies the object within its type (the
  // numeric ID, or the node number of a controller).
  bool value(uint32_t objType, uint64_t key, uint32_t item, uint64_t tMs, uint32_t* out) const;

  // The items published for an object type, ascending.
  static std::vector<uint32_t> itemsOf(uint32_t objType);

  uint64_t seed() const { return seed_; }

 private:
  struct Params;
  Params params(uint32_t objType, uint64_t key) const;
  // Operations of one stream from time 0 to the end of period k.
  static uint64_t opsUpTo(const Params& p, int stream, uint64_t k);
  uint32_t controllerValue(uint64_t key, uint32_t item, uint64_t tMs, const Sample& s) const;

  uint64_t seed_;
};

}  // namespace zerva_sim

#endif  // ZERVA_SIM_WORKLOAD_H_
