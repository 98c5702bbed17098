#include "platform/threads/thread_pool.h"

#include "platform/threads/semaphore.h"

#include <chrono>
#include <csignal>
#include <deque>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <system_error>
#include <vector>

namespace ravelin::platform {
namespace {

constexpr std::size_t stack_size = 512 * 1024; // bytes; application callbacks run here too
constexpr auto idle_time = std::chrono::seconds(5);

/// An idle thread. Lives on that thread's stack.
struct IdleThread {
  Semaphore wake{0};
  Job job;
};

struct Pool {
  std::mutex mutex;              // any thread adds jobs, pool threads take them
  std::vector<IdleThread*> idle; // last in, first out: its stack is still in the caches
  std::deque<Job> jobs;          // for threads that have just started or ended another job
  std::size_t threads = 0;       // at least as many as are reserved
  std::size_t reserved = 0;
};

Pool& pool() {
  static auto& instance = *new Pool; // never destroyed: its threads are not joined at exit
  return instance;
}

/// The next job, or an empty one if the thread is not needed any more.
Job next_job() {
  auto& p = pool();
  IdleThread self;
  {
    const std::lock_guard lock(p.mutex);
    if (!p.jobs.empty()) {
      auto job = std::move(p.jobs.front());
      p.jobs.pop_front();
      return job;
    }
    p.idle.push_back(&self);
  }
  while (!self.wake.wait_for(idle_time)) {
    const std::lock_guard lock(p.mutex);
    // If a job was assigned at the same moment, it is not in the list.
    if (p.threads > p.reserved && std::erase(p.idle, &self) > 0) {
      --p.threads;
      return {};
    }
  }
  return std::move(self.job);
}

void work_until_idle() noexcept {
  while (auto job = next_job())
    job();
}

/// The application handles signals on its own threads. Signals caused by the thread itself, such as
/// SIGSEGV, are not blocked.
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

void start_thread(void* (*body)(void*), void* argument) {
  const SignalsBlocked blocked; // a new thread inherits this mask
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, stack_size);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  const int refused = pthread_create(&thread, &attributes, body, argument);
  pthread_attr_destroy(&attributes);
  if (refused != 0)
    throw std::system_error(refused, std::system_category(), "could not start a thread");
}

} // namespace

ReservedThread::ReservedThread() {
  auto& p = pool();
  const std::lock_guard lock(p.mutex);
  if (p.threads == p.reserved) {
    const auto body = [](void*) -> void* {
      work_until_idle();
      return nullptr;
    };
    start_thread(body, nullptr);
    ++p.threads;
  }
  ++p.reserved;
}

ReservedThread::~ReservedThread() {
  auto& p = pool();
  const std::lock_guard lock(p.mutex);
  --p.reserved;
}

void ReservedThread::run(Job job) {
  auto& p = pool();
  std::unique_lock lock(p.mutex);
  if (p.idle.empty()) {
    p.jobs.push_back(std::move(job));
    return;
  }
  auto& idle = *p.idle.back();
  p.idle.pop_back();
  lock.unlock(); // the woken thread needs it soon
  idle.job = std::move(job);
  idle.wake.signal();
}

void run_in_background(Job job) {
  const auto thread = std::make_shared<ReservedThread>();
  thread->run([thread, job = std::move(job)] { job(); });
}

void start_detached_thread(void* (*body)(void*), void* argument) {
  start_thread(body, argument);
}

std::size_t background_thread_count() {
  auto& p = pool();
  const std::lock_guard lock(p.mutex);
  return p.threads;
}

} // namespace ravelin::platform
