#include "host/agent/backend_worker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace zerva_agent {
namespace {

using std::chrono::milliseconds;
typedef BackendWorker::Clock Clock;

// A job that blocks the worker until released.
class Gate {
 public:
  std::function<void()> job() {
    return [this] {
      entered_.set_value();
      released_.get_future().wait();
    };
  }
  void waitEntered() { entered_.get_future().wait(); }
  void release() { released_.set_value(); }

 private:
  std::promise<void> entered_;
  std::promise<void> released_;
};

TEST(BackendWorkerTest, InlineWorkerRunsTheJobBeforeSubmitReturns) {
  BackendWorker worker(BackendWorker::kInline);
  const std::thread::id caller = std::this_thread::get_id();
  std::thread::id ranOn;
  BackendWorker::Ticket job = worker.submit([&] { ranOn = std::this_thread::get_id(); });
  EXPECT_EQ(caller, ranOn);
  EXPECT_TRUE(worker.waitUntil(job, Clock::now()));  // done already
  EXPECT_FALSE(worker.cancel(job));
  EXPECT_FALSE(worker.threaded());
}

TEST(BackendWorkerTest, JobsRunOneAtATimeInOrderOnOneOtherThread) {
  BackendWorker worker;
  std::atomic<int> running{0};
  std::atomic<int> overlaps{0};
  std::vector<int> order;
  std::vector<std::thread::id> threads;
  std::vector<BackendWorker::Ticket> jobs;
  for (int i = 0; i < 50; ++i) {
    jobs.push_back(worker.submit([&, i] {
      if (running.fetch_add(1) != 0) ++overlaps;
      order.push_back(i);
      threads.push_back(std::this_thread::get_id());
      std::this_thread::sleep_for(std::chrono::microseconds(100));
      running.fetch_sub(1);
    }));
  }
  worker.wait(jobs.back());
  ASSERT_EQ(50u, order.size());
  for (int i = 0; i < 50; ++i) EXPECT_EQ(i, order[i]);
  EXPECT_EQ(0, overlaps.load());
  for (const std::thread::id& t : threads) {
    EXPECT_EQ(threads.front(), t);
    EXPECT_NE(std::this_thread::get_id(), t);
  }
}

TEST(BackendWorkerTest, WaitUntilGivesUpAtTheDeadlineAndTheJobStillRuns) {
  BackendWorker worker;
  Gate gate;
  worker.submit(gate.job());
  gate.waitEntered();
  bool ran = false;
  BackendWorker::Ticket job = worker.submit([&] { ran = true; });
  const Clock::time_point start = Clock::now();
  EXPECT_FALSE(worker.waitUntil(job, start + milliseconds(50)));
  EXPECT_GE(Clock::now() - start, milliseconds(50));
  EXPECT_FALSE(ran);
  gate.release();
  EXPECT_TRUE(worker.waitUntil(job, Clock::now() + std::chrono::seconds(10)));
  EXPECT_TRUE(ran);
}

TEST(BackendWorkerTest, UrgentJobGoesBeforeTheQueuedOnesAfterTheRunningOne) {
  BackendWorker worker;
  Gate gate;
  std::vector<char> order;
  worker.submit([&] {
    order.push_back('r');
    gate.job()();
  });
  gate.waitEntered();
  worker.submit([&] { order.push_back('a'); });
  BackendWorker::Ticket last = worker.submit([&] { order.push_back('b'); });
  worker.submit([&] { order.push_back('u'); }, true);
  gate.release();
  worker.wait(last);
  EXPECT_EQ((std::vector<char>{'r', 'u', 'a', 'b'}), order);
}

TEST(BackendWorkerTest, CancelDropsAQueuedJobButNotARunningOne) {
  BackendWorker worker;
  Gate gate;
  BackendWorker::Ticket running = worker.submit(gate.job());
  gate.waitEntered();
  bool ran = false;
  BackendWorker::Ticket queued = worker.submit([&] { ran = true; });
  EXPECT_FALSE(worker.cancel(running));
  EXPECT_TRUE(worker.cancel(queued));
  EXPECT_FALSE(worker.cancel(queued));
  worker.wait(queued);  // dropped: returns at once
  EXPECT_FALSE(worker.waitUntil(queued, Clock::now() + std::chrono::seconds(1)));
  gate.release();
  BackendWorker::Ticket after = worker.submit([] {});
  worker.wait(after);
  EXPECT_FALSE(ran);
}

TEST(BackendWorkerTest, DestructionDropsQueuedJobsAndWaitsForTheRunningOne) {
  std::atomic<bool> finished{false};
  std::atomic<bool> queuedRan{false};
  Gate gate;
  std::thread releaser;
  {
    BackendWorker worker;
    worker.submit([&] {
      gate.job()();
      finished = true;
    });
    gate.waitEntered();
    worker.submit([&] { queuedRan = true; });
    releaser = std::thread([&] {
      std::this_thread::sleep_for(milliseconds(30));
      gate.release();
    });
  }
  releaser.join();
  EXPECT_TRUE(finished.load());
  EXPECT_FALSE(queuedRan.load());
}

TEST(BackendWorkerTest, ExpectedDoneAddsTheRunningJobAndTheJobsQueuedBeforeIt) {
  BackendWorker worker;
  Gate gate;
  const Clock::time_point before = Clock::now();
  worker.submit(gate.job(), false, std::chrono::seconds(10));
  gate.waitEntered();
  BackendWorker::Ticket a = worker.submit([] {}, false, std::chrono::seconds(1));
  BackendWorker::Ticket b = worker.submit([] {}, false, std::chrono::seconds(2));
  const Clock::time_point after = Clock::now();
  // The running job ends 10 s after it started, then a, then b.
  EXPECT_GE(worker.expectedDone(a), before + std::chrono::seconds(11));
  EXPECT_LE(worker.expectedDone(a), after + std::chrono::seconds(11));
  EXPECT_GE(worker.expectedDone(b), before + std::chrono::seconds(13));
  EXPECT_LE(worker.expectedDone(b), after + std::chrono::seconds(13));
  gate.release();
  worker.wait(b);
  const Clock::time_point doneAt = worker.expectedDone(b);
  EXPECT_LE(doneAt, Clock::now());  // done: now, not 13 s away
}

}  // namespace
}  // namespace zerva_agent
