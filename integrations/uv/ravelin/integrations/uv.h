#pragma once

#include <ravelin/main_queue.h>

#include <memory>
#include <system_error>
#include <uv.h>

namespace ravelin {

/// Runs the main queue inside a libuv loop while this object exists, and keeps the loop alive.
///
/// Threads: use it on the thread that runs the loop, which must be the main thread.
/// Errors: the constructor throws if libuv refuses, such as a second adapter on one loop. An
/// exception of queued work cannot pass through libuv and terminates the process.
/// Ownership: must be destroyed before the loop, which must run once more to close the handle.
class UvAdapter {
public:
  /// `loop` must be initialized.
  explicit UvAdapter(uv_loop_t* loop) {
    auto poll = std::make_unique<uv_poll_t>();
    if (const int refused = uv_poll_init(loop, poll.get(), MainQueue::descriptor()))
      throw std::system_error(-refused, std::system_category(), "could not watch the main queue");
    poll_ = poll.release();
    uv_poll_start(poll_, UV_READABLE, [](uv_poll_t*, int, int) noexcept { MainQueue::drain(); });
  }
  ~UvAdapter() {
    uv_close(reinterpret_cast<uv_handle_t*>(poll_),
             [](uv_handle_t* handle) { delete reinterpret_cast<uv_poll_t*>(handle); });
  }
  UvAdapter(const UvAdapter&) = delete;
  UvAdapter& operator=(const UvAdapter&) = delete;

private:
  uv_poll_t* poll_;
};

} // namespace ravelin
