#pragma once

#include <ravelin/main_queue.h>

#include <memory>

namespace ravelin {

/// Runs the main queue inside an Asio context for as long as this object lives. Its wait counts as
/// work: `run()` returns after `stop()`, or when this object has gone.
///
/// `Descriptor` is `asio::posix::stream_descriptor`, or the same class of Boost.
///
/// Threads: all of it belongs to the one thread that runs the context: the main thread.
/// Errors: an exception of queued work leaves through `run()`, which may be called again.
/// Ownership: goes before the context does.
template <class Descriptor> class AsioAdapter {
public:
  /// With the executor of a context.
  explicit AsioAdapter(const typename Descriptor::executor_type& executor)
      : descriptor_(std::make_shared<Descriptor>(executor, MainQueue::descriptor())) {
    wait(descriptor_);
  }
  /// With a context.
  template <class Context>
  requires requires(Context& context) { context.get_executor(); }
  explicit AsioAdapter(Context& context) : AsioAdapter(context.get_executor()) {}
  ~AsioAdapter() {
    descriptor_->release(); // the queue's own descriptor: not ours to close
  }
  AsioAdapter(const AsioAdapter&) = delete;
  AsioAdapter& operator=(const AsioAdapter&) = delete;

private:
  static void wait(const std::shared_ptr<Descriptor>& descriptor) {
    descriptor->async_wait(Descriptor::wait_read, [weak = std::weak_ptr(descriptor)](auto error) {
      const auto alive = weak.lock(); // a wait that has ended may still be delivered
      if (error || !alive)
        return;
      wait(alive); // first, for callbacks that throw or run the context themselves
      MainQueue::drain();
    });
  }

  std::shared_ptr<Descriptor> descriptor_;
};

} // namespace ravelin
