#pragma once

#include <ravelin/main_queue.h>

#include <QSocketNotifier>

namespace ravelin {

/// Runs the main queue inside the event loop of Qt for as long as this object lives.
///
/// Threads: made, used and destroyed on the thread whose loop is to run the queue: the main thread,
/// with its application object already there.
/// Errors: an exception of queued work cannot pass through Qt and ends the process.
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
