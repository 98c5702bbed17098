#include "platform/files/storage_speed.h"

#include <algorithm>
#include <atomic>

namespace ravelin::platform {
namespace {

// A flush takes a few microseconds on tmpfs and a hundred on the fastest drives.
constexpr auto slow = std::chrono::microseconds(50);
constexpr std::chrono::nanoseconds max_counted = std::chrono::milliseconds(1);
// Written by the threads that flush, read by those that fill chunks; lost updates do not matter.
std::atomic<std::int64_t> average_flush = 0; // nanoseconds

} // namespace

void note_flush(std::chrono::nanoseconds time) {
  const auto before = average_flush.load(std::memory_order_relaxed);
  // Limits the weight of one flush that something else delayed.
  const auto counted = std::min(time, max_counted).count();
  average_flush.store(before + (counted - before) / 64, std::memory_order_relaxed);
}

bool has_slow_storage() {
  return average_flush.load(std::memory_order_relaxed) > std::chrono::nanoseconds(slow).count();
}

} // namespace ravelin::platform
