#include "platform/network/block_pool.h"

#include <algorithm>

namespace ravelin::platform {
namespace {

constexpr std::size_t min_kept = 4; // blocks; small files need no new ones
constexpr std::size_t max_members_with_two = 2;

} // namespace

BlockPool& BlockPool::instance() {
  static auto& pool = *new BlockPool; // never destroyed: writers outlive `main`
  return pool;
}

void BlockPool::join() {
  const std::lock_guard lock(mutex_);
  ++members_;
}

void BlockPool::leave() {
  const std::lock_guard lock(mutex_);
  --members_;
  while (free_.size() > max_free())
    free_.pop_back();
}

int BlockPool::blocks_per_transfer() {
  const std::lock_guard lock(mutex_);
  return members_ <= max_members_with_two ? 2 : 1;
}

std::size_t BlockPool::max_free() const {
  return std::max(min_kept, members_);
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

void BlockPool::give_back(std::unique_ptr<Block> block) {
  block->size = 0;
  const std::lock_guard lock(mutex_);
  if (free_.size() < max_free())
    free_.push_back(std::move(block));
}

} // namespace ravelin::platform
