// RowIntervalSet: which row indexes of a table the agent has read completely.
//
// A batch table is read in pieces: "the rows after index lo, up to and
// including index hi". Each piece covers the interval (lo, hi] of row
// indexes: every row of the table with an index in it has been read, and
// an index in it that was not read does not exist. This set keeps those
// intervals sorted and merged, so a GET or GETNEXT can tell whether the
// rows kept already answer it or the back end must be asked.
//
// Indexes compare as OIDs (Agentpp::Oidx order). An interval may start
// before every index (fromStart) and may end after every index (toEnd,
// the read reached the end of the table).
#ifndef ZERVA_AGENT_ROW_INTERVAL_SET_H_
#define ZERVA_AGENT_ROW_INTERVAL_SET_H_

#include <vector>

#include "agentpp/oidx.h"

namespace zerva_agent {

class RowIntervalSet {
 public:
  // The row indexes (lo, hi] read completely.
  struct Interval {
    bool fromStart = false;  // lo is before every index (lo is unused)
    Agentpp::Oidx lo;
    bool toEnd = false;  // hi is after every index (hi is unused)
    Agentpp::Oidx hi;
  };

  // The interval of every index: the whole table.
  static Interval Whole();

  // Adds interval, merged with the intervals it overlaps or touches (one
  // ending at index x and one starting after x become one).
  // REQUIRES: interval.fromStart, interval.toEnd or !(interval.hi < interval.lo).
  void add(const Interval& interval);
  // Forgets every interval.
  void clear();
  // Forgets every index up to and including hi: what is left starts after hi.
  void removeThrough(const Agentpp::Oidx& hi);

  // True when nothing was added since the last clear().
  bool empty() const { return intervals_.empty(); }
  // True when the set is the whole table.
  bool complete() const;
  // True when the first row of the table (if there is one) is known.
  bool coversFirst() const;
  // True when the first row after index `after` (if there is one) is known.
  bool coversAfter(const Agentpp::Oidx& after) const;
  // True when whether row `index` exists is known.
  bool covers(const Agentpp::Oidx& index) const;

  // The merged intervals, sorted, disjoint and not touching.
  const std::vector<Interval>& intervals() const { return intervals_; }

 private:
  std::vector<Interval> intervals_;
};

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_ROW_INTERVAL_SET_H_
