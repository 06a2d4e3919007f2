#include "tools/redfish_gateway/worker_pool.h"

namespace event_service {
namespace {

constexpr size_t kMostWaitingJobs = 256;

}  // namespace

WorkerPool::WorkerPool(size_t threads, const FrontEndPatience& patience) : patience_(patience) {
  for (size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { Work(); });
}

bool WorkerPool::Submit(Job job) {
  const std::lock_guard lock(mutex_);
  if (isStopped_ || jobs_.size() >= kMostWaitingJobs) return false;
  jobs_.push_back(std::move(job));
  changed_.notify_one();
  return true;
}

void WorkerPool::Stop() {
  {
    const std::lock_guard lock(mutex_);
    isStopped_ = true;
  }
  changed_.notify_all();
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

void WorkerPool::Work() {
  FrontEndLink link(patience_);
  while (true) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return isStopped_ || !jobs_.empty(); });
    if (jobs_.empty()) return;
    const Job job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job(link);
  }
}

}  // namespace event_service
