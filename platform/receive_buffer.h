#pragma once

#include "platform/data.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string_view>

namespace platform {

/// Where one task's body gathers between the network thread and the delegate's queue.
///
/// While the delegate is busy with a chunk, the next one grows; when two blocks are full the
/// network thread is told to pause. Blocks are used again.
///
/// Threads: each function says which. Ownership: shared; blocks on loan keep it alive.
class ReceiveBuffer : public BlockHome, public std::enable_shared_from_this<ReceiveBuffer> {
public:
  /// `on_room` is called, on any thread and without a lock, when a paused transfer may go on.
  explicit ReceiveBuffer(std::function<void()> on_room);

  enum class Appended { quietly, wake_delegate, no_room };
  /// Network thread: all of `bytes`, or none of them if there is no room. `wake_delegate` asks
  /// for one run of the delivering job.
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
  bool obtain_block();
  void resume_if_paused(std::unique_lock<std::mutex>& lock);

  std::mutex mutex_; // filled by the network thread, emptied by the delegate's, refilled by writers
  std::condition_variable grown_;
  std::unique_ptr<Block> filling_;
  std::unique_ptr<Block> spare_;
  int blocks_ = 0;
  std::chrono::steady_clock::time_point first_byte_;
  bool delivering_ = false;
  bool paused_ = false;
  bool finished_ = false;
  bool discarded_ = false;
  const std::function<void()> on_room_;
};

} // namespace platform
