#include "host/agent/snapshot_lifetime.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>

namespace zerva_agent {
namespace {

using std::chrono::milliseconds;

const SnapshotLifetime::Use kStart = SnapshotLifetime::kStart;
const SnapshotLifetime::Use kContinue = SnapshotLifetime::kContinue;

// A snapshot lifetime on a hand-stepped clock and request number.
class SnapshotLifetimeTest : public ::testing::Test {
 protected:
  SnapshotLifetime lifetime(milliseconds time, milliseconds walkTime = milliseconds(0)) {
    return SnapshotLifetime(
        time, walkTime, [this] { return now_; }, [this] { return request_; });
  }

  // A lookup of the next request: true when the snapshot may not serve it.
  bool nextRequest(SnapshotLifetime& life, SnapshotLifetime::Use use) {
    ++request_;
    return life.begin(use);
  }

  // A first lookup that reads: the snapshot starts.
  void read(SnapshotLifetime& life, SnapshotLifetime::Use use = kStart) {
    life.begin(use);
    life.noteRead();
  }

  Clock::time_point now_ = Clock::time_point() + std::chrono::hours(1);
  uint64_t request_ = 1;
};

TEST_F(SnapshotLifetimeTest, NothingHeldNeverExpires) {
  SnapshotLifetime life = lifetime(milliseconds(0));
  EXPECT_FALSE(life.held());
  EXPECT_FALSE(life.begin(kStart));
  EXPECT_FALSE(nextRequest(life, kContinue));
}

TEST_F(SnapshotLifetimeTest, ExpiresAtExactlyTheSnapshotTime) {
  SnapshotLifetime life = lifetime(milliseconds(3000));
  read(life);
  EXPECT_TRUE(life.held());
  EXPECT_FALSE(nextRequest(life, kStart));
  now_ += milliseconds(2999);
  EXPECT_FALSE(nextRequest(life, kStart));
  now_ += milliseconds(1);
  EXPECT_TRUE(nextRequest(life, kStart));
}

TEST_F(SnapshotLifetimeTest, ZeroTimeServesOnlyTheRequestThatRead) {
  SnapshotLifetime life = lifetime(milliseconds(0));
  read(life);
  EXPECT_FALSE(life.begin(kStart));  // the same request goes on with it
  EXPECT_TRUE(nextRequest(life, kStart));
}

TEST_F(SnapshotLifetimeTest, NegativeTimeServesOnlyTheRequestThatRead) {
  SnapshotLifetime life = lifetime(milliseconds(-1));
  read(life);
  EXPECT_FALSE(life.begin(kStart));
  EXPECT_TRUE(nextRequest(life, kStart));
}

TEST_F(SnapshotLifetimeTest, LaterReadsIntoTheSnapshotDoNotExtendIt) {
  SnapshotLifetime life = lifetime(milliseconds(3000));
  read(life);
  now_ += milliseconds(2000);
  EXPECT_FALSE(nextRequest(life, kContinue));
  life.noteRead();  // a further batch
  now_ += milliseconds(1000);
  EXPECT_TRUE(nextRequest(life, kStart));
}

TEST_F(SnapshotLifetimeTest, DropEndsTheSnapshotAndTheNextReadStartsANewOne) {
  SnapshotLifetime life = lifetime(milliseconds(3000));
  read(life);
  now_ += milliseconds(2000);
  life.drop();
  EXPECT_FALSE(life.held());
  EXPECT_FALSE(nextRequest(life, kStart));
  life.noteRead();
  now_ += milliseconds(2999);
  EXPECT_FALSE(nextRequest(life, kStart));
  now_ += milliseconds(1);
  EXPECT_TRUE(nextRequest(life, kStart));
}

TEST_F(SnapshotLifetimeTest, OtherRequestsAreServedForTheSnapshotTime) {
  SnapshotLifetime life = lifetime(milliseconds(3000));
  read(life);
  for (int i = 0; i < 9; ++i) {
    now_ += milliseconds(300);
    EXPECT_FALSE(nextRequest(life, i % 2 == 0 ? kStart : kContinue)) << "request " << request_;
  }
}

TEST_F(SnapshotLifetimeTest, AContinuingWalkIsServedUpToTheWalkTime) {
  SnapshotLifetime life = lifetime(milliseconds(3000), milliseconds(60000));
  read(life);
  now_ += milliseconds(3000);
  EXPECT_FALSE(nextRequest(life, kContinue));  // past the snapshot time, a walk goes on
  now_ += milliseconds(56999);
  EXPECT_FALSE(nextRequest(life, kContinue));
  now_ += milliseconds(1);
  EXPECT_TRUE(nextRequest(life, kContinue));  // the walk age limit
}

TEST_F(SnapshotLifetimeTest, AStartOrAGetAfterTheSnapshotTimeTakesAFreshSnapshotDuringAWalk) {
  SnapshotLifetime life = lifetime(milliseconds(3000), milliseconds(60000));
  read(life);
  now_ += milliseconds(5000);
  EXPECT_FALSE(nextRequest(life, kContinue));
  EXPECT_TRUE(nextRequest(life, kStart));
}

TEST_F(SnapshotLifetimeTest, RowsAWalkStillNeedsJoinTheSnapshotItBeganOn) {
  SnapshotLifetime life = lifetime(milliseconds(3000), milliseconds(10000));
  read(life);
  now_ += milliseconds(4000);
  EXPECT_FALSE(nextRequest(life, kContinue));
  life.noteRead();  // the next batch of the walk: same snapshot, same age
  now_ += milliseconds(5999);
  EXPECT_FALSE(nextRequest(life, kContinue));
  now_ += milliseconds(1);
  EXPECT_TRUE(nextRequest(life, kContinue));
}

TEST_F(SnapshotLifetimeTest, AWalkTimeShorterThanTheSnapshotTimeShortensNothing) {
  SnapshotLifetime life = lifetime(milliseconds(3000), milliseconds(1000));
  read(life);
  now_ += milliseconds(2999);
  EXPECT_FALSE(nextRequest(life, kContinue));
  now_ += milliseconds(1);
  EXPECT_TRUE(nextRequest(life, kContinue));
}

TEST_F(SnapshotLifetimeTest, ZeroWalkTimeGivesWalksNoExtension) {
  SnapshotLifetime life = lifetime(milliseconds(3000), milliseconds(0));
  read(life);
  now_ += milliseconds(3000);
  EXPECT_TRUE(nextRequest(life, kContinue));
}

TEST_F(SnapshotLifetimeTest, WithZeroSnapshotTimeAWalkStillGoesOnForTheWalkTime) {
  SnapshotLifetime life = lifetime(milliseconds(0), milliseconds(60000));
  read(life);
  now_ += milliseconds(1000);
  EXPECT_FALSE(nextRequest(life, kContinue));
  EXPECT_TRUE(nextRequest(life, kStart));
}

TEST_F(SnapshotLifetimeTest, TheRequestThatLastReadGoesOnWithTheSnapshotWhateverItsAge) {
  SnapshotLifetime life = lifetime(milliseconds(3000));
  read(life);
  now_ += milliseconds(2000);
  ++request_;
  EXPECT_FALSE(life.begin(kContinue));
  life.noteRead();  // request 2 reads a further batch
  now_ += std::chrono::hours(1);
  EXPECT_FALSE(life.begin(kStart));  // still request 2
  EXPECT_FALSE(life.begin(kContinue));
  EXPECT_TRUE(nextRequest(life, kContinue));
}

TEST_F(SnapshotLifetimeTest, AFailedReadKeepsNothingAndIsRememberedForItsRequestOnly) {
  SnapshotLifetime life = lifetime(std::chrono::hours(1), std::chrono::hours(1));
  read(life);
  ++request_;
  life.begin(kContinue);
  EXPECT_FALSE(life.failedInThisRequest());
  life.noteFailure();  // the next batch failed
  EXPECT_FALSE(life.held());
  EXPECT_TRUE(life.failedInThisRequest());
  EXPECT_FALSE(life.begin(kContinue));  // the same request: nothing held, the failure known
  EXPECT_TRUE(life.failedInThisRequest());
  EXPECT_FALSE(nextRequest(life, kContinue));
  EXPECT_FALSE(life.failedInThisRequest());  // the next request reads again
}

TEST_F(SnapshotLifetimeTest, AReadAfterAFailureStartsANewSnapshot) {
  SnapshotLifetime life = lifetime(milliseconds(3000));
  read(life);
  now_ += milliseconds(2000);
  ++request_;
  life.begin(kStart);
  life.noteFailure();
  now_ += milliseconds(500);
  EXPECT_FALSE(nextRequest(life, kStart));
  life.noteRead();
  now_ += milliseconds(2999);
  EXPECT_FALSE(nextRequest(life, kStart));  // its age counts from the new read
  now_ += milliseconds(1);
  EXPECT_TRUE(nextRequest(life, kStart));
}

TEST_F(SnapshotLifetimeTest, DropKeepsTheFailureOfTheRequest) {
  SnapshotLifetime life = lifetime(milliseconds(3000));
  life.begin(kStart);
  life.noteFailure();
  life.drop();  // a switch write drops every snapshot
  EXPECT_TRUE(life.failedInThisRequest());
}

TEST_F(SnapshotLifetimeTest, AsksForTheRequestOncePerLookup) {
  int asked = 0;
  SnapshotLifetime life(
      milliseconds(0), milliseconds(0), [this] { return now_; },
      [&asked] {
        ++asked;
        return static_cast<uint64_t>(asked);  // every call a new request, as without a count
      });
  EXPECT_FALSE(life.begin(kStart));
  life.noteRead();
  life.noteRead();
  EXPECT_EQ(1, asked);
  // The lookup that read keeps its rows for all it does; the next one reads.
  EXPECT_TRUE(life.begin(kStart));
  EXPECT_EQ(2, asked);
}

TEST_F(SnapshotLifetimeTest, AStartWouldReadWithNothingHeldOrPastTheSnapshotTimeOnly) {
  SnapshotLifetime life = lifetime(milliseconds(3000), milliseconds(60000));
  EXPECT_TRUE(life.wouldReadAtStart());
  read(life);
  EXPECT_FALSE(life.wouldReadAtStart());
  now_ += milliseconds(2999);
  EXPECT_FALSE(life.wouldReadAtStart());
  now_ += milliseconds(1);
  EXPECT_TRUE(life.wouldReadAtStart());  // the walk time does not count for a start
  EXPECT_EQ(1u, request_);               // asks no request number
}

TEST_F(SnapshotLifetimeTest, WithASnapshotTimeOfZeroNothingIsReadBeforeTheRequest) {
  SnapshotLifetime life = lifetime(milliseconds(0));
  EXPECT_FALSE(life.wouldReadAtStart());
  read(life);
  EXPECT_FALSE(life.wouldReadAtStart());
}

}  // namespace
}  // namespace zerva_agent
