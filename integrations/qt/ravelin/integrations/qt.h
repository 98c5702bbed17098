#pragma once

#include <ravelin/main_queue.h>

#include <QSocketNotifier>

namespace ravelin {

/// Runs the main queue inside Qt's event loop while this object exists.
///
/// Threads: use it on the thread that runs the loop, which must be the main thread. Create it after
/// the application object.
/// Errors: an exception of queued work cannot pass through Qt and terminates the process.
class QtAdapter {
public:
  QtAdapter() : notifier_(MainQueue::descriptor(), QSocketNotifier::Read) {
    QObject::connect(&notifier_, &QSocketNotifier::activated,
                     []() noexcept { MainQueue::drain(); });
  }

private:
  QSocketNotifier notifier_;
};

} // namespace ravelin
