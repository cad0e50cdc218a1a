#include "host/agent/backend_worker.h"

#include <algorithm>
#include <utility>

namespace zerva_agent {

class BackendWorker::Job {
 public:
  enum State { kQueued, kRunning, kDone, kDropped };
  explicit Job(std::function<void()> fn) : fn(std::move(fn)) {}
  std::function<void()> fn;
  State state = kQueued;  // guarded by the worker's mutex
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

BackendWorker::Ticket BackendWorker::submit(std::function<void()> fn, bool urgent) {
  Ticket job = std::make_shared<Job>(std::move(fn));
  if (mode_ == kInline) {
    job->state = Job::kRunning;
    job->fn();
    job->fn = nullptr;
    job->state = Job::kDone;
    std::lock_guard<std::mutex> lock(mu_);
    ++jobsRun_;
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
    std::function<void()> fn = std::move(job->fn);
    lock.unlock();
    fn();
    fn = nullptr;  // what the job holds goes before anyone learns it is done
    lock.lock();
    job->state = Job::kDone;
    ++jobsRun_;
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

bool BackendWorker::started(const Ticket& job) const {
  std::lock_guard<std::mutex> lock(mu_);
  return job->state != Job::kQueued;
}

uint64_t BackendWorker::jobsRun() const {
  std::lock_guard<std::mutex> lock(mu_);
  return jobsRun_;
}

}  // namespace zerva_agent
