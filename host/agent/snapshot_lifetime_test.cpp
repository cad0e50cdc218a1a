#include "host/agent/snapshot_lifetime.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>

namespace zerva_agent {
namespace {

using std::chrono::milliseconds;

// A snapshot lifetime on a hand-stepped clock and request number.
class SnapshotLifetimeTest : public ::testing::Test {
 protected:
  SnapshotLifetime lifetime(milliseconds time) {
    return SnapshotLifetime(
        time, [this] { return now_; }, [this] { return request_; });
  }

  Clock::time_point now_ = Clock::time_point() + std::chrono::hours(1);
  uint64_t request_ = 1;
};

TEST_F(SnapshotLifetimeTest, NothingHeldNeverExpires) {
  SnapshotLifetime life = lifetime(milliseconds(0));
  EXPECT_FALSE(life.held());
  EXPECT_FALSE(life.expired());
}

TEST_F(SnapshotLifetimeTest, ExpiresAtExactlyTheSnapshotTime) {
  SnapshotLifetime life = lifetime(milliseconds(3000));
  life.noteRead(false);
  EXPECT_TRUE(life.held());
  EXPECT_FALSE(life.expired());
  now_ += milliseconds(2999);
  EXPECT_FALSE(life.expired());
  now_ += milliseconds(1);
  EXPECT_TRUE(life.expired());
}

TEST_F(SnapshotLifetimeTest, ZeroTimeExpiresAtOnce) {
  SnapshotLifetime life = lifetime(milliseconds(0));
  life.noteRead(false);
  EXPECT_TRUE(life.expired());
}

TEST_F(SnapshotLifetimeTest, NegativeTimeExpiresAtOnce) {
  SnapshotLifetime life = lifetime(milliseconds(-1));
  life.noteRead(false);
  EXPECT_TRUE(life.expired());
}

TEST_F(SnapshotLifetimeTest, LaterReadsIntoTheSnapshotDoNotExtendIt) {
  SnapshotLifetime life = lifetime(milliseconds(3000));
  life.noteRead(false);
  now_ += milliseconds(2000);
  life.noteRead(false);  // a further batch
  now_ += milliseconds(1000);
  EXPECT_TRUE(life.expired());
}

TEST_F(SnapshotLifetimeTest, DropEndsTheSnapshotAndTheNextReadStartsANewOne) {
  SnapshotLifetime life = lifetime(milliseconds(3000));
  life.noteRead(false);
  now_ += milliseconds(2000);
  life.drop();
  EXPECT_FALSE(life.held());
  EXPECT_FALSE(life.expired());
  life.noteRead(false);
  now_ += milliseconds(2999);
  EXPECT_FALSE(life.expired());
  now_ += milliseconds(1);
  EXPECT_TRUE(life.expired());
}

TEST_F(SnapshotLifetimeTest, TheTimeDoesNotDependOnRequests) {
  SnapshotLifetime life = lifetime(milliseconds(3000));
  life.noteRead(false);
  request_ = 2;
  EXPECT_FALSE(life.expired());
  request_ = 3;
  now_ += milliseconds(1000);
  EXPECT_FALSE(life.expired());
}

TEST_F(SnapshotLifetimeTest, DegradedReadServesOnlyItsRequest) {
  SnapshotLifetime life = lifetime(std::chrono::hours(1));
  life.noteRead(true);
  EXPECT_TRUE(life.degraded());
  EXPECT_FALSE(life.expired());  // the request that read it goes on with it
  request_ = 2;
  EXPECT_TRUE(life.expired());
}

TEST_F(SnapshotLifetimeTest, DegradedReadIsNotReusedEvenByAnEarlierRequestNumber) {
  SnapshotLifetime life = lifetime(std::chrono::hours(1));
  request_ = 5;
  life.noteRead(true);
  request_ = 4;
  EXPECT_TRUE(life.expired());
}

TEST_F(SnapshotLifetimeTest, ADegradedBatchTiesTheWholeSnapshotToItsRequest) {
  SnapshotLifetime life = lifetime(std::chrono::hours(1));
  life.noteRead(false);
  request_ = 2;
  life.noteRead(true);
  EXPECT_FALSE(life.expired());
  request_ = 3;
  EXPECT_TRUE(life.expired());
}

TEST_F(SnapshotLifetimeTest, TheLastDegradedReadNamesTheRequest) {
  SnapshotLifetime life = lifetime(std::chrono::hours(1));
  life.noteRead(true);
  request_ = 2;
  life.noteRead(true);
  EXPECT_FALSE(life.expired());
  request_ = 1;
  EXPECT_TRUE(life.expired());
}

TEST_F(SnapshotLifetimeTest, AHealthyReadAfterADegradedOneKeepsTheSnapshotDegraded) {
  SnapshotLifetime life = lifetime(std::chrono::hours(1));
  life.noteRead(true);
  life.noteRead(false);
  EXPECT_TRUE(life.degraded());
  request_ = 2;
  EXPECT_TRUE(life.expired());
}

TEST_F(SnapshotLifetimeTest, DropClearsTheDegradedMark) {
  SnapshotLifetime life = lifetime(std::chrono::hours(1));
  life.noteRead(true);
  life.drop();
  EXPECT_FALSE(life.degraded());
  request_ = 2;
  life.noteRead(false);
  request_ = 3;
  EXPECT_FALSE(life.expired());
}

TEST_F(SnapshotLifetimeTest, HealthyReadsAreServedToEveryRequestForTheirTime) {
  SnapshotLifetime life = lifetime(milliseconds(3000));
  life.noteRead(false);
  EXPECT_FALSE(life.degraded());
  for (uint64_t r = 2; r < 10; ++r) {
    request_ = r;
    now_ += milliseconds(300);
    EXPECT_FALSE(life.expired()) << "request " << r;
  }
}

TEST_F(SnapshotLifetimeTest, AsksForTheRequestOnlyWhenADegradedReadIsHeld) {
  int asked = 0;
  SnapshotLifetime life(
      std::chrono::hours(1), [this] { return now_; },
      [&asked] {
        ++asked;
        return uint64_t{1};
      });
  life.noteRead(false);
  EXPECT_FALSE(life.expired());
  EXPECT_EQ(0, asked);  // without a count every call would be a new request
  life.noteRead(true);
  EXPECT_EQ(1, asked);
  EXPECT_FALSE(life.expired());
  EXPECT_EQ(2, asked);
}

}  // namespace
}  // namespace zerva_agent
