#pragma once

#include "ravelin/lg_operation.h"
#include "ravelin/status.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

namespace platform {
class Data;
class AsyncSemaphore;
class Semaphore;
} // namespace platform

namespace bramblekit {
class OwnWork;
class StopWatch;
} // namespace bramblekit

namespace ravelin {

class FileProcessor;
class HeaderOpr;
class PartialDataOpr;
struct ContentVersion;

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

private:
  friend class FileProcessor; // sends `files_are_created`

  struct MainFileState {
    struct not_existing {};
    struct complete {};
    struct incomplete {};
    struct busy {
      std::shared_ptr<RavelinOperation> opr;
    };
    std::variant<not_existing, complete, incomplete, busy> value;
  };

  /// One call of `resume`, and what came of claiming the destination.
  struct Run {
    URL link;
    URL destination;
    bool split_allowed;
    StatusClosure status_closure;
    std::optional<Error> claim_error;
    bool is_complete;
  };

  // The public flow.
  void start_flow(Run run);
  void bg_run(Run run) BG_ONLY;
  std::optional<Error> bg_outcome(const Run& run) BG_ONLY;
  void complete(std::optional<Error> outcome, Run run) noexcept MAIN_ONLY;
  void refuse(const StatusClosure& status_closure);
  static CustomError make_custom_error(const Error& from);
  void report(State new_state, const Status& status) MAIN_ONLY;
  static void send(const StatusClosure& closure, const Status& status) noexcept;
  std::shared_ptr<RavelinOperation> self();

  // Claiming the destination.
  void special_activate(URL & dest_file, OnConflict on_conflict);
  void setup_active_opr(URL & url, OnConflict on_conflict);
  void claim_for(URL & url, OnConflict on_conflict) MAIN_ONLY;
  void claim(const URL& url) MAIN_ONLY;
  void wait_for_identical(RavelinOperation & other, const URL& url) MAIN_ONLY;
  void wait_for_identical_or_claim_anew(RavelinOperation & other, URL & url, OnConflict on_conflict)
      MAIN_ONLY;
  void refuse_claim(const char* message, std::int64_t line) MAIN_ONLY;
  bool rename_dest_file(URL & url) MAIN_ONLY;
  bool delete_files(const URL& url) MAIN_ONLY;
  static MainFileState get_main_file_state(const URL& url) MAIN_ONLY;
  static std::shared_ptr<RavelinOperation> get_active_opr(const URL& url) MAIN_ONLY;
  static void add_active_opr(std::shared_ptr<RavelinOperation> opr, const URL& url) MAIN_ONLY;
  static void remove_active_opr(const URL& url) MAIN_ONLY;
  static bool is_download_limit_reached() MAIN_ONLY;
  void handle_pending(Run run) noexcept MAIN_ONLY;
  void take_turn(Run run) noexcept MAIN_ONLY;
  void special_free(const URL& dest_file);
  void finalize_active_opr(const URL& url);
  void stop_waiting() MAIN_ONLY;
  static std::map<URL, std::shared_ptr<RavelinOperation>>& active_oprs_dict() MAIN_ONLY;
  static std::vector<std::shared_ptr<RavelinOperation>>& active_oprs_ary() MAIN_ONLY;

  // The transfer.
  void bg_request_http_header(const URL& link) BG_ONLY;
  void bg_start_connections(const URL& link, const URL& dest_file, bool split_allowed) BG_ONLY;
  bool bg_prepare_files(const URL& dest_file, bool split_allowed) BG_ONLY;
  void reject_changed_content() MAIN_ONLY;
  void start_parts(const URL& link, bool should_split, bramblekit::OwnWork& own_part) MAIN_ONLY;
  void start_download(const URL& link, std::int64_t part_index, bool use_range,
                      bramblekit::OwnWork& own_part) MAIN_ONLY;
  void did_receive_data(std::int64_t part_index, const platform::Data& data) MAIN_ONLY;
  Progress advance_progress() MAIN_ONLY;
  void bg_after_receive_data(PartialDataOpr & opr) BG_ONLY;
  void end_part(const std::shared_ptr<PartialDataOpr>& opr) MAIN_ONLY;
  void finish_files() MAIN_ONLY;
  void save_what_came() noexcept MAIN_ONLY;

  State state_ MAIN_STATE;
  bool is_header_received MAIN_STATE = false;
  bool ranges_accepted MAIN_STATE = false;
  std::optional<std::int64_t> content_len MAIN_STATE; // bytes
  std::string server_side_date MAIN_STATE;
  std::unique_ptr<ContentVersion> probed_version MAIN_STATE; // null until the header has come
  // Made by the background flow before any request starts; every reader is reached from there
  // through a hop to the main thread.
  std::shared_ptr<FileProcessor> file_proc;
  std::unique_ptr<bramblekit::StopWatch> watch MAIN_STATE;
  const std::int64_t split_count = 5;
  std::shared_ptr<platform::Semaphore> data_opr_sema MAIN_STATE;
  std::optional<Error> download_exception MAIN_STATE;
  bool download_started MAIN_STATE = false;
  float last_progress_snap_point MAIN_STATE = 0.0F;
  float progress_snap_interval_ MAIN_STATE = 0.1F;
  std::shared_ptr<HeaderOpr> header_opr MAIN_STATE;
  std::set<std::shared_ptr<PartialDataOpr>> partial_data_oprs MAIN_STATE;
  std::shared_ptr<RavelinOperation> pending_identical_opr MAIN_STATE;
  // Set on the main thread before a run's background flow begins and cleared after it has ended.
  StatusClosure stat_closure;
  bool should_clear_files MAIN_STATE = false;
  bool main_file_is_already_complete MAIN_STATE = false;
  std::optional<Error> error_during_activation MAIN_STATE;
  bool opr_has_never_been_added_to_active_list MAIN_STATE = false;
  std::shared_ptr<platform::AsyncSemaphore> pending_sema MAIN_STATE;
  bool is_pending_for_identical_opr MAIN_STATE = false;
};

} // namespace ravelin
