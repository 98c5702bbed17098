#pragma once

#include "platform/threads/thread_pool.h"

#include <memory>
#include <string>

namespace ravelin::platform {

/// Runs jobs one at a time, in order, on a thread of the pool that is reserved for it.
///
/// Threads: any thread may queue. Ownership: queued jobs still run when the object is destroyed.
class SerialQueue {
public:
  /// Throws `std::system_error` if the system refuses a thread.
  explicit SerialQueue(std::string label);

  /// Queues `job` and returns at once. An exception thrown by it terminates the process.
  void async(Job job);
  const std::string& label() const;

private:
  struct State;
  static void work(const std::shared_ptr<State>& state);
  std::shared_ptr<State> state_;
};

} // namespace ravelin::platform
