#pragma once

#include <functional>

namespace ravelin::platform {

using Job = std::function<void()>;

/// A thread of the pool that is kept free for its owner's jobs. Jobs may block on each other, so
/// none may have to wait for a thread: one that the system refuses is noticed before the job
/// exists.
///
/// Threads: any.
class ReservedThread {
public:
  /// Throws `std::system_error` if a new thread is needed and the system refuses it.
  ReservedThread();
  ~ReservedThread();
  ReservedThread(const ReservedThread&) = delete;
  ReservedThread& operator=(const ReservedThread&) = delete;

  /// Runs `job`. Call it only when the job before has ended or is about to. An exception thrown by
  /// it terminates the process.
  void run(Job job);
};

/// Runs `job` on a background thread. Throws as above; an exception thrown by `job` terminates the
/// process.
void run_in_background(Job job);

/// Runs `body(argument)` on a new thread that is never joined. Throws as above.
void start_detached_thread(void* (*body)(void*), void* argument);

/// Includes idle threads.
std::size_t background_thread_count();

} // namespace ravelin::platform
