#pragma once

#include "platform/data.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string_view>

namespace ravelin::platform {

constexpr std::size_t longest_read = 128 * 1024; // bytes that may come before a pause takes effect

/// Where one task's body gathers between the network thread and the delegate's queue.
///
/// While the delegate is busy with a chunk, the next one grows; when both blocks are full, or the
/// pool has no second one to spare, the network thread is told to pause. Where flushes are slow,
/// chunks may grow larger.
///
/// Threads: each function says which. Ownership: shared; blocks on loan keep it alive.
class ReceiveBuffer : public BlockHome, public std::enable_shared_from_this<ReceiveBuffer> {
public:
  /// `on_room` is called, on any thread and without a lock, when a paused transfer may go on.
  explicit ReceiveBuffer(std::function<void()> on_room);
  ~ReceiveBuffer() override;

  /// `wake_delegate` asks for one run of the delivering job. `full`: the bytes were taken, but no
  /// more shall come before there is room; `no_room`: none of them were.
  enum class Appended { quietly, wake_delegate, full, no_room };
  /// Network thread: bytes of the body.
  Appended append(std::string_view bytes);
  /// Network thread: no more bytes come; what is there need not wait for company.
  void finish();
  /// Any thread: drops what nobody has taken, and everything that follows.
  void discard();

  /// The delegate's queue: the next chunk, or nothing, which ends the delivering job. Waits a
  /// moment for more bytes when there are only few.
  std::optional<Data> take();

  void take_back(std::unique_ptr<Block> block) override;

private:
  using Clock = std::chrono::steady_clock;
  bool obtain_block();
  /// Bytes that a chunk may have now.
  std::size_t most() const;
  bool has_enough() const;
  bool has_bytes() const { return filling_ && filling_->size > 0; }
  void resume_if_paused(std::unique_lock<std::mutex>& lock);

  std::mutex mutex_; // filled by the network thread, emptied by the delegate's, refilled by writers
  std::condition_variable grown_;
  std::unique_ptr<Block> filling_;
  bool storage_is_slow_ = false; // as of the last chunk
  int blocks_ = 0;               // filling or on loan
  Clock::time_point first_byte_;
  bool delivering_ = false;
  bool paused_ = false;
  bool finished_ = false;
  bool discarded_ = false;
  const std::function<void()> on_room_;
};

} // namespace ravelin::platform
