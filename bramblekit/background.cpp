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

} // namespace ravelin::bramblekit
