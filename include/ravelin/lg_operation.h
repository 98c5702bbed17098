#pragma once

#include <memory>

namespace ravelin {

/// The base of all operations: whether a run is in progress, and whether it was asked to stop.
///
/// Threads: any; each call is executed on the main thread. Called on another thread it waits, so
/// the main queue must be running.
class [[gnu::visibility("default")]] LGOperation
    : public std::enable_shared_from_this<LGOperation> {
public:
  LGOperation(); ///< idle and not cancelled
  virtual ~LGOperation() = default;
  LGOperation(const LGOperation&) = delete;
  LGOperation& operator=(const LGOperation&) = delete;

  /// Whether a run is in progress.
  virtual bool is_busy() const;

protected:
  /// Marks the operation as busy.
  virtual void activate();
  /// Marks the operation as idle and not cancelled.
  virtual void free();

public:
  /// Whether the run was asked to stop.
  virtual bool is_cancelled() const;
  /// Asks the current run to stop. If the operation is idle, its next run is stopped instead.
  virtual void cancel();

private:
  // Both belong to the main thread.
  bool _is_busy = false;
  bool _is_cancelled = false;
};

} // namespace ravelin
