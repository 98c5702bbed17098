#include "platform/block_pool.h"

#include <algorithm>

namespace platform {
namespace {

// In memory a flush takes some microseconds, on the quickest drives a hundred.
constexpr auto slow = std::chrono::microseconds(50);
constexpr std::size_t always_kept = 4; // blocks; small files come and go
constexpr auto slowest_counted = std::chrono::milliseconds(1);

} // namespace

BlockPool& BlockPool::instance() {
  static auto& pool = *new BlockPool; // outlives `main`, as those who write do
  return pool;
}

void BlockPool::join() {
  const std::lock_guard lock(mutex_);
  ++members_;
}

void BlockPool::leave() {
  const std::lock_guard lock(mutex_);
  --members_;
  while (free_.size() > most_free())
    free_.pop_back();
}

std::size_t BlockPool::most_free() const {
  return std::max(always_kept, 2 * members_);
}

std::unique_ptr<Block> BlockPool::obtain() {
  {
    const std::lock_guard lock(mutex_);
    if (!free_.empty()) {
      auto block = std::move(free_.back());
      free_.pop_back();
      return block;
    }
  }
  return std::make_unique<Block>(pool_block_size);
}

void BlockPool::take_back(std::unique_ptr<Block> block) {
  block->size = 0;
  const std::lock_guard lock(mutex_);
  if (free_.size() < most_free())
    free_.push_back(std::move(block));
}

void BlockPool::note_flush(std::chrono::nanoseconds time) {
  const std::lock_guard lock(mutex_);
  // One that was held up by something else counts for little.
  usual_flush_ += (std::min<std::chrono::nanoseconds>(time, slowest_counted) - usual_flush_) / 64;
}

bool BlockPool::has_slow_storage() {
  const std::lock_guard lock(mutex_);
  return usual_flush_ > slow;
}

} // namespace platform
