#include "platform/threads/semaphore.h"

#include "platform/fatal.h"

#include <cerrno>
#include <ctime>
#include <utility>

namespace ravelin::platform {

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

bool Semaphore::wait_for(std::chrono::seconds time) {
  timespec end{};
  clock_gettime(CLOCK_REALTIME, &end);
  end.tv_sec += time.count();
  for (;;) {
    if (sem_timedwait(&semaphore_, &end) == 0)
      return true;
    if (errno == ETIMEDOUT)
      return false;
    if (errno != EINTR)
      fatal("a semaphore could not be waited for");
  }
}

void AsyncSemaphore::signal() {
  signalled_ = true;
  if (const auto job = std::exchange(waiting_, nullptr))
    job();
}

void AsyncSemaphore::wait(Job job) {
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
      fatal("a group was left more often than entered");
    if (count_ == 0)
      waiting.swap(waiting_);
  }
  // The group is not touched any more: a waiter may destroy it once it has returned.
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
  // Jobs that come after the group was empty are not waited for, however soon they come.
  empty.wait();
}

} // namespace ravelin::platform
