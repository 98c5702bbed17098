#pragma once

#include "platform/thread_pool.h"

#include <memory>
#include <string>

namespace platform {

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
  struct State;
  static void work(const std::shared_ptr<State>& state);
  std::shared_ptr<State> state_;
};

} // namespace platform
