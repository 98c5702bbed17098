#include "platform/threads/semaphore.h"

#include "platform/fatal.h"

#include <cerrno>
#include <ctime>
#include <utility>

namespace ravelin::platform {

Semaphore::Semaphore(unsigned value) {
  if (sem_init(&semaphore_, 0, value) != 0)
    fatal("could not create a semaphore");
}

Semaphore::~Semaphore() {
  sem_destroy(&semaphore_);
}

void Semaphore::signal() {
  if (sem_post(&semaphore_) != 0)
    fatal("a semaphore was signalled too many times");
}

void Semaphore::wait() {
  while (sem_wait(&semaphore_) != 0)
    if (errno != EINTR)
      fatal("could not wait for a semaphore");
}

bool Semaphore::wait_for(std::chrono::milliseconds time) {
  timespec end{};
  clock_gettime(CLOCK_REALTIME, &end);
  const auto nanoseconds = end.tv_nsec + time.count() % 1000 * 1'000'000;
  end.tv_sec += time.count() / 1000 + nanoseconds / 1'000'000'000;
  end.tv_nsec = nanoseconds % 1'000'000'000;
  for (;;) {
    if (sem_timedwait(&semaphore_, &end) == 0)
      return true;
    if (errno == ETIMEDOUT)
      return false;
    if (errno != EINTR)
      fatal("could not wait for a semaphore");
  }
}

void OneShotEvent::signal() {
  signalled_ = true;
  if (const auto job = std::exchange(waiting_, nullptr))
    job();
}

void OneShotEvent::wait(Job job) {
  if (signalled_)
    job();
  else
    waiting_ = std::move(job);
}

void DispatchGroup::enter() {
  const std::lock_guard lock(mutex_);
  ++count_;
}

void DispatchGroup::leave() {
  std::vector<Semaphore*> waiting;
  {
    const std::lock_guard lock(mutex_);
    if (--count_ < 0)
      fatal("a group was left more often than it was entered");
    if (count_ == 0)
      waiting.swap(waiting_);
  }
  // Do not use the group from here on: a waiter may destroy it as soon as it returns.
  for (auto* const waiter : waiting)
    waiter->signal();
}

void DispatchGroup::wait() {
  Semaphore empty(0);
  {
    const std::lock_guard lock(mutex_);
    if (count_ == 0)
      return;
    waiting_.push_back(&empty);
  }
  // Jobs that enter after the group was empty are not waited for.
  empty.wait();
}

} // namespace ravelin::platform
