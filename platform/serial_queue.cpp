#include "platform/serial_queue.h"

#include <deque>
#include <mutex>
#include <utility>

namespace platform {

struct SerialQueue::State {
  std::string label;
  std::mutex mutex; // jobs come from any thread and leave on the borrowed one
  std::deque<Job> jobs;
  bool working = false;
};

SerialQueue::SerialQueue(std::string label) : state_(std::make_shared<State>()) {
  state_->label = std::move(label);
}

const std::string& SerialQueue::label() const {
  return state_->label;
}

void SerialQueue::async(Job job) {
  {
    const std::lock_guard lock(state_->mutex);
    state_->jobs.push_back(std::move(job));
    if (std::exchange(state_->working, true))
      return;
  }
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

void SerialQueue::work(const std::shared_ptr<State>& state) {
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
}

} // namespace platform
