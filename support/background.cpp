#include "support/background.h"

#include "platform/thread_pool.h"

#include <chrono>
#include <thread>

namespace bramblekit {

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

} // namespace bramblekit
