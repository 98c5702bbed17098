#include "platform/network/receive_buffer.h"

#include "platform/network/block_pool.h"

#include <cstring>
#include <utility>

namespace ravelin::platform {
namespace {

// Each chunk costs thread switches and a flush, so larger chunks are cheaper. Smaller ones need
// less memory.
constexpr std::size_t max_chunk_size = pool_block_size - max_read_size; // bytes
constexpr auto coalescing_delay = std::chrono::milliseconds(5);
// If fewer bytes than this arrive in that time, the flow is slow, and waiting longer loses little.
constexpr std::size_t slow_flow_size = 32 * 1024; // bytes
constexpr auto slow_flow_delay = std::chrono::milliseconds(300);

} // namespace

ReceiveBuffer::ReceiveBuffer(std::function<void()> on_space) : on_space_(std::move(on_space)) {
  BlockPool::instance().join();
}

ReceiveBuffer::~ReceiveBuffer() {
  if (filling_) // the delegate refused a body that had arrived already
    BlockPool::instance().give_back(std::move(filling_));
  BlockPool::instance().leave();
}

bool ReceiveBuffer::has_enough() const {
  return has_bytes() && filling_->size >= max_chunk_size / 8 * 7;
}

bool ReceiveBuffer::obtain_block() {
  if (!filling_ && blocks_ < BlockPool::instance().blocks_per_transfer()) {
    filling_ = BlockPool::instance().obtain();
    ++blocks_;
  }
  return filling_ != nullptr;
}

ReceiveBuffer::Appended ReceiveBuffer::append(std::string_view bytes) {
  std::unique_lock lock(mutex_);
  if (discarded_)
    return Appended::buffered;
  if (!obtain_block() || filling_->size + bytes.size() > filling_->capacity) {
    paused_ = true;
    return Appended::no_space;
  }
  const bool had_enough = has_enough();
  if (filling_->size == 0)
    first_byte_ = Clock::now();
  std::memcpy(filling_->bytes.get() + filling_->size, bytes.data(), bytes.size());
  filling_->size += bytes.size();
  if (!std::exchange(delivering_, true))
    return Appended::wake_delegate;
  paused_ = paused_ || filling_->size >= max_chunk_size;
  const auto appended = paused_ ? Appended::full : Appended::buffered;
  const bool is_due = paused_ || (!had_enough && has_enough());
  lock.unlock(); // the woken thread needs it at once
  if (is_due)
    ready_.notify_one();
  return appended;
}

void ReceiveBuffer::finish() {
  const std::lock_guard lock(mutex_);
  finished_ = true;
  ready_.notify_one();
}

void ReceiveBuffer::discard() {
  const std::lock_guard lock(mutex_);
  discarded_ = true;
  if (filling_)
    BlockPool::instance().give_back(std::move(filling_));
  ready_.notify_one();
}

std::optional<Data> ReceiveBuffer::take() {
  std::unique_lock lock(mutex_);
  const auto must_end = [this] { return finished_ || discarded_ || paused_; };
  const auto is_due = [&] { return must_end() || has_enough(); };
  // At full speed the next chunk arrives sooner than a new delivery could be scheduled.
  if (!has_bytes())
    ready_.wait_until(lock, Clock::now() + coalescing_delay, is_due);
  if (has_bytes())
    ready_.wait_until(lock, first_byte_ + coalescing_delay, is_due);
  if (has_bytes() && filling_->size < slow_flow_size)
    ready_.wait_until(lock, first_byte_ + slow_flow_delay, must_end);
  if (!has_bytes()) {
    delivering_ = false;
    return std::nullopt;
  }
  auto block = std::move(filling_);
  block->recycler = shared_from_this();
  resume_if_paused(lock);
  return Data(std::move(block));
}

void ReceiveBuffer::recycle(std::unique_ptr<Block> block) {
  BlockPool::instance().give_back(std::move(block));
  std::unique_lock lock(mutex_);
  --blocks_;
  resume_if_paused(lock);
}

void ReceiveBuffer::resume_if_paused(std::unique_lock<std::mutex>& lock) {
  // If there is no space, a block is in use, and this is called again when it is recycled.
  if (!paused_ || !(filling_ ? filling_->size < max_chunk_size
                             : blocks_ < BlockPool::instance().blocks_per_transfer()))
    return;
  paused_ = false;
  lock.unlock();
  on_space_();
}

} // namespace ravelin::platform
