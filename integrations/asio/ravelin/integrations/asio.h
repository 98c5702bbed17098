#pragma once

#include <ravelin/main_queue.h>

#include <memory>

namespace ravelin {

/// Runs the main queue inside an Asio context while this object exists. It counts as work, so the
/// context's `run()` does not return before `stop()` or the destruction of this object.
///
/// `Descriptor` is `asio::posix::stream_descriptor`, or Boost's class of that name.
///
/// Threads: use it on the one thread that runs the context, which must be the main thread.
/// Errors: an exception of queued work leaves through `run()`, which may be called again.
/// Ownership: must be destroyed before the context.
template <class Descriptor> class AsioAdapter {
public:
  /// Takes an executor.
  explicit AsioAdapter(const typename Descriptor::executor_type& executor)
      : descriptor_(std::make_shared<Descriptor>(executor, MainQueue::descriptor())) {
    wait(descriptor_);
  }
  /// Takes a context.
  template <class Context>
  requires requires(Context& context) { context.get_executor(); }
  explicit AsioAdapter(Context& context) : AsioAdapter(context.get_executor()) {}
  ~AsioAdapter() {
    descriptor_->release(); // the queue owns it and must not see it closed
  }
  AsioAdapter(const AsioAdapter&) = delete;
  AsioAdapter& operator=(const AsioAdapter&) = delete;

private:
  static void wait(const std::shared_ptr<Descriptor>& descriptor) {
    descriptor->async_wait(Descriptor::wait_read, [weak = std::weak_ptr(descriptor)](auto error) {
      const auto alive = weak.lock(); // the handler may run after the adapter is destroyed
      if (error || !alive)
        return;
      wait(alive); // first, since callbacks may throw or run the context
      MainQueue::drain();
    });
  }

  std::shared_ptr<Descriptor> descriptor_;
};

} // namespace ravelin
