#include "platform/threads/serial_queue.h"

#include <deque>
#include <mutex>
#include <utility>

namespace ravelin::platform {

struct SerialQueue::State {
  std::string label;
  std::mutex mutex; // jobs come from any thread and leave on the borrowed one
  std::deque<Job> jobs;
  bool working = false;
  Semaphore* lent = nullptr; // wakes the thread that is there for the next job
};

SerialQueue::SerialQueue(std::string label) : state_(std::make_shared<State>()) {
  state_->label = std::move(label);
}

const std::string& SerialQueue::label() const {
  return state_->label;
}

void SerialQueue::async(Job job) {
  std::unique_lock lock(state_->mutex);
  state_->jobs.push_back(std::move(job));
  if (std::exchange(state_->working, true))
    return;
  auto* const lent = std::exchange(state_->lent, nullptr);
  lock.unlock();
  if (lent)
    lent->signal();
  else
    run_in_background([state = state_] { work(state); });
}

void SerialQueue::add(Job job) {
  const std::lock_guard lock(state_->mutex);
  state_->jobs.push_back(std::move(job));
}

void SerialQueue::work_off() noexcept {
  {
    const std::lock_guard lock(state_->mutex);
    if (std::exchange(state_->working, true))
      return;
  }
  work(state_);
}

void SerialQueue::work(const std::shared_ptr<State>& state, Semaphore* lent_again) {
  std::unique_lock lock(state->mutex);
  while (!state->jobs.empty()) {
    auto job = std::move(state->jobs.front());
    state->jobs.pop_front();
    lock.unlock();
    job();
    job = nullptr; // what the job holds goes before the next one runs
    lock.lock();
  }
  state->working = false;
  if (lent_again)
    state->lent = lent_again;
}

LentThread::LentThread(SerialQueue& queue, Semaphore& awaited)
    : state_(queue.state_), awaited_(awaited) {
  const std::lock_guard lock(state_->mutex);
  state_->lent = &awaited_;
}

LentThread::~LentThread() {
  if (!offered_ || take_offer_back())
    return;
  awaited_.wait(); // the signal for the job that counts on this thread
  SerialQueue::work(state_);
}

bool LentThread::take_offer_back() {
  const std::lock_guard lock(state_->mutex);
  return std::exchange(state_->lent, nullptr) != nullptr;
}

// The semaphore is signalled for jobs as well as for what is awaited. Whichever comes first: as
// many signals are waited for as were given before the thread goes its way.
void LentThread::wait() noexcept {
  for (;;) {
    awaited_.wait();
    if (take_offer_back())
      break;
    SerialQueue::work(state_, &awaited_);
  }
  offered_ = false;
}

} // namespace ravelin::platform
