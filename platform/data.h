#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

namespace ravelin::platform {

/// Takes blocks back whose bytes nobody needs any more.
class BlockHome;

/// A run of bytes of fixed capacity, never zeroed by us.
struct Block {
  explicit Block(std::size_t capacity_in_bytes);
  /// Large ones come straight from the system and are given back to it: kept by the allocator, they
  /// would lie between what lives long and stay resident.
  struct GivesBack {
    std::size_t mapped = 0; // bytes
    void operator()(std::byte* bytes) const;
  };
  std::unique_ptr<std::byte[], GivesBack> bytes;
  std::size_t capacity;
  std::size_t size = 0;
  std::shared_ptr<BlockHome> home; // set while the block is lent out
  // The last holder may be the write queue while the first is a delegate's thread.
  std::atomic<int> holders = 0;
};

class BlockHome {
public:
  virtual ~BlockHome() = default;
  /// Any thread.
  virtual void take_back(std::unique_ptr<Block> block) = 0;
};

/// Bytes that are shared, not copied, and never change.
///
/// Threads: an ordinary value; copies may be used on different threads.
class Data {
public:
  Data() = default;
  /// Lends `block` out; it goes home when the last copy is gone, or is freed if it has no home.
  explicit Data(std::unique_ptr<Block> block);
  static Data copy_of(std::string_view text);
  Data(const Data& other);
  Data(Data&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  Data& operator=(Data other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~Data();

  std::size_t size() const { return block_ ? block_->size : 0; }
  std::span<const std::byte> bytes() const {
    return block_ ? std::span<const std::byte>(block_->bytes.get(), block_->size)
                  : std::span<const std::byte>();
  }
  std::string_view text() const {
    return {reinterpret_cast<const char*>(bytes().data()), bytes().size()};
  }

private:
  Block* block_ = nullptr;
};

} // namespace ravelin::platform
