#include "ravelin/main_queue.h"

#include "platform/fatal.h"
#include "platform/threads/main_call.h"
#include "platform/threads/semaphore.h"
#include "platform/threads/wake_event.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace ravelin::platform {
namespace {

pid_t current_thread_id() {
  thread_local const auto id = static_cast<pid_t>(syscall(SYS_gettid));
  return id;
}

struct Queue {
  // Atomic: other threads read it while the application may be adopting another main thread. The
  // thread that runs `main` has the id of the process.
  std::atomic<pid_t> main_thread = getpid();
  std::mutex mutex;          // every thread adds work, the main thread removes it
  MainCall* first = nullptr; // an intrusive list: no allocation per call
  MainCall* last = nullptr;
  std::size_t length = 0;
  bool awake = false; // woken already; saves a system call for each further piece of work
  bool stopped = false;
  int runs = 0;                       // active calls of `run()`, including nested ones
  std::condition_variable work_added; // for `run()`, which needs no descriptor
  std::optional<WakeEvent> event;     // for loops of the application, once they ask for it
};

Queue& queue() {
  // Never destroyed: background threads may still use it after `main` returns.
  static auto& instance = *new Queue;
  return instance;
}

/// Whether `run()` must be notified, once the mutex is free.
bool wake(Queue& q) {
  if (std::exchange(q.awake, true))
    return false;
  if (q.event)
    q.event->set();
  return true;
}

/// The event stays set while there is work, so that a loop nested in a callback sees it too.
void clear_event_if_empty(Queue& q) {
  if (!q.first && std::exchange(q.awake, false) && q.event)
    q.event->clear();
}

void push(MainCall& call) {
  auto& q = queue();
  std::unique_lock lock(q.mutex);
  (q.last ? q.last->next : q.first) = &call;
  q.last = &call;
  ++q.length;
  const bool notify = wake(q);
  lock.unlock();
  if (notify)
    q.work_added.notify_one();
}

void require_main_thread(const char* function) {
  if (!MainQueue::is_main_thread())
    fatal(std::string(function) + " was called off the main thread");
}

MainCall* pop() {
  auto& q = queue();
  const std::lock_guard lock(q.mutex);
  auto* const call = q.first;
  if (call) {
    q.first = call->next;
    if (!q.first)
      q.last = nullptr;
    --q.length;
    clear_event_if_empty(q);
  }
  return call;
}

struct AsyncCall : MainCall {
  std::function<void()> task;
};

void run_and_delete(MainCall& call) {
  const std::unique_ptr<AsyncCall> owned(static_cast<AsyncCall*>(&call));
  owned->task();
}

/// Counts one active `run()`.
class Running {
public:
  Running() { change(1); }
  ~Running() { change(-1); }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

private:
  static void change(int by) {
    auto& q = queue();
    const std::lock_guard lock(q.mutex);
    q.runs += by;
    if (q.runs == 0) // a task may have called `stop()` and thrown
      clear_event_if_empty(q);
  }
};

/// Whether `run()` should return. Resets the request.
bool consume_stop() {
  auto& q = queue();
  const std::lock_guard lock(q.mutex);
  const bool stopped = std::exchange(q.stopped, false);
  if (stopped)
    clear_event_if_empty(q);
  return stopped;
}

void wait_for_work() {
  auto& q = queue();
  std::unique_lock lock(q.mutex);
  q.work_added.wait(lock, [&q] { return q.first || q.stopped; });
}

} // namespace

/// Only the thread that calls fork() continues in the child: there is no network thread, and
/// perhaps no thread to run the queue.
bool& is_forked_child() {
  static bool forked = false;
  [[maybe_unused]] static const int registered =
      pthread_atfork(nullptr, nullptr, [] { is_forked_child() = true; });
  return forked;
}

Error forked_child_error() {
  return Error(std::make_exception_ptr(
      std::logic_error("ravelin cannot be used after fork() without exec")));
}

void refuse_in_forked_child() {
  if (is_forked_child())
    forked_child_error().rethrow();
}

void queue_on_main(MainCall& call) {
  refuse_in_forked_child();
  push(call);
}

void wait_for_main(Semaphore& done) {
  done.wait();
}

} // namespace ravelin::platform

namespace ravelin {

using namespace platform;

void MainQueue::adopt_current_thread() {
  queue().main_thread = current_thread_id();
}

bool MainQueue::is_main_thread() noexcept {
  return queue().main_thread.load(std::memory_order_relaxed) == current_thread_id();
}

void MainQueue::async(std::function<void()> task) {
  auto call = std::make_unique<AsyncCall>();
  call->call = run_and_delete;
  call->task = std::move(task);
  push(*call.release());
}

std::size_t MainQueue::drain() {
  require_main_thread("MainQueue::drain()");
  auto& q = queue();
  std::size_t due = 0;
  {
    const std::lock_guard lock(q.mutex);
    due = q.length;
  }
  std::size_t ran = 0;
  for (; ran < due; ++ran) {
    auto* const call = pop();
    if (!call)
      break; // a call drained the queue itself
    call->call(*call);
  }
  return ran;
}

void MainQueue::run() {
  require_main_thread("MainQueue::run()");
  refuse_in_forked_child();
  const Running running;
  for (;;) {
    drain();
    if (consume_stop())
      return;
    wait_for_work();
  }
}

void MainQueue::stop() {
  auto& q = queue();
  const std::lock_guard lock(q.mutex);
  q.stopped = true;
  if (q.runs > 0 && wake(q))
    q.work_added.notify_one();
}

int MainQueue::descriptor() {
  auto& q = queue();
  const std::lock_guard lock(q.mutex);
  if (!q.event) {
    q.event.emplace();
    if (q.awake)
      q.event->set();
  }
  return q.event->descriptor();
}

} // namespace ravelin
