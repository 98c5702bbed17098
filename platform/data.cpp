#include "platform/data.h"

#include <algorithm>
#include <new>
#include <sys/mman.h>

namespace ravelin::platform {
namespace {

constexpr std::size_t large = 64 * 1024; // bytes

std::unique_ptr<std::byte[], Block::GivesBack> obtain(std::size_t size) {
  if (size < large)
    return {new std::byte[size], {}};
  void* const mapped =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED)
    throw std::bad_alloc();
  return {static_cast<std::byte*>(mapped), {size}};
}

} // namespace

Block::Block(std::size_t capacity_in_bytes)
    : bytes(obtain(capacity_in_bytes)), capacity(capacity_in_bytes) {}

void Block::GivesBack::operator()(std::byte* given) const {
  if (mapped > 0)
    munmap(given, mapped);
  else
    delete[] given;
}

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

} // namespace ravelin::platform
