#pragma once

#include "ravelin/lg_operation.h"
#include "ravelin/options.h"
#include "ravelin/response.h"
#include "ravelin/status.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace ravelin {

/// Downloads one link to one file, over one connection or several. It can be stopped at any time
/// and resumed later, by another object or process too.
///
/// Create it with `std::make_shared<RavelinOperation>()`, otherwise `resume(...)` throws
/// `std::logic_error`. The process must run its main queue (see `MainQueue`).
///
/// Threads: any. Off the main thread, a function waits for the main thread unless its comment says
/// otherwise.
/// Errors: reported by the final event.
/// Ownership: the application's; the library keeps a running operation alive, so dropping it does
/// not stop the download.
class [[gnu::visibility("default")]] RavelinOperation final : public LGOperation {
public:
  using Status = ravelin::Status;           ///< an event
  using State = ravelin::State;             ///< the state of an operation
  using Progress = ravelin::Progress;       ///< the progress of a download
  using CustomError = ravelin::CustomError; ///< why a download failed
  using OnConflict = ravelin::OnConflict;   ///< what to do if the destination exists

  /// Called on the main thread with each event of a run; the final event is the last call. Only
  /// `Status::files_are_created` comes on a background thread, possibly while the main thread is in
  /// the same callback. The callback is destroyed on the main thread. It may call any function of
  /// any operation, and restart this one on the final event. It must not run the main queue, and it
  /// must not throw: an exception terminates the process. May be empty.
  using StatusClosure = std::function<void(const Status&)>;

  /// Options that are not set are taken from the default options of the process.
  explicit RavelinOperation(Options options = {});
  ~RavelinOperation() override;

  /// Replaces the options, for runs that start later.
  void set_options(Options options);

  /// Starts a run and returns before anything is sent over the network.
  ///
  /// `link`: http or https. `dest_file`: made by `URL::file`; compared with other destinations
  /// exactly as given. `split_allowed`: use several connections if the server supports ranges. If a
  /// run is already in progress, this one fails: its callback gets one `Status::error`.
  void resume(const URL& link, const URL& dest_file, bool split_allowed, OnConflict on_conflict,
              StatusClosure status_closure);

  /// The current state.
  State state() const;

  /// The server's response to the header request of the current or last run; none before that.
  std::optional<Response> response() const;
  /// The speed of a download.
  struct Speed {
    double bytes_per_second = 0;              ///< over the last seconds; 0 if nothing arrives
    std::optional<std::chrono::seconds> left; ///< none if it cannot be estimated
  };
  /// The current speed and the estimated time left.
  Speed speed() const;

  /// The interval of the snap points as a fraction of the file; 0.1 by default. Not checked.
  float progress_snap_interval() const;
  /// Sets it.
  void set_progress_snap_interval(float interval);

  /// Maximum number of downloads that run at once; the others wait in order. 5 by default.
  static std::int64_t max_simultaneous_download_count();
  /// Sets it; below 1 means 1.
  static void set_max_simultaneous_download_count(std::int64_t count);

  /// The progress of a destination according to its resume record. Needs no operation; reads one
  /// small file on the calling thread.
  static Progress get_progress(const URL& dest_file);

  /// Which link a file came from. Only known for downloads with `Options::check_destination`.
  enum class Origin {
    unknown,    ///< nothing is noted at the file
    other_link, ///< another link
    same_path,  ///< a link that differs only in its query
    same_link,  ///< the same link
  };
  /// The state of a destination according to its files.
  struct FileState {
    bool exists = false;             ///< there is a file
    bool is_unfinished = false;      ///< it has a resume record or is marked as incomplete
    bool can_continue = false;       ///< the next run keeps what has been downloaded
    bool is_in_use = false;          ///< a download with `check_destination` is in progress
    Progress progress;               ///< according to the record
    Origin origin = Origin::unknown; ///< without a link: `other_link` if one is noted
    URL resume_file;                 ///< the path of the record, whether it exists or not
    std::string record_owner;        ///< another unfinished file that uses the record, or empty
  };
  /// Reads small files on the calling thread and changes nothing.
  static FileState get_file_state(const URL& dest_file, const URL& link = {});

  /// The path of the resume record of a destination. Destinations whose names differ only in the
  /// extension share a record: starting one while the other is interrupted destroys the record, and
  /// the other restarts from the beginning, unless `check_destination` refuses to start. Accesses
  /// no file.
  static URL get_resume_file(const URL& dest_file);

  /// Asks the run to stop and keeps its files. `Status::cancelling` is sent before this returns,
  /// the final `Status::cancelled` later. May be repeated. If the operation is idle, its next run
  /// is stopped before it sends a request.
  void cancel() override;
  /// Like `cancel()`, and deletes the files at the end; `Status::cancelled` tells whether it did.
  /// Nothing is deleted if the operation is idle or, with `check_destination`, if the files belong
  /// to another download.
  void cancel_and_clear_files();
  /// Cancels all operations that are running or waiting.
  static void cancel_all(bool also_clear_files);
  /// Deletes a destination and its resume record on the calling thread. The record stays if the
  /// file cannot be deleted or if another unfinished file needs it. Errors are ignored. Do not use
  /// it while the destination is being downloaded.
  static void clear_files(const URL& dest_file);

  class Impl; ///< internal

private:
  const std::unique_ptr<Impl> impl_;
};

} // namespace ravelin
