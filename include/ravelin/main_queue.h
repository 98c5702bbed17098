#pragma once

#include <cstddef>
#include <functional>

namespace ravelin {

/// The queue of the application's main thread, to be run by whatever loop that thread has.
///
/// The main thread is the one that ran `main` until `adopt_current_thread()` names another. Pick
/// one way to run it: `run()` in a console program, or `drain()` whenever `descriptor()` is
/// readable in an event loop of your own.
///
/// Threads: each function says which. Ownership: one per process, never destroyed.
class [[gnu::visibility("default")]] MainQueue {
public:
  MainQueue() = delete;

  /// Makes the calling thread the main thread. Once, at start, before the first operation.
  static void adopt_current_thread();
  /// Any thread.
  static bool is_main_thread() noexcept;

  /// Queues `task` for the main thread and returns at once. Any thread. An exception that `task`
  /// throws leaves through `run()` or `drain()`.
  static void async(std::function<void()> task);

  /// Main thread: runs queued work until `stop()` has been called, sleeping while there is none.
  static void run();
  /// Any thread, from inside queued work too: makes `run()` return after the work under way, or
  /// the next `run()` at once if none is under way.
  static void stop();

  /// Main thread: runs the work that is queued now, without waiting, and returns how many pieces
  /// that were. Work that is queued meanwhile makes the descriptor readable again.
  static std::size_t drain();
  /// A descriptor that is readable while work is queued that no `run()` sees to, for poll, epoll
  /// or an event loop. It belongs to the queue: watch it, never read, write or close it. Any
  /// thread.
  static int descriptor();
};

} // namespace ravelin
