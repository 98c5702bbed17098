#pragma once

#include "platform/threads/thread_annotations.h"
#include "platform/threads/thread_pool.h"

#include <chrono>
#include <mutex>
#include <semaphore.h>
#include <vector>

namespace ravelin::platform {

/// A counting semaphore. It may be destroyed as soon as the wait for its only signal has returned,
/// even if `signal()` has not returned yet.
class Semaphore {
public:
  explicit Semaphore(unsigned value);
  ~Semaphore();
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  void signal();
  void wait();
  /// Returns false after about `time`; setting the system clock changes that.
  bool wait_for(std::chrono::milliseconds time);

private:
  sem_t semaphore_;
};

/// Is signalled once, and one job waits for that instead of a thread. The job runs inside
/// `signal()`, or inside `wait()` if the signal came first.
class OneShotEvent {
public:
  void signal() MAIN_ONLY;
  void wait(Job job) MAIN_ONLY;

private:
  bool signalled_ = false;
  Job waiting_;
};

/// Counts running jobs. `wait()` returns once the count has reached 0, even if more jobs enter
/// right after that.
class DispatchGroup {
public:
  void enter();
  void leave();
  void wait();

private:
  std::mutex mutex_; // jobs leave on a queue's thread while other threads wait
  long count_ = 0;
  std::vector<Semaphore*> waiting_;
};

} // namespace ravelin::platform
