#pragma once

#include "platform/threads/thread_marks.h"
#include "platform/threads/thread_pool.h"

#include <chrono>
#include <mutex>
#include <semaphore.h>
#include <vector>

namespace ravelin::platform {

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

/// A semaphore for one signal, at which a job waits instead of a thread. The job runs inside the
/// call that brings the second of the two, the job or the signal.
class AsyncSemaphore {
public:
  void signal() MAIN_ONLY;
  void wait(Job job) MAIN_ONLY;

private:
  bool signalled_ = false;
  Job waiting_;
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

} // namespace ravelin::platform
