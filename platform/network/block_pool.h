#pragma once

#include "platform/data.h"

#include <mutex>
#include <vector>

namespace ravelin::platform {

constexpr std::size_t pool_block_size = 768 * 1024; // bytes; untouched pages cost nothing

/// The receive blocks of all transfers of the process. The block freed last, which is still in the
/// processor's caches, is reused first.
///
/// Threads: any. Ownership: one per process, never destroyed.
class BlockPool {
public:
  static BlockPool& instance();

  /// Each transfer joins and leaves. Free blocks that the remaining ones do not need are returned
  /// to the system, except for a few.
  void join();
  void leave();
  /// Two while there are few transfers: one block is filled while the other is on its way to the
  /// file. With more of them, others are filled meanwhile.
  int blocks_per_transfer();
  std::unique_ptr<Block> obtain();
  void give_back(std::unique_ptr<Block> block);

private:
  std::size_t max_free() const;

  std::mutex mutex_; // the network thread obtains blocks, writers give them back
  std::size_t members_ = 0;
  std::vector<std::unique_ptr<Block>> free_; // last in, first out
};

} // namespace ravelin::platform
