#include "platform/semaphore.h"

#include "platform/fatal.h"

#include <cerrno>

namespace platform {

Semaphore::Semaphore(unsigned value) {
  if (sem_init(&semaphore_, 0, value) != 0)
    fatal("a semaphore could not be made");
}

Semaphore::~Semaphore() {
  sem_destroy(&semaphore_);
}

void Semaphore::signal() {
  if (sem_post(&semaphore_) != 0)
    fatal("a semaphore was signalled too often");
}

void Semaphore::wait() {
  while (sem_wait(&semaphore_) != 0)
    if (errno != EINTR)
      fatal("a semaphore could not be waited for");
}

void DispatchGroup::enter() {
  const std::lock_guard lock(mutex_);
  ++count_;
}

void DispatchGroup::leave() {
  const std::lock_guard lock(mutex_);
  if (--count_ < 0)
    fatal("a group was left more often than entered");
  if (count_ > 0)
    return;
  ++times_empty_;
  empty_.notify_all(); // under the lock: a waiter may destroy the group once it has returned
}

void DispatchGroup::wait() {
  std::unique_lock lock(mutex_);
  // Jobs that come after the group was empty are not waited for, however soon they come.
  empty_.wait(lock,
              [this, before = times_empty_] { return count_ == 0 || times_empty_ != before; });
}

} // namespace platform
