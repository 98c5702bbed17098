#pragma once

#include "ravelin/lg_operation.h"
#include "ravelin/status.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace ravelin {

/// Downloads one link to one file, whole or in five parts side by side; can be stopped at any
/// moment and continued later, by this object or another, in this process or another.
///
/// Make it with `std::make_shared<RavelinOperation>()`; `resume(...)` throws `std::logic_error`
/// on an object made otherwise. The process must run its main queue (see `MainQueue`).
///
/// Threads: every function may be called from any thread; off the main thread a call waits until
/// the main thread has done its part.
/// Errors: reported through the status callback, as the final event.
/// Ownership: the application's; the library holds the operation, too, while it runs, so it may be
/// dropped in the middle of a download, which then goes on.
class [[gnu::visibility("default")]] RavelinOperation final : public LGOperation {
public:
  using Status = ravelin::Status;           ///< what the callback is told
  using State = ravelin::State;             ///< where an operation stands
  using Progress = ravelin::Progress;       ///< how far it has come
  using CustomError = ravelin::CustomError; ///< why it failed
  using OnConflict = ravelin::OnConflict;   ///< what becomes of a file that is there

  /// Called on the main thread, `Status::files_are_created` excepted, until after a final event;
  /// never after it for the same run. `files_are_created` may come while the main thread is inside
  /// the same callback; what the callback holds is let go of on the main thread. It must not run
  /// the main queue itself. It may call any function of any operation, and start this
  /// one again when the event is final. It must not throw: an exception that leaves it ends the
  /// process through `std::terminate`. May be empty.
  using StatusClosure = std::function<void(const Status&)>;

  RavelinOperation();
  ~RavelinOperation() override;

  /// Starts, or starts again, and returns before anything is sent over the network.
  ///
  /// `link`: http or https. `dest_file`: made by `URL::file`; compared with other destinations
  /// exactly as given. `split_allowed`: five connections where the server offers ranges. While a
  /// run of this operation is under way a second one is refused: its callback gets one
  /// `Status::error`, and the run under way is not touched.
  void resume(const URL& link, const URL& dest_file, bool split_allowed, OnConflict on_conflict,
              StatusClosure status_closure);

  /// Where it stands now.
  State state() const;

  /// Spacing of the snap points in parts of the whole; 0.1 unless set. Not checked.
  float progress_snap_interval() const;
  /// Sets it.
  void set_progress_snap_interval(float interval);

  /// How many downloads run at once; the others wait in order. 5 unless set, never below 1.
  static std::int64_t max_simultaneous_download_count();
  /// Sets it; less than 1 means 1.
  static void set_max_simultaneous_download_count(std::int64_t count);

  /// How far the destination has come by its resume record, without an operation. Reads one small
  /// file on the calling thread.
  static Progress get_progress(const URL& dest_file);

  /// Asks the run to stop and keeps its files. `Status::cancelling` comes before this returns, the
  /// final `Status::cancelled` later. May be repeated. On an operation that does not run it stops
  /// the next run before anything is asked of the server.
  void cancel() override;
  /// The same, and deletes the files at the end.
  void cancel_and_clear_files();
  /// Does so to every operation that runs or waits.
  static void cancel_all(bool also_clear_files);
  /// Deletes a destination and its resume record; errors are dropped. Not for a destination that
  /// is being downloaded.
  static void clear_files(const URL& dest_file);

  class Impl; ///< the library's own, in src/

private:
  const std::unique_ptr<Impl> impl_;
};

} // namespace ravelin
