#include "host/agent/row_interval_set.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zerva_agent {
namespace {

using Agentpp::Oidx;
typedef RowIntervalSet::Interval Interval;

// (lo, hi] with both ends given.
Interval Between(uint32_t lo, uint32_t hi) {
  Interval r;
  r.lo = Oidx{lo};
  r.hi = Oidx{hi};
  return r;
}

// From before every index up to hi.
Interval UpTo(uint32_t hi) {
  Interval r;
  r.fromStart = true;
  r.hi = Oidx{hi};
  return r;
}

// After lo up to after every index.
Interval After(uint32_t lo) {
  Interval r;
  r.lo = Oidx{lo};
  r.toEnd = true;
  return r;
}

// The set's intervals as text: "(2,5]", "(start,5]", "(7,end)".
std::vector<std::string> Text(const RowIntervalSet& set) {
  std::vector<std::string> out;
  for (const Interval& r : set.intervals()) {
    out.push_back("(" + (r.fromStart ? std::string("start") : r.lo.get_printable()) + "," +
                  (r.toEnd ? std::string("end)") : r.hi.get_printable() + "]"));
  }
  return out;
}

typedef std::vector<uint32_t> Rows;

// The row indexes of one number, of these, that the set covers.
Rows Covered(const RowIntervalSet& set, const Rows& rows) {
  Rows out;
  for (uint32_t row : rows) {
    if (set.covers(Oidx{row})) out.push_back(row);
  }
  return out;
}

// The row indexes of one number, of these, whose next row the set covers.
Rows CoveredAfter(const RowIntervalSet& set, const Rows& rows) {
  Rows out;
  for (uint32_t row : rows) {
    if (set.coversAfter(Oidx{row})) out.push_back(row);
  }
  return out;
}

TEST(RowIntervalSetTest, StartsEmptyAndCoversNothing) {
  RowIntervalSet set;
  EXPECT_TRUE(set.empty());
  EXPECT_FALSE(set.complete());
  EXPECT_FALSE(set.coversFirst());
  EXPECT_FALSE(set.coversAfter(Oidx{0}));
  EXPECT_FALSE(set.covers(Oidx{0}));
}

TEST(RowIntervalSetTest, LookupAtEveryBoundaryOfOneInterval) {
  RowIntervalSet set;
  set.add(Between(10, 20));
  // A row index is known on (10, 20].
  EXPECT_EQ(Covered(set, {9, 10, 11, 20, 21}), (Rows{11, 20}));
  // The row after an index is known from 10 (the read started after it) up
  // to before 20 (the row after 20 was not read).
  EXPECT_EQ(CoveredAfter(set, {9, 10, 19, 20}), (Rows{10, 19}));
  EXPECT_FALSE(set.coversFirst());
}

TEST(RowIntervalSetTest, LookupComparesIndexesAsOids) {
  RowIntervalSet set;
  Interval r;
  r.lo = Oidx{3, 102};
  r.hi = Oidx{4, 1, 2, 3};
  set.add(r);
  EXPECT_FALSE(set.covers(Oidx{3, 102}));
  EXPECT_TRUE(set.covers(Oidx{3, 102, 0}));  // longer with the same start: after
  EXPECT_TRUE(set.covers(Oidx{3, 200}));
  EXPECT_TRUE(set.covers(Oidx{4, 1, 2, 3}));
  EXPECT_FALSE(set.covers(Oidx{4, 1, 2, 3, 0}));
  EXPECT_TRUE(set.coversAfter(Oidx{4, 1, 2}));
  EXPECT_FALSE(set.coversAfter(Oidx{4, 1, 2, 3}));
}

TEST(RowIntervalSetTest, AnIntervalFromTheStartCoversTheFirstRowAndEverythingUpToItsEnd) {
  RowIntervalSet set;
  set.add(UpTo(5));
  EXPECT_TRUE(set.coversFirst());
  EXPECT_TRUE(set.covers(Oidx()));
  EXPECT_EQ(Covered(set, {0, 5, 6}), (Rows{0, 5}));
  EXPECT_EQ(CoveredAfter(set, {0, 4, 5}), (Rows{0, 4}));
  EXPECT_FALSE(set.complete());
}

TEST(RowIntervalSetTest, AnIntervalToTheEndCoversEverythingAfterItsStart) {
  RowIntervalSet set;
  set.add(After(7));
  EXPECT_FALSE(set.coversFirst());
  EXPECT_EQ(Covered(set, {7, 8, 4000000000u}), (Rows{8, 4000000000u}));
  EXPECT_EQ(CoveredAfter(set, {6, 7, 4000000000u}), (Rows{7, 4000000000u}));
  EXPECT_FALSE(set.complete());
}

TEST(RowIntervalSetTest, TheWholeTableCoversEverything) {
  RowIntervalSet set;
  set.add(RowIntervalSet::Whole());
  EXPECT_TRUE(set.complete());
  EXPECT_TRUE(set.coversFirst());
  EXPECT_TRUE(set.covers(Oidx{0}));
  EXPECT_TRUE(set.covers(Oidx{1, 2, 3}));
  EXPECT_TRUE(set.coversAfter(Oidx{99}));
}

TEST(RowIntervalSetTest, AdjacentIntervalsMerge) {
  RowIntervalSet set;
  set.add(Between(10, 20));
  set.add(Between(20, 30));
  EXPECT_EQ(std::vector<std::string>{"(10,30]"}, Text(set));
  EXPECT_TRUE(set.coversAfter(Oidx{20}));
  EXPECT_TRUE(set.covers(Oidx{21}));
}

TEST(RowIntervalSetTest, AdjacentIntervalsMergeInEitherOrder) {
  RowIntervalSet set;
  set.add(Between(20, 30));
  set.add(Between(10, 20));
  EXPECT_EQ(std::vector<std::string>{"(10,30]"}, Text(set));
}

TEST(RowIntervalSetTest, OverlappingIntervalsMerge) {
  RowIntervalSet set;
  set.add(Between(10, 20));
  set.add(Between(15, 25));
  EXPECT_EQ(std::vector<std::string>{"(10,25]"}, Text(set));
  set.add(Between(12, 18));  // inside: nothing changes
  EXPECT_EQ(std::vector<std::string>{"(10,25]"}, Text(set));
  set.add(Between(5, 40));  // around: it wins
  EXPECT_EQ(std::vector<std::string>{"(5,40]"}, Text(set));
}

TEST(RowIntervalSetTest, IntervalsWithAGapStaySeparate) {
  RowIntervalSet set;
  set.add(Between(30, 40));
  set.add(Between(10, 20));
  // Nothing is known of (20, 30]: row 21 may exist.
  EXPECT_EQ((std::vector<std::string>{"(10,20]", "(30,40]"}), Text(set));
  EXPECT_EQ(Covered(set, {21, 30}), Rows());
  EXPECT_EQ(CoveredAfter(set, {20, 29, 30}), Rows{30});
}

TEST(RowIntervalSetTest, FillingTheGapMergesAllThree) {
  RowIntervalSet set;
  set.add(Between(10, 20));
  set.add(Between(30, 40));
  set.add(Between(20, 30));
  EXPECT_EQ(std::vector<std::string>{"(10,40]"}, Text(set));
}

TEST(RowIntervalSetTest, PiecesFromStartToEndMakeTheWholeTable) {
  RowIntervalSet set;
  set.add(UpTo(159));
  EXPECT_FALSE(set.complete());
  set.add(After(319));
  EXPECT_FALSE(set.complete());
  set.add(Between(159, 319));
  EXPECT_TRUE(set.complete());
  EXPECT_EQ(std::vector<std::string>{"(start,end)"}, Text(set));
}

TEST(RowIntervalSetTest, IntervalsFromTheStartMergeWithEachOther) {
  RowIntervalSet set;
  set.add(UpTo(5));
  set.add(UpTo(9));
  EXPECT_EQ(std::vector<std::string>{"(start,9]"}, Text(set));
  set.add(UpTo(3));
  EXPECT_EQ(std::vector<std::string>{"(start,9]"}, Text(set));
}

TEST(RowIntervalSetTest, AnIntervalToTheEndSwallowsTheIntervalsAfterItsStart) {
  RowIntervalSet set;
  set.add(Between(10, 20));
  set.add(Between(30, 40));
  set.add(After(15));
  EXPECT_EQ(std::vector<std::string>{"(10,end)"}, Text(set));
  set.add(Between(50, 60));  // already known
  EXPECT_EQ(std::vector<std::string>{"(10,end)"}, Text(set));
}

TEST(RowIntervalSetTest, AnEmptyTableReadFromTheStartIsComplete) {
  // The first batch answered no rows at all: the table is empty.
  RowIntervalSet set;
  Interval empty;
  empty.fromStart = true;
  empty.toEnd = true;
  set.add(empty);
  EXPECT_TRUE(set.complete());
}

TEST(RowIntervalSetTest, ClearForgetsEverything) {
  RowIntervalSet set;
  set.add(RowIntervalSet::Whole());
  set.clear();
  EXPECT_TRUE(set.empty());
  EXPECT_FALSE(set.complete());
  EXPECT_FALSE(set.coversFirst());
  EXPECT_FALSE(set.covers(Oidx{1}));
}

TEST(RowIntervalSetTest, RemoveThroughForgetsEveryIndexUpToItAndKeepsTheRest) {
  RowIntervalSet set;
  set.add(UpTo(10));
  set.add(Between(20, 30));
  set.add(After(40));
  set.removeThrough(Oidx{25});
  EXPECT_EQ((std::vector<std::string>{"(25,30]", "(40,end)"}), Text(set));
  EXPECT_EQ((Rows{26, 30, 41, 99}), Covered(set, Rows{5, 10, 21, 25, 26, 30, 35, 41, 99}));
  EXPECT_FALSE(set.coversFirst());

  RowIntervalSet whole;
  whole.add(RowIntervalSet::Whole());
  whole.removeThrough(Oidx{7});
  EXPECT_EQ((std::vector<std::string>{"(7,end)"}), Text(whole));
  EXPECT_FALSE(whole.complete());
  EXPECT_EQ((Rows{7, 8}), CoveredAfter(whole, Rows{6, 7, 8}));

  RowIntervalSet gone;
  gone.add(Between(1, 5));
  gone.removeThrough(Oidx{5});
  EXPECT_TRUE(gone.empty());
  gone.add(Between(10, 20));
  gone.removeThrough(Oidx{3});  // before it: unchanged
  EXPECT_EQ((std::vector<std::string>{"(10,20]"}), Text(gone));
}

}  // namespace
}  // namespace zerva_agent
