#pragma once

#include "platform/data.h"

#include <chrono>
#include <mutex>
#include <vector>

namespace ravelin::platform {

constexpr std::size_t pool_block_size = 1024 * 1024; // bytes; those never touched cost nothing

/// The memory that bodies gather in, shared by all transfers of the process: the block that was
/// emptied last, which the processor's caches still hold, is filled next.
///
/// Threads: any. Ownership: one per process, never destroyed.
class BlockPool {
public:
  static BlockPool& instance();

  /// Counts the transfers that need blocks: as they leave, spare blocks go back to the system, but
  /// for a few that the next ones take.
  void join();
  void leave();
  /// For the `first` block of a transfer always, for a second one only while there is a spare.
  std::unique_ptr<Block> obtain(bool first);
  bool has_spare();
  void take_back(std::unique_ptr<Block> block);

  /// Notes what putting a chunk on storage took. Where that is little, small chunks do.
  void note_flush(std::chrono::nanoseconds time);
  bool has_slow_storage();

private:
  std::size_t most_free() const;
  bool storage_is_slow() const;
  bool spare_is_left() const;

  std::mutex mutex_; // blocks are obtained on the network thread and given back by writers
  std::size_t members_ = 0;
  std::size_t lent_ = 0;
  std::chrono::nanoseconds usual_flush_{0};
  std::vector<std::unique_ptr<Block>> free_; // the last one in is the first one out
};

} // namespace ravelin::platform
