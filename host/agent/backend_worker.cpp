#include "host/agent/backend_worker.h"

#include <algorithm>
#include <utility>

namespace zerva_agent {

class BackendWorker::Job {
 public:
  enum State { kQueued, kRunning, kDone, kDropped };
  Job(std::function<void()> fn, Clock::duration expected) : fn(std::move(fn)), expected(expected) {}
  std::function<void()> fn;
  const Clock::duration expected;
  State state = kQueued;      // guarded by the worker's mutex
  Clock::time_point started;  // when it began to run (likewise)
};

BackendWorker::BackendWorker(Mode mode) : mode_(mode) {
  if (mode_ == kThreaded) thread_ = std::thread([this] { run(); });
}

BackendWorker::~BackendWorker() {
  if (mode_ != kThreaded) return;
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
    for (const Ticket& job : queue_) job->state = Job::kDropped;
    queue_.clear();
  }
  wake_.notify_all();
  done_.notify_all();
  thread_.join();
}

BackendWorker::Ticket BackendWorker::submit(std::function<void()> fn, bool urgent, Clock::duration expected) {
  Ticket job = std::make_shared<Job>(std::move(fn), expected);
  if (mode_ == kInline) {
    job->state = Job::kRunning;
    job->fn();
    job->fn = nullptr;
    job->state = Job::kDone;
    return job;
  }
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (stopping_) {
      job->state = Job::kDropped;
      return job;
    }
    if (urgent) {
      queue_.push_front(job);
    } else {
      queue_.push_back(job);
    }
  }
  wake_.notify_one();
  return job;
}

void BackendWorker::run() {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    if (queue_.empty()) return;  // stopping
    Ticket job = queue_.front();
    queue_.pop_front();
    job->state = Job::kRunning;
    job->started = Clock::now();
    running_ = job;
    std::function<void()> fn = std::move(job->fn);
    lock.unlock();
    fn();
    fn = nullptr;  // what the job holds goes before anyone learns it is done
    lock.lock();
    job->state = Job::kDone;
    running_.reset();
    done_.notify_all();
  }
}

bool BackendWorker::waitUntil(const Ticket& job, Clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(mu_);
  return done_.wait_until(lock, deadline, [&] { return job->state >= Job::kDone; }) && job->state == Job::kDone;
}

void BackendWorker::wait(const Ticket& job) {
  std::unique_lock<std::mutex> lock(mu_);
  done_.wait(lock, [&] { return job->state >= Job::kDone; });
}

bool BackendWorker::cancel(const Ticket& job) {
  std::lock_guard<std::mutex> lock(mu_);
  if (job->state != Job::kQueued) return false;
  job->state = Job::kDropped;
  queue_.erase(std::find(queue_.begin(), queue_.end(), job));
  done_.notify_all();
  return true;
}

BackendWorker::Clock::time_point BackendWorker::expectedDone(const Ticket& job) const {
  std::lock_guard<std::mutex> lock(mu_);
  const Clock::time_point now = Clock::now();
  if (job->state == Job::kDone || job->state == Job::kDropped) return now;
  Clock::time_point at = running_ ? std::max(now, running_->started + running_->expected) : now;
  if (job->state == Job::kRunning) return at;
  for (const Ticket& queued : queue_) {
    at += queued->expected;
    if (queued == job) break;
  }
  return at;
}

}  // namespace zerva_agent
