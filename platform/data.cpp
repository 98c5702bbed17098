#include "platform/data.h"

#include "platform/fatal.h"

#include <algorithm>
#include <new>
#include <sys/mman.h>

namespace ravelin::platform {
namespace {

constexpr std::size_t mmap_threshold = 64 * 1024; // bytes

std::unique_ptr<std::byte[], Block::Deleter> allocate(std::size_t size) {
  if (size < mmap_threshold)
    return {new std::byte[size], {}};
  void* const mapped =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED)
    throw std::bad_alloc();
  return {static_cast<std::byte*>(mapped), {size}};
}

} // namespace

Block::Block(std::size_t capacity_in_bytes)
    : bytes(allocate(capacity_in_bytes)), capacity(capacity_in_bytes) {}

void Block::Deleter::operator()(std::byte* memory) const {
  if (mapped > 0)
    munmap(memory, mapped);
  else
    delete[] memory;
}

Data::Data(std::unique_ptr<Block> block) : block_(block.release()), size_(block_->size) {
  block_->references.store(1, std::memory_order_relaxed);
}

Data Data::copy_of(std::string_view text) {
  auto block = std::make_unique<Block>(text.size());
  std::ranges::copy(std::as_bytes(std::span(text)), block->bytes.get());
  block->size = text.size();
  return Data(std::move(block));
}

Data::Data(const Data& other) : block_(other.block_), begin_(other.begin_), size_(other.size_) {
  if (block_)
    block_->references.fetch_add(1, std::memory_order_relaxed);
}

Data Data::part(std::size_t begin, std::size_t size) const {
  if (begin > this->size() || size > this->size() - begin)
    fatal("a part of the bytes that is not within them");
  Data piece(*this);
  piece.begin_ += begin;
  piece.size_ = size;
  return piece;
}

Data::~Data() {
  if (!block_ || block_->references.fetch_sub(1, std::memory_order_acq_rel) != 1)
    return;
  std::unique_ptr<Block> block(block_);
  if (const auto recycler = std::move(block->recycler))
    recycler->recycle(std::move(block));
}

} // namespace ravelin::platform
