#include "platform/network/receive_buffer.h"

#include "platform/network/block_pool.h"

#include <cstring>
#include <utility>

namespace ravelin::platform {
namespace {

// A chunk costs hops between threads and a flush, so larger ones are cheaper; smaller ones need
// less memory and stay in the processor's caches.
constexpr std::size_t quick_chunk = 288 * 1024;                    // bytes
constexpr std::size_t slow_chunk = pool_block_size - longest_read; // bytes
constexpr auto gathering = std::chrono::milliseconds(5);
constexpr int most_blocks = 2;

} // namespace

ReceiveBuffer::ReceiveBuffer(std::function<void()> on_room) : on_room_(std::move(on_room)) {
  BlockPool::instance().join();
}

ReceiveBuffer::~ReceiveBuffer() {
  if (filling_) // a body that came whole before it was refused
    BlockPool::instance().take_back(std::move(filling_));
  BlockPool::instance().leave();
}

std::size_t ReceiveBuffer::most() const {
  return storage_is_slow_ ? slow_chunk : quick_chunk;
}

bool ReceiveBuffer::has_enough() const {
  return has_bytes() && filling_->size >= most() / 8 * 7;
}

bool ReceiveBuffer::obtain_block() {
  if (!filling_ && blocks_ < most_blocks) {
    filling_ = BlockPool::instance().obtain(blocks_ == 0);
    blocks_ += filling_ != nullptr;
  }
  return filling_ != nullptr;
}

ReceiveBuffer::Appended ReceiveBuffer::append(std::string_view bytes) {
  std::unique_lock lock(mutex_);
  if (discarded_)
    return Appended::quietly;
  if (!obtain_block() || filling_->size + bytes.size() > filling_->capacity) {
    paused_ = true;
    return Appended::no_room;
  }
  const bool had_enough = has_enough();
  if (filling_->size == 0)
    first_byte_ = Clock::now();
  std::memcpy(filling_->bytes.get() + filling_->size, bytes.data(), bytes.size());
  filling_->size += bytes.size();
  if (!std::exchange(delivering_, true))
    return Appended::wake_delegate;
  paused_ = paused_ || filling_->size >= most();
  const auto appended = paused_ ? Appended::full : Appended::quietly;
  const bool grown = !had_enough && has_enough();
  lock.unlock(); // who is woken needs it at once
  if (grown)
    grown_.notify_one();
  return appended;
}

void ReceiveBuffer::finish() {
  const std::lock_guard lock(mutex_);
  finished_ = true;
  grown_.notify_one();
}

void ReceiveBuffer::discard() {
  const std::lock_guard lock(mutex_);
  discarded_ = true;
  if (filling_)
    BlockPool::instance().take_back(std::move(filling_));
  grown_.notify_one();
}

std::optional<Data> ReceiveBuffer::take() {
  std::unique_lock lock(mutex_);
  storage_is_slow_ = BlockPool::instance().has_slow_storage();
  const auto is_due = [this] { return finished_ || discarded_ || paused_ || has_enough(); };
  // At full speed the next chunk is there before a thread could have gone to sleep and come back.
  if (!has_bytes())
    grown_.wait_until(lock, Clock::now() + gathering, is_due);
  if (has_bytes())
    grown_.wait_until(lock, first_byte_ + gathering, is_due);
  if (!has_bytes()) {
    delivering_ = false;
    return std::nullopt;
  }
  auto block = std::move(filling_);
  block->home = shared_from_this();
  resume_if_paused(lock);
  return Data(std::move(block));
}

void ReceiveBuffer::take_back(std::unique_ptr<Block> block) {
  BlockPool::instance().take_back(std::move(block));
  std::unique_lock lock(mutex_);
  --blocks_;
  resume_if_paused(lock);
}

void ReceiveBuffer::resume_if_paused(std::unique_lock<std::mutex>& lock) {
  const auto may_have_block = [this] {
    return blocks_ == 0 || (blocks_ < most_blocks && BlockPool::instance().has_spare());
  };
  // Without room one of its blocks is on loan, and this is called again when that comes back.
  if (!paused_ || !(filling_ ? filling_->size < most() : may_have_block()))
    return;
  paused_ = false;
  lock.unlock();
  on_room_();
}

} // namespace ravelin::platform
