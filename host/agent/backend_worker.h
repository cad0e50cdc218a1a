// BackendWorker: the one thread that makes the service module's calls.
//
// The module's handlers expect to be called one at a time, and each call
// may wait on the management back end for as long as the array takes. The
// agent therefore never calls them from the SNMP request path: every table
// read, scalar read and write is a job queued here and run in order on one
// thread, and the request waits for its job at most until its deadline
// (ObjectServer decides what to answer then).
//
// A worker made inline (tests, tools) has no thread: submit() runs the job
// at once on the caller's thread, so everything is synchronous.
#ifndef ZERVA_AGENT_BACKEND_WORKER_H_
#define ZERVA_AGENT_BACKEND_WORKER_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace zerva_agent {

class BackendWorker {
 public:
  typedef std::chrono::steady_clock Clock;
  // One queued job. Shared by the worker and whoever waits for it.
  class Job;
  typedef std::shared_ptr<Job> Ticket;

  enum Mode { kThreaded, kInline };
  explicit BackendWorker(Mode mode = kThreaded);
  // Drops the jobs not started, waits for the running one and joins.
  ~BackendWorker();
  BackendWorker(const BackendWorker&) = delete;
  BackendWorker& operator=(const BackendWorker&) = delete;

  bool threaded() const { return mode_ == kThreaded; }

  // Queues fn to run after the queued jobs (urgent: before them, after the
  // running one). expected: how long it is likely to take (its last run),
  // for expectedDone(). Inline: runs fn now. REQUIRES: fn does not throw.
  Ticket submit(std::function<void()> fn, bool urgent = false, Clock::duration expected = Clock::duration::zero());
  // When the job is likely to be done: after the running job and the jobs
  // queued before it, each taking what it was expected to take (a job
  // running longer than expected is taken to end now). Now for a job that
  // has run or was dropped.
  Clock::time_point expectedDone(const Ticket& job) const;
  // Waits until the job has run or until deadline. True when it has run.
  bool waitUntil(const Ticket& job, Clock::time_point deadline);
  // Waits until the job has run or was dropped; no bound.
  void wait(const Ticket& job);
  // Drops the job unless it has started. True when it was dropped.
  bool cancel(const Ticket& job);

 private:
  void run();

  const Mode mode_;
  mutable std::mutex mu_;
  std::condition_variable wake_;  // a job was queued, or the worker stops
  std::condition_variable done_;  // a job finished or was dropped
  std::deque<Ticket> queue_;
  Ticket running_;  // the job under way, if any
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_BACKEND_WORKER_H_
