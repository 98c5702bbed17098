#pragma once

#include "platform/thread_pool.h"

#include <chrono>
#include <deque>
#include <mutex>
#include <semaphore.h>
#include <vector>

namespace platform {

/// A counting semaphore. It may be destroyed as soon as the one wait for its signal has returned,
/// even while the signalling call is still on its way out.
class Semaphore {
public:
  explicit Semaphore(unsigned value);
  ~Semaphore();
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  void signal();
  /// Blocks without a time limit.
  void wait();
  /// Whether a signal came within about `time`, less or more when somebody sets the clock.
  bool wait_for(std::chrono::seconds time);

private:
  sem_t semaphore_;
};

/// A semaphore at which jobs wait instead of threads, in the order in which they came. Each runs
/// inside the call that brings the second of the two, the job or the signal for it.
class AsyncSemaphore {
public:
  void signal();
  void wait(Job job);

private:
  std::mutex mutex_; // any thread signals, any thread brings a job
  std::size_t signals_ = 0;
  std::deque<Job> waiting_;
};

/// Counts jobs under way. A wait returns when all that were under way at its start have ended.
class DispatchGroup {
public:
  void enter();
  void leave();
  void wait();

private:
  std::mutex mutex_; // jobs end on a queue's thread while other threads wait
  long count_ = 0;
  std::vector<Semaphore*> waiting_;
};

} // namespace platform
