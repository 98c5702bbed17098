#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

namespace ravelin::platform {

class BlockRecycler;

/// A byte buffer of fixed capacity, not zeroed.
struct Block {
  explicit Block(std::size_t capacity_in_bytes);
  /// Large blocks are mapped and unmapped directly. From the allocator they would end up between
  /// long-lived objects and stay resident after they are freed.
  struct Deleter {
    std::size_t mapped = 0; // bytes
    void operator()(std::byte* bytes) const;
  };
  std::unique_ptr<std::byte[], Deleter> bytes;
  std::size_t capacity;
  std::size_t size = 0;
  std::shared_ptr<BlockRecycler> recycler; // set while the block is in use
  // Atomic: a block is filled on one thread and often released on the write queue.
  std::atomic<int> references = 0;
};

/// Takes back blocks that are no longer used.
class BlockRecycler {
public:
  virtual ~BlockRecycler() = default;
  /// Any thread.
  virtual void recycle(std::unique_ptr<Block> block) = 0;
};

/// Immutable bytes, shared by reference count.
///
/// Threads: copies may be used on different threads.
class Data {
public:
  Data() = default;
  /// When the last copy is gone, `block` goes to its recycler, or is freed if it has none.
  explicit Data(std::unique_ptr<Block> block);
  static Data copy_of(std::string_view text);
  Data(const Data& other);
  Data(Data&& other) noexcept
      : block_(std::exchange(other.block_, nullptr)), begin_(other.begin_), size_(other.size_) {}
  Data& operator=(Data other) noexcept {
    std::swap(block_, other.block_);
    begin_ = other.begin_;
    size_ = other.size_;
    return *this;
  }
  ~Data();

  /// `size` bytes from `begin`, which must be within the bytes. Shares the block.
  Data part(std::size_t begin, std::size_t size) const;

  std::size_t size() const { return block_ ? size_ : 0; }
  std::span<const std::byte> bytes() const {
    return block_ ? std::span<const std::byte>(block_->bytes.get() + begin_, size_)
                  : std::span<const std::byte>();
  }
  std::string_view text() const {
    return {reinterpret_cast<const char*>(bytes().data()), bytes().size()};
  }

private:
  Block* block_ = nullptr;
  std::size_t begin_ = 0;
  std::size_t size_ = 0;
};

} // namespace ravelin::platform
