#include "host/agent/row_interval_set.h"

#include <algorithm>

namespace zerva_agent {

RowIntervalSet::Interval RowIntervalSet::Whole() {
  Interval whole;
  whole.fromStart = true;
  whole.toEnd = true;
  return whole;
}

void RowIntervalSet::add(const Interval& interval) {
  intervals_.push_back(interval);
  std::sort(intervals_.begin(), intervals_.end(), [](const Interval& a, const Interval& b) {
    if (a.fromStart != b.fromStart) return a.fromStart;
    return a.lo < b.lo;
  });
  std::vector<Interval> merged;
  for (const Interval& r : intervals_) {
    if (!merged.empty()) {
      Interval& last = merged.back();
      // r starts inside last or right where it ends.
      const bool touches = last.toEnd || r.fromStart || !(last.hi < r.lo);
      if (touches) {
        if (!last.toEnd && (r.toEnd || last.hi < r.hi)) {
          last.toEnd = r.toEnd;
          last.hi = r.hi;
        }
        continue;
      }
    }
    merged.push_back(r);
  }
  intervals_.swap(merged);
}

void RowIntervalSet::clear() { intervals_.clear(); }

bool RowIntervalSet::complete() const {
  return intervals_.size() == 1 && intervals_[0].fromStart && intervals_[0].toEnd;
}

void RowIntervalSet::removeThrough(const Agentpp::Oidx& hi) {
  std::vector<Interval> kept;
  for (Interval r : intervals_) {
    if (!r.toEnd && !(hi < r.hi)) continue;  // ends at or before hi
    if (r.fromStart || r.lo < hi) {
      r.fromStart = false;
      r.lo = hi;
    }
    kept.push_back(r);
  }
  intervals_.swap(kept);
}

bool RowIntervalSet::coversFirst() const {
  for (const Interval& r : intervals_) {
    if (r.fromStart) return true;
  }
  return false;
}

bool RowIntervalSet::coversAfter(const Agentpp::Oidx& after) const {
  // lo <= after < hi: every row after `after` up to hi (itself a row) is known.
  for (const Interval& r : intervals_) {
    if ((r.fromStart || !(after < r.lo)) && (r.toEnd || after < r.hi)) return true;
  }
  return false;
}

bool RowIntervalSet::covers(const Agentpp::Oidx& index) const {
  for (const Interval& r : intervals_) {
    if ((r.fromStart || r.lo < index) && (r.toEnd || !(r.hi < index))) return true;
  }
  return false;
}

}  // namespace zerva_agent
