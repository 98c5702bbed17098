#pragma once

#include <cstddef>
#include <functional>

namespace ravelin {

/// The queue of work for the application's main thread.
///
/// The main thread is the one that ran `main`, or the one that called `adopt_current_thread()`.
/// There are two ways to run the queue: call `run()`, or, in an event loop of your own, call
/// `drain()` whenever `descriptor()` is readable.
///
/// Threads: see each function; one for the main thread ends the process if called on another.
/// Ownership: one per process, never destroyed.
class [[gnu::visibility("default")]] MainQueue {
public:
  MainQueue() = delete;

  /// Makes the calling thread the main thread. Call it once, before the first operation.
  static void adopt_current_thread();
  /// Whether the calling thread is the main thread. Any thread.
  static bool is_main_thread() noexcept;

  /// Queues `task` for the main thread and returns at once. If `task` throws, `run()` or `drain()`
  /// throws the exception. Any thread.
  static void async(std::function<void()> task);

  /// Runs queued work, and sleeps while there is none, until `stop()` is called. Main thread.
  static void run();
  /// Makes `run()` return. Tasks that are queued already may run before it does; later ones stay
  /// queued. If `run()` is not active, the next call returns like that, without sleeping. Any
  /// thread; may be called in a task.
  static void stop();

  /// Runs the tasks that are queued now, without waiting, and returns their number. Tasks queued
  /// meanwhile make the descriptor readable again. Main thread.
  static std::size_t drain();
  /// A descriptor for poll, epoll or an event loop; readable while tasks are queued and `run()` is
  /// not active. It belongs to the queue: do not read, write or close it. Throws
  /// `std::system_error` if there is none left. Any thread.
  static int descriptor();
};

} // namespace ravelin
