#pragma once

#include <condition_variable>
#include <mutex>
#include <semaphore.h>

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

private:
  sem_t semaphore_;
};

/// Counts jobs under way. A wait returns when all that were under way at its start have ended.
class DispatchGroup {
public:
  void enter();
  void leave();
  void wait();

private:
  std::mutex mutex_; // jobs end on a queue's thread while other threads wait
  std::condition_variable empty_;
  long count_ = 0;
  unsigned long times_empty_ = 0;
};

} // namespace platform
