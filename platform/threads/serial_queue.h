#pragma once

#include "platform/threads/semaphore.h"
#include "platform/threads/thread_pool.h"

#include <memory>
#include <string>

namespace ravelin::platform {

/// Runs jobs one at a time, in the order queued, on a background thread: one that is borrowed while
/// there are jobs, or one that offers itself.
///
/// Threads: any thread may queue. Ownership: queued jobs outlive the queue object.
class SerialQueue {
public:
  explicit SerialQueue(std::string label);

  /// Queues `job` and returns at once. An exception that leaves it ends the process.
  void async(Job job);
  /// Queues `job` for the next `work_off()` or `async()`, and wakes nobody.
  void add(Job job);
  /// Runs on the calling thread what is queued, unless another thread is at it already.
  void work_off() noexcept;
  const std::string& label() const;

private:
  friend class LentThread;
  struct State;
  /// Until no job is left; then `lent_again` is woken for the next one.
  static void work(const std::shared_ptr<State>& state, Semaphore* lent_again = nullptr);
  std::shared_ptr<State> state_;
};

/// Lends the thread that makes it to a queue while that thread waits for something, so that jobs
/// need no other. From now on they wait for `wait()`; those of before stay where they are.
///
/// Threads: the one that makes it. Ownership: neither queue nor semaphore; both must outlive it.
class LentThread {
public:
  LentThread(SerialQueue& queue, Semaphore& awaited);
  ~LentThread();
  LentThread(const LentThread&) = delete;
  LentThread& operator=(const LentThread&) = delete;

  /// Runs jobs as they come until `awaited` is signalled, by one of them or anybody else.
  void wait() noexcept;

private:
  /// False: a job counts on this thread and has signalled it, or will.
  bool take_offer_back();

  const std::shared_ptr<SerialQueue::State> state_;
  Semaphore& awaited_;
  bool offered_ = true;
};

} // namespace ravelin::platform
