#pragma once

#include <memory>

namespace ravelin {

/// What all operations share: whether one is under way, and whether it has been asked to stop.
///
/// Threads: any; each call runs on the main thread and waits for it. Off the main thread that
/// needs a main queue that is being run.
class [[gnu::visibility("default")]] LGOperation
    : public std::enable_shared_from_this<LGOperation> {
public:
  LGOperation();
  virtual ~LGOperation() = default;
  LGOperation(const LGOperation&) = delete;
  LGOperation& operator=(const LGOperation&) = delete;

  /// Whether a run is under way.
  virtual bool is_busy() const;
  /// Whether it has been asked to stop.
  virtual bool is_cancelled() const;
  /// Asks the work under way to stop. On an idle operation the request waits for the next run.
  virtual void cancel();

protected:
  /// Begins a run.
  virtual void activate();
  /// Ends a run. Forgets a request to stop, too.
  virtual void free();

private:
  bool _is_busy = false; // the main thread's, as the other one
  bool _is_cancelled = false;
};

} // namespace ravelin
