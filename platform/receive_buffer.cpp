#include "platform/receive_buffer.h"

#include <cstring>

namespace platform {
namespace {

constexpr std::size_t block_size = 1024 * 1024;    // bytes; a chunk costs two hops and a flush
constexpr std::size_t enough = block_size / 8 * 7; // bytes that need not wait for more
constexpr auto gathering = std::chrono::milliseconds(5);
constexpr int most_blocks = 2;

} // namespace

ReceiveBuffer::ReceiveBuffer(std::function<void()> on_room) : on_room_(std::move(on_room)) {}

bool ReceiveBuffer::obtain_block() {
  if (filling_)
    return true;
  if (spare_) {
    filling_ = std::move(spare_);
  } else if (blocks_ < most_blocks) {
    filling_ = std::make_unique<Block>(block_size);
    ++blocks_;
  }
  return filling_ != nullptr;
}

ReceiveBuffer::Appended ReceiveBuffer::append(std::string_view bytes) {
  const std::lock_guard lock(mutex_);
  if (discarded_)
    return Appended::quietly;
  if (!obtain_block() || filling_->size + bytes.size() > filling_->capacity) {
    paused_ = true;
    return Appended::no_room;
  }
  const auto before = filling_->size;
  std::memcpy(filling_->bytes.get() + before, bytes.data(), bytes.size());
  filling_->size += bytes.size();
  if (before == 0)
    first_byte_ = std::chrono::steady_clock::now();
  if (delivering_) {
    if (before < enough && filling_->size >= enough)
      grown_.notify_one();
    return Appended::quietly;
  }
  delivering_ = true;
  return Appended::wake_delegate;
}

void ReceiveBuffer::finish() {
  const std::lock_guard lock(mutex_);
  finished_ = true;
  grown_.notify_one();
}

void ReceiveBuffer::discard() {
  const std::lock_guard lock(mutex_);
  discarded_ = true;
  filling_.reset();
  spare_.reset();
  grown_.notify_one();
}

std::optional<Data> ReceiveBuffer::take() {
  std::unique_lock lock(mutex_);
  if (filling_ && filling_->size > 0)
    grown_.wait_until(lock, first_byte_ + gathering, [this] {
      return finished_ || discarded_ || filling_->size >= enough || paused_;
    });
  if (!filling_ || filling_->size == 0) {
    delivering_ = false;
    return std::nullopt;
  }
  auto block = std::move(filling_);
  block->home = shared_from_this();
  resume_if_paused(lock);
  return Data(std::move(block));
}

void ReceiveBuffer::take_back(std::unique_ptr<Block> block) {
  block->size = 0;
  std::unique_lock lock(mutex_);
  if (discarded_)
    return;
  (spare_ ? filling_ : spare_) = std::move(block); // both may come home before either is needed
  resume_if_paused(lock);
}

void ReceiveBuffer::resume_if_paused(std::unique_lock<std::mutex>& lock) {
  if (!paused_ || (!filling_ && !spare_ && blocks_ == most_blocks))
    return;
  paused_ = false;
  lock.unlock();
  on_room_();
}

} // namespace platform
