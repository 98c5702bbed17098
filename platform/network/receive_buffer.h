#pragma once

#include "platform/data.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string_view>

namespace ravelin::platform {

constexpr std::size_t max_read_size = 128 * 1024; // bytes; may still arrive after a pause

/// Collects the body of one task between the network thread and the delegate queue.
///
/// While one chunk is flushed, or handled if there are few transfers, the next one grows. When no
/// block has space the network thread pauses the transfer.
///
/// Threads: see each function. Ownership: shared; blocks in use keep it alive.
class ReceiveBuffer : public BlockRecycler, public std::enable_shared_from_this<ReceiveBuffer> {
public:
  /// `on_space` is called when a paused transfer may resume: on any thread, with no lock held.
  explicit ReceiveBuffer(std::function<void()> on_space);
  ~ReceiveBuffer() override;

  /// `wake_delegate`: taken; schedule one delivery. `full`: taken; pause until there is space.
  /// `no_space`: not taken; pause and append the same bytes again.
  enum class Appended { buffered, wake_delegate, full, no_space };
  /// Network thread.
  Appended append(std::string_view bytes);
  /// Network thread: no more bytes will come, so `take()` need not wait for any.
  void finish();
  /// Any thread: drops the bytes that were not taken, and all later ones.
  void discard();

  /// Delegate queue: the next chunk, or nothing, which ends the delivery. Waits for a larger chunk:
  /// a few milliseconds, or up to 0.3 s while bytes arrive slowly.
  std::optional<Data> take();

  void recycle(std::unique_ptr<Block> block) override;

private:
  using Clock = std::chrono::steady_clock;
  bool obtain_block();
  bool has_enough() const;
  bool has_bytes() const { return filling_ && filling_->size > 0; }
  void resume_if_paused(std::unique_lock<std::mutex>& lock);

  std::mutex mutex_; // used by the network thread, the delegate queue and writers
  std::condition_variable ready_;
  std::unique_ptr<Block> filling_;
  int blocks_ = 0; // `filling_` and those in use
  Clock::time_point first_byte_;
  bool delivering_ = false;
  bool paused_ = false;
  bool finished_ = false;
  bool discarded_ = false;
  const std::function<void()> on_space_;
};

} // namespace ravelin::platform
