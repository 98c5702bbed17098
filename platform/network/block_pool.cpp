#include "platform/network/block_pool.h"

#include <algorithm>

namespace ravelin::platform {
namespace {

// In memory a flush takes some microseconds, on the quickest drives a hundred.
constexpr auto slow = std::chrono::microseconds(50);
constexpr std::size_t always_kept = 4; // blocks; small files come and go
// Two cores write two blocks at a time, and a transfer goes on as soon as one of its own comes
// back.
constexpr std::size_t most_spare =
    2; // blocks beyond one for each transfer, where flushes are quick
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

std::unique_ptr<Block> BlockPool::obtain(bool first) {
  {
    const std::lock_guard lock(mutex_);
    if (!first && !spare_is_left())
      return nullptr;
    ++lent_;
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
  --lent_;
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
  return storage_is_slow();
}

bool BlockPool::has_spare() {
  const std::lock_guard lock(mutex_);
  return spare_is_left();
}

bool BlockPool::storage_is_slow() const {
  return usual_flush_ > slow;
}

/// Where flushes are slow, every transfer may have a second block: it fills while the first waits.
bool BlockPool::spare_is_left() const {
  return storage_is_slow() || lent_ < members_ + most_spare;
}

} // namespace ravelin::platform
