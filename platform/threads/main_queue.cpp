#include "ravelin/main_queue.h"

#include "platform/fatal.h"
#include "platform/threads/main_call.h"
#include "platform/threads/semaphore.h"
#include "platform/threads/wake_event.h"

#include <atomic>
#include <memory>
#include <mutex>
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
  // Read on every hop from any thread while a host may still be adopting: hence atomic. The thread
  // that runs `main` has the process's own number.
  std::atomic<pid_t> main_thread = getpid();
  std::mutex mutex;          // every thread puts work in, the main thread takes it out
  MainCall* first = nullptr; // a list through the calls themselves: a hop allocates nothing
  MainCall* last = nullptr;
  std::size_t length = 0;
  bool awake = false;   // the event is set: only the first of many pieces pays for a wake-up
  bool watched = false; // somebody has asked for the event, which is not touched before
  bool stopped = false;
  int runs = 0;      // calls of `run()` under way, nested ones included
  bool idle = false; // the main thread sleeps in `run()`, where nobody looks at the event
  Semaphore called{0};
  WakeEvent event;
};

Queue& queue() {
  // Never destroyed: background threads still hop here while the process leaves `main`.
  static auto& instance = *new Queue;
  return instance;
}

/// Unlocks first where it can: the main thread needs the lock as soon as it wakes.
void wake(Queue& q, std::unique_lock<std::mutex>& lock) {
  if (std::exchange(q.idle, false)) {
    lock.unlock();
    q.called.signal();
  } else if (!std::exchange(q.awake, true) && q.watched) {
    q.event.set();
  }
}

/// The event is set while there is work that the main thread does not know of, so that a loop
/// nested in a callback sees it, too; and never while there is none.
void sleep_if_empty(Queue& q) {
  if (!q.first && std::exchange(q.awake, false) && q.watched)
    q.event.clear();
}

void push(MainCall& call) {
  auto& q = queue();
  std::unique_lock lock(q.mutex);
  (q.last ? q.last->next : q.first) = &call;
  q.last = &call;
  ++q.length;
  wake(q, lock);
}

void require_main_thread(const char* function) {
  if (!MainQueue::is_main_thread())
    fatal(std::string(function) + " was called off the main thread");
}

/// Takes the next call, or null.
MainCall* pop() {
  auto& q = queue();
  const std::lock_guard lock(q.mutex);
  auto* const call = q.first;
  if (call) {
    q.first = call->next;
    if (!q.first)
      q.last = nullptr;
    --q.length;
    sleep_if_empty(q);
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

/// Marks that somebody inside `run()` waits for work, however `run()` ends.
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
  }
};

/// Whether a `run()` is to end now; takes the wish away.
bool take_stop() {
  auto& q = queue();
  const std::lock_guard lock(q.mutex);
  const bool stopped = std::exchange(q.stopped, false);
  if (stopped)
    sleep_if_empty(q);
  return stopped;
}

/// Sleeps until somebody queues work or stops `run()`.
void wait_for_work() {
  auto& q = queue();
  {
    const std::lock_guard lock(q.mutex);
    if (q.first || q.stopped)
      return;
    q.idle = true;
  }
  q.called.wait();
}

} // namespace

void queue_on_main(MainCall& call) {
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
      break; // work that ran here has drained the queue itself
    call->call(*call);
  }
  return ran;
}

void MainQueue::run() {
  require_main_thread("MainQueue::run()");
  const Running running;
  for (;;) {
    drain();
    if (take_stop())
      return;
    wait_for_work();
  }
}

void MainQueue::stop() {
  auto& q = queue();
  std::unique_lock lock(q.mutex);
  q.stopped = true;
  if (q.runs > 0)
    wake(q, lock);
}

int MainQueue::descriptor() {
  auto& q = queue();
  const std::lock_guard lock(q.mutex);
  if (!std::exchange(q.watched, true) && q.awake)
    q.event.set();
  return q.event.descriptor();
}

} // namespace ravelin
