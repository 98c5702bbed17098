#include "platform/threads/serial_queue.h"

#include <deque>
#include <mutex>
#include <utility>

namespace ravelin::platform {

struct SerialQueue::State {
  std::string label;
  std::mutex mutex; // jobs are queued on any thread and run on a pool thread
  std::deque<Job> jobs;
  bool working = false;
  ReservedThread thread;
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
  lock.unlock();
  state_->thread.run([state = state_] { work(state); });
}

void SerialQueue::work(const std::shared_ptr<State>& state) {
  std::unique_lock lock(state->mutex);
  while (!state->jobs.empty()) {
    auto job = std::move(state->jobs.front());
    state->jobs.pop_front();
    lock.unlock();
    job();
    job = nullptr; // destroys its captures before the next job runs
    lock.lock();
  }
  state->working = false;
}

} // namespace ravelin::platform
