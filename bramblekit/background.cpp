#include "bramblekit/background.h"

#include "platform/threads/thread_pool.h"

#include <chrono>
#include <thread>
#include <utility>

namespace ravelin::bramblekit {

void bg_async(double delay, std::function<void()> task) {
  if (delay <= 0) {
    platform::run_in_background(std::move(task));
    return;
  }
  platform::run_in_background([delay, task = std::move(task)] {
    std::this_thread::sleep_for(std::chrono::duration<double>(delay));
    task();
  });
}

OwnWork::~OwnWork() {
  if (task_) // nobody came to wait
    bg_async(0.0, std::move(task_));
}

void OwnWork::take(std::function<void()> task) {
  if (task_)
    bg_async(0.0, std::move(task));
  else
    task_ = std::move(task);
}

void OwnWork::work() noexcept {
  if (const auto task = std::exchange(task_, nullptr))
    task();
}

} // namespace ravelin::bramblekit
