#pragma once

#include "ravelin/main_queue.h"

#include <chrono>
#include <cstddef>
#include <ctime>

#include <poll.h>

namespace test {

/// How long one `MainQueue::drain()` call blocked the thread.
struct Hold {
  std::size_t jobs = 0;
  double wall_us = 0;
  double cpu_us = 0; // excludes time taken by other threads and processes
};

inline double thread_cpu_us() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

inline double us_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
      .count();
}

/// Waits up to a second for work and runs it.
inline Hold timed_drain() {
  pollfd readable{ravelin::MainQueue::descriptor(), POLLIN, 0};
  poll(&readable, 1, 1000);
  const auto cpu_before = thread_cpu_us();
  const auto start = std::chrono::steady_clock::now();
  const auto jobs = ravelin::MainQueue::drain();
  return {jobs, us_since(start), thread_cpu_us() - cpu_before};
}

} // namespace test
