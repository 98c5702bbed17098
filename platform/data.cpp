#include "platform/data.h"

#include <algorithm>

namespace platform {

Block::Block(std::size_t capacity_in_bytes)
    : bytes(std::make_unique_for_overwrite<std::byte[]>(capacity_in_bytes)),
      capacity(capacity_in_bytes) {}

Data::Data(std::unique_ptr<Block> block) : block_(block.release()) {
  block_->holders.store(1, std::memory_order_relaxed);
}

Data Data::copy_of(std::string_view text) {
  auto block = std::make_unique<Block>(text.size());
  std::ranges::copy(std::as_bytes(std::span(text)), block->bytes.get());
  block->size = text.size();
  return Data(std::move(block));
}

Data::Data(const Data& other) : block_(other.block_) {
  if (block_)
    block_->holders.fetch_add(1, std::memory_order_relaxed);
}

Data::~Data() {
  if (!block_ || block_->holders.fetch_sub(1, std::memory_order_acq_rel) != 1)
    return;
  std::unique_ptr<Block> block(block_);
  if (const auto home = std::move(block->home))
    home->take_back(std::move(block));
}

} // namespace platform
