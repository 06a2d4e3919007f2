/// A fixed number of threads that carry out jobs, each thread with a link to Redis of its own.
///
/// The HTTP server's threads never wait for Redis or the daemon: while these are slow or gone, only workers wait, and
/// every other connection is served on.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "tools/front_end/front_end_link.h"

namespace event_service {

class WorkerPool {
 public:
  using Job = std::function<void(FrontEndLink&)>;

  WorkerPool(size_t threads, const FrontEndPatience& patience);
  ~WorkerPool() { Stop(); }

  /// False, and the job is dropped, when too many wait already or the pool is stopped.
  bool Submit(Job job);
  /// Carries out what has been submitted and ends the threads.
  void Stop();

 private:
  void Work();

  const FrontEndPatience patience_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Job> jobs_;
  bool isStopped_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace event_service
