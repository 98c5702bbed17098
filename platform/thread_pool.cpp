#include "platform/thread_pool.h"

#include "platform/fatal.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <mutex>
#include <pthread.h>

namespace platform {
namespace {

constexpr std::size_t stack_size = 512 * 1024; // bytes; callbacks of the application run here too
constexpr auto idle_time = std::chrono::seconds(5);

struct Pool {
  std::mutex mutex; // any thread hands jobs in, pool threads take them
  std::condition_variable wake;
  std::deque<Job> jobs;
  std::size_t idle = 0;
  std::size_t threads = 0;
};

Pool& pool() {
  static auto& instance = *new Pool; // outlives `main`: its threads are never joined
  return instance;
}

void work_until_idle() noexcept {
  auto& p = pool();
  std::unique_lock lock(p.mutex);
  for (;;) {
    ++p.idle;
    const bool woken = p.wake.wait_for(lock, idle_time, [&p] { return !p.jobs.empty(); });
    --p.idle;
    if (!woken)
      break;
    auto job = std::move(p.jobs.front());
    p.jobs.pop_front();
    lock.unlock();
    job();
    job = nullptr; // what the job holds goes before the next wait
    lock.lock();
  }
  --p.threads;
}

/// Signals are the application's business and are handled on its threads; those that a thread
/// causes itself stay where they belong.
class SignalsBlocked {
public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
      sigdelset(&all, own);
    pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
  sigset_t before_;
};

bool start_thread(void* (*body)(void*), void* argument) {
  const SignalsBlocked blocked; // a new thread inherits the mask of the one that makes it
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, stack_size);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  const bool started = pthread_create(&thread, &attributes, body, argument) == 0;
  pthread_attr_destroy(&attributes);
  return started;
}

} // namespace

void run_in_background(Job job) {
  auto& p = pool();
  const std::lock_guard lock(p.mutex);
  p.jobs.push_back(std::move(job));
  if (p.jobs.size() <= p.idle) {
    p.wake.notify_one();
    return;
  }
  const auto body = [](void*) -> void* {
    work_until_idle();
    return nullptr;
  };
  if (start_thread(body, nullptr))
    ++p.threads;
  else if (p.threads == 0)
    fatal("the system gives no thread to work on");
  // Otherwise the system is out of threads for now: the job waits for one that becomes free.
}

void start_detached_thread(void (*body)()) {
  const auto call = [](void* argument) -> void* {
    reinterpret_cast<void (*)()>(argument)();
    return nullptr;
  };
  if (!start_thread(call, reinterpret_cast<void*>(body)))
    fatal("the system gives no thread to work on");
}

std::size_t background_thread_count() {
  auto& p = pool();
  const std::lock_guard lock(p.mutex);
  return p.threads;
}

} // namespace platform
