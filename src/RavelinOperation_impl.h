#pragma once

#include "bramblekit/background.h"
#include "bramblekit/stop_watch.h"
#include "platform/data.h"
#include "platform/network/retry_wait.h"
#include "platform/threads/semaphore.h"
#include "platform/threads/thread_annotations.h"
#include "ravelin/ravelin_operation.h"
#include "src/ContentVersion.h"
#include "src/DestinationLock.h"
#include "src/FileProcessor.h"
#include "src/HeaderOpr.h"
#include "src/PartSchedule.h"
#include "src/PartialDataOpr.h"
#include "src/RetryPolicy.h"
#include "src/SpeedMeter.h"
#include "src/Splitting.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

namespace ravelin {

/// Whether content of `length` bytes, if known, is downloaded in parts.
bool can_split(bool split_allowed, bool ranges_accepted, std::optional<std::int64_t> length,
               const Options& options);

/// The implementation of an operation.
///
/// Threads: fields and functions belong to the main thread unless they are marked otherwise.
/// Errors: thrown, and passed to `complete`, which turns them into the final event.
/// Ownership: the operation's; background work keeps the operation alive.
class RavelinOperation::Impl {
public:
  static constexpr double save_interval = 0.1; // seconds between saves of the record
  /// Further requests to a server that is nearer are answered at once, and closing the connection
  /// in the middle of large content would cost more than it gives.
  static constexpr auto far_response_time = std::chrono::milliseconds(50);
  /// Bytes. More is not worth waiting to see how fast one response is.
  static constexpr std::int64_t max_one_response = 8 * 1024 * 1024;

  Impl(RavelinOperation& operation, Options its_options)
      : opr(operation),
        own_options(platform::with_functions_freed_on_main(std::move(its_options))) {}
  static Impl& of(RavelinOperation& operation) { return *operation.impl_; }

  /// One call of `resume`, and the result of claiming the destination.
  struct Run {
    URL link;
    URL destination;
    bool split_allowed;
    std::shared_ptr<StatusClosure> status_closure;
    std::optional<Error> claim_error;
    bool is_complete;
    bool must_restart; // replace existing files once the server has answered
    platform::Links links = platform::Links::followed;
    bool is_compared = false;   // what is there was found at the link by comparing
    bool has_content = false;   // has begun the content, or checked what was there of it
    bool is_begun_here = false; // nothing is there that an earlier run received
  };

  // The public flow.
  void resume(const URL& link, const URL& dest_file, bool split_allowed, OnConflict on_conflict,
              StatusClosure status_closure) MAIN_ONLY;
  void start_flow(Run run);
  void bg_run(Run run) BG_ONLY;
  std::optional<Error> bg_outcome(Run& run) BG_ONLY;
  void complete(std::optional<Error> outcome, Run run) noexcept MAIN_ONLY;
  static void refuse(StatusClosure status_closure);
  void report(State new_state, const Status& status) MAIN_ONLY;
  /// For the one event that is sent on a background thread.
  void report_off_main(const Status& status) const { send(stat_closure, status); }
  static void send(const std::shared_ptr<StatusClosure>& closure, const Status& status) noexcept;
  std::shared_ptr<RavelinOperation> self() const;

  // Claiming the destination.
  struct MainFileState {
    struct not_existing {};
    struct complete {};
    struct incomplete {};
    struct busy {
      std::shared_ptr<RavelinOperation> opr;
    };
    std::variant<not_existing, complete, incomplete, busy> value;
  };
  void special_activate(URL& dest_file, OnConflict on_conflict);
  void setup_active_opr(URL& url, OnConflict on_conflict);
  void claim_for(URL& url, OnConflict on_conflict) MAIN_ONLY;
  void claim(const URL& url) MAIN_ONLY;
  void wait_for_identical(Impl& other, const URL& url) MAIN_ONLY;
  void wait_for_identical_or_claim_again(RavelinOperation& other, URL& url, OnConflict on_conflict)
      MAIN_ONLY;
  void refuse_claim(const char* message, std::int64_t line) MAIN_ONLY;
  bool rename_dest_file(URL& url) MAIN_ONLY;
  bool delete_files(const URL& url) MAIN_ONLY;
  static MainFileState get_main_file_state(const URL& url) MAIN_ONLY;
  static std::shared_ptr<RavelinOperation> get_active_opr(const URL& url) MAIN_ONLY;
  static void add_active_opr(std::shared_ptr<RavelinOperation> opr, const URL& url) MAIN_ONLY;
  static void remove_active_opr(const URL& url) MAIN_ONLY;
  static bool is_download_limit_reached() MAIN_ONLY;
  void handle_pending(Run run) noexcept MAIN_ONLY;
  void start_after_wait(Run run) noexcept MAIN_ONLY;
  void special_free(const URL& dest_file);
  void finalize_active_opr(const URL& url);
  void stop_waiting() MAIN_ONLY;
  static std::map<URL, std::shared_ptr<RavelinOperation>>& active_oprs_dict() MAIN_ONLY;
  static std::vector<std::shared_ptr<RavelinOperation>>& active_oprs_ary() MAIN_ONLY;

  // Attempts.
  void bg_download(Run& run) BG_ONLY;
  Remedy judge(RetryPolicy& policy, const Error& error, const Run& run, bool split) MAIN_ONLY;
  void bg_wait_to_retry(std::chrono::milliseconds time) BG_ONLY;
  void log(const std::string& line) const noexcept MAIN_ONLY;

  using HeldResponse = std::unique_ptr<platform::HeldResponse>;

  // Checking the files at the destination.
  static bool remove_marks(const URL& file);
  bool checks_destination() const;
  void bg_lock_destination(Run& run) BG_ONLY;
  static void bg_refuse_foreign_files(Run& run) BG_ONLY;
  bool bg_is_complete(const Run& run) BG_ONLY;
  void bg_check_unfinished(Run& run, bool split_allowed, HeldResponse& held_response) BG_ONLY;
  void bg_compare_with_own_link(Run& run, const ResumeData& record, HeldResponse& held_response)
      BG_ONLY;
  std::optional<std::string> bg_compare(Run& run, const ResumeData& record,
                                        HeldResponse& held_response) BG_ONLY;
  std::string bg_request_bytes(const URL& link, const platform::BytesRange& range) BG_ONLY;
  bool must_restart(const Run& run) const;
  bool keeps_unfinished(const Run& run) const;
  bool may_clear(const Run& run) const MAIN_ONLY;
  void check_finished_file() const MAIN_ONLY;

  // The transfer.
  HeaderOpr::HoldsResponse responses_to_hold(const Run& run, bool split_allowed) const MAIN_ONLY;
  HeldResponse bg_request_http_header(const Run& run, bool split_allowed) BG_ONLY;
  void bg_start_connections(Run& run, bool split_allowed, HeldResponse held_response) BG_ONLY;
  bool bg_prepare_files(Run& run, bool split_allowed) BG_ONLY;
  void check_content(Run& run) MAIN_ONLY;
  void save_if_behind() MAIN_ONLY;
  bool finish_files() MAIN_ONLY;
  void save_received() noexcept MAIN_ONLY;

  // The parts of the transfer.
  void start_parts(const URL& link, bool should_split, HeldResponse held_response) MAIN_ONLY;
  bool whole_ends_soon() const MAIN_ONLY;
  void start_waiting_parts(const URL& link) MAIN_ONLY;
  bool lacks_bytes(std::int64_t part_index) const MAIN_ONLY;
  std::shared_ptr<PartialDataOpr> new_request() MAIN_ONLY;
  void start_download(const URL& link, std::int64_t part_index, bool use_range,
                      HeldResponse held_response = nullptr) MAIN_ONLY;
  void handle_part_event(const URL& link, std::int64_t part_index,
                         const std::shared_ptr<PartialDataOpr>& request,
                         const PartialDataOpr::Status& event) MAIN_ONLY;
  void did_receive_data(std::int64_t part_index, const platform::Data& data) MAIN_ONLY;
  void did_receive_whole(const platform::Data& data, const std::shared_ptr<PartialDataOpr>& request)
      MAIN_ONLY;
  bool go_on_with_next_part(const std::shared_ptr<PartialDataOpr>& request) MAIN_ONLY;
  ResumeData::Part& record_of_part(std::int64_t index) const MAIN_ONLY;
  Progress advance_progress() MAIN_ONLY;
  void bg_after_receive_data(PartialDataOpr& request) BG_ONLY;
  bool requeue_part(const URL& link, std::int64_t part_index,
                    const std::shared_ptr<PartialDataOpr>& request, const Error& error) MAIN_ONLY;
  void replace_slow_part() MAIN_ONLY;
  void start_late_parts(const URL& link) MAIN_ONLY;
  void end_transfer_without_requests() MAIN_ONLY;
  void end_part(const URL& link, std::int64_t part_index,
                const std::shared_ptr<PartialDataOpr>& request) MAIN_ONLY;

  // Cancellation.
  void cancel() MAIN_ONLY;

  RavelinOperation& opr;
  Options own_options MAIN_STATE;
  // Fixed when a run starts; read by its background flow.
  std::shared_ptr<const platform::RequestSettings> settings;
  State state MAIN_STATE{State::none{}};
  bool is_header_received MAIN_STATE = false;
  bool ranges_accepted MAIN_STATE = false;
  std::optional<std::int64_t> content_len MAIN_STATE; // bytes
  std::string server_side_date MAIN_STATE;
  ContentVersion probed_version MAIN_STATE;
  std::optional<Response> response MAIN_STATE;
  // Set by the background flow before it starts a request, which it does through the main thread.
  std::shared_ptr<FileProcessor> file_proc;
  bramblekit::StopWatch watch MAIN_STATE;
  std::int64_t unsaved_bytes MAIN_STATE = 0; // arrived since the last save was queued
  SpeedMeter speed_meter MAIN_STATE;
  PartSchedule parts MAIN_STATE;
  // Takes the content of a split download from the response to the header request.
  std::shared_ptr<PartialDataOpr> whole_request MAIN_STATE;
  bramblekit::StopWatch whole_watch MAIN_STATE;  // since that request was started
  std::int64_t whole_received MAIN_STATE = 0;    // bytes
  std::int64_t reached_part MAIN_STATE = 0;      // by that request
  bool one_at_a_time MAIN_STATE = false;         // the server has refused all parts more than once
  std::optional<Error> holding_error MAIN_STATE; // the server's wish to wait before more requests
  std::shared_ptr<platform::RetryWait> retry_wait MAIN_STATE; // while waiting to retry
  std::unique_ptr<DestinationLock> destination_lock; // belongs to the background flow while it runs
  const std::int64_t split_count = parts_when_split;
  std::shared_ptr<platform::Semaphore> data_opr_sema MAIN_STATE;
  std::optional<Error> download_exception MAIN_STATE;
  bool download_started MAIN_STATE = false;
  float last_progress_snap_point MAIN_STATE = 0.0F;
  float progress_snap_interval MAIN_STATE = 0.1F;
  std::shared_ptr<HeaderOpr> header_opr MAIN_STATE;
  std::set<std::shared_ptr<PartialDataOpr>> partial_data_oprs MAIN_STATE;
  std::shared_ptr<RavelinOperation> pending_identical_opr MAIN_STATE;
  // Set on the main thread before the background flow of a run starts, cleared after it has ended.
  std::shared_ptr<StatusClosure> stat_closure; // not copied, since it may have state
  bool should_clear_files MAIN_STATE = false;
  bool main_file_is_already_complete MAIN_STATE = false;
  bool must_replace MAIN_STATE = false; // the run must delete the old files
  std::optional<Error> error_during_activation MAIN_STATE;
  bool opr_has_never_been_added_to_active_list MAIN_STATE = false;
  std::shared_ptr<platform::OneShotEvent> pending_sema MAIN_STATE;
  bool is_pending_for_identical_opr MAIN_STATE = false;
};

} // namespace ravelin
