#pragma once

#include "ravelin/main_queue.h"
#include "ravelin/ravelin_operation.h"

#include <chrono>
#include <functional>
#include <stdexcept>

#include <poll.h>

namespace test {

// Runs the main queue until the condition holds; throws after a minute.
inline void pump_until(const std::function<bool()>& holds) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > limit)
      throw std::runtime_error("what is waited for does not come");
    pollfd readable{ravelin::MainQueue::descriptor(), POLLIN, 0};
    poll(&readable, 1, 1); // not everything that is waited for comes through the queue
    ravelin::MainQueue::drain();
  }
}

inline bool is_final(const ravelin::Status& status) {
  return status.holds<ravelin::Status::success>() || status.holds<ravelin::Status::cancelled>() ||
         status.holds<ravelin::Status::error>();
}

} // namespace test
