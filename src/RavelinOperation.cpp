#include "ravelin/ravelin_operation.h"

#include "platform/semaphore.h"
#include "src/FileProcessor.h"
#include "src/HeaderOpr.h"
#include "src/PartialDataOpr.h"
#include "src/content_version.h"
#include "support/background.h"
#include "support/errors.h"
#include "support/main_thread.h"
#include "support/stop_watch.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

// The public flow: from `resume(...)` to the final event.

namespace ravelin {

using bramblekit::Exception;
using bramblekit::main_sync;
using bramblekit::to_error;

namespace {

std::int64_t& download_limit() {
  static std::int64_t limit = 5; // the main thread's
  return limit;
}

} // namespace

RavelinOperation::RavelinOperation()
    : state_{State::none{}}, watch(std::make_unique<bramblekit::StopWatch>()) {}

RavelinOperation::~RavelinOperation() = default;

std::shared_ptr<RavelinOperation> RavelinOperation::self() {
  if (weak_from_this().expired())
    throw std::logic_error("make a RavelinOperation with std::make_shared");
  return std::static_pointer_cast<RavelinOperation>(shared_from_this());
}

void RavelinOperation::resume(const URL& link, const URL& dest_file, bool split_allowed,
                              OnConflict on_conflict, StatusClosure status_closure) {
  const auto keep = self(); // a callback may drop the application's last hold
  main_sync([&]() MAIN_ONLY {
    if (is_busy()) {
      refuse(status_closure);
      return;
    }
    stat_closure = status_closure;
    should_clear_files = false;
    main_file_is_already_complete = false;
    error_during_activation.reset();
    opr_has_never_been_added_to_active_list = true;
    auto destination = dest_file;
    special_activate(destination, on_conflict);
    Run run{link,
            destination,
            split_allowed,
            std::move(status_closure),
            error_during_activation,
            main_file_is_already_complete};
    if (!pending_sema)
      start_flow(std::move(run));
    else // later, as all events but the new name come after this has returned
      MainQueue::async([keep, run = std::make_shared<Run>(std::move(run))]()
                           MAIN_ONLY { keep->handle_pending(std::move(*run)); });
  });
}

void RavelinOperation::refuse(const StatusClosure& status_closure) {
  const bramblekit::TextError busy("An operation is already in-progress for the destination file.");
  const Status status{Status::error{{CustomError::other{to_error(busy)}}}};
  MainQueue::async([status_closure, status] { send(status_closure, status); });
}

void RavelinOperation::start_flow(Run run) {
  bramblekit::bg_async(
      0.0, [keep = self(), run = std::move(run)]() mutable { keep->bg_run(std::move(run)); });
}

void RavelinOperation::bg_run(Run run) {
  auto outcome = bg_outcome(run);
  main_sync([&]() MAIN_ONLY { complete(std::move(outcome), std::move(run)); });
}

std::optional<Error> RavelinOperation::bg_outcome(const Run& run) {
  if (run.claim_error || run.is_complete)
    return run.claim_error;
  try {
    bg_request_http_header(run.link);
    bg_start_connections(run.link, run.destination, run.split_allowed);
  } catch (...) {
    return Error::current();
  }
  return std::nullopt;
}

/// Takes the run: what its callback holds is the application's, and dies on the main thread.
void RavelinOperation::complete(std::optional<Error> outcome, Run run) noexcept {
  stat_closure = nullptr;
  if (is_cancelled()) {
    outcome = to_error(Exception());
    if (should_clear_files) {
      try {
        FileProcessor::delete_resume_file(run.destination);
        FileProcessor::delete_main_file(run.destination);
      } catch (...) {
        // What cannot be deleted stays: the run was cancelled all the same.
      }
    }
  }
  special_free(run.destination);
  if (!outcome) {
    state_ = {State::successful{}};
    send(run.status_closure, {Status::success{}});
  } else if (outcome->is<Exception>()) {
    const auto progress = get_progress(run.destination);
    state_ = {State::cancelled{should_clear_files, progress}};
    send(run.status_closure, {Status::cancelled{should_clear_files, progress}});
  } else {
    const auto custom_error = make_custom_error(*outcome);
    state_ = {State::failed{custom_error}};
    send(run.status_closure, {Status::error{custom_error}});
  }
}

CustomError RavelinOperation::make_custom_error(const Error& from) {
  const auto code = from.code();
  if (code == URLError::timed_out)
    return {CustomError::timeout{}};
  if (code == URLError::not_connected_to_internet)
    return {CustomError::not_connected_to_internet{}};
  if (code == URLError::network_connection_lost)
    return {CustomError::network_connection_lost{}};
  return {CustomError::other{from}};
}

std::string CustomError::text() const {
  return visit(match{
      [](const other& e) {
        const auto* const own = e.error.get_if<bramblekit::TextError>();
        return own ? own->message() : e.error.text();
      },
      [](const timeout&) { return make_error_code(URLError::timed_out).message(); },
      [](const not_connected_to_internet&) {
        return make_error_code(URLError::not_connected_to_internet).message();
      },
      [](const network_connection_lost&) {
        return make_error_code(URLError::network_connection_lost).message();
      },
  });
}

void RavelinOperation::report(State new_state, const Status& status) {
  state_ = std::move(new_state);
  const auto closure = stat_closure; // stays whole if the run should end inside the call
  send(closure, status);
}

void RavelinOperation::send(const StatusClosure& closure, const Status& status) noexcept {
  if (closure)
    closure(status);
}

State RavelinOperation::state() const {
  return main_sync([&]() MAIN_ONLY { return state_; });
}

float RavelinOperation::progress_snap_interval() const {
  return main_sync([&]() MAIN_ONLY { return progress_snap_interval_; });
}

void RavelinOperation::set_progress_snap_interval(float interval) {
  main_sync([&]() MAIN_ONLY { progress_snap_interval_ = interval; });
}

std::int64_t RavelinOperation::max_simultaneous_download_count() {
  return main_sync([] { return download_limit(); });
}

void RavelinOperation::set_max_simultaneous_download_count(std::int64_t count) {
  main_sync([&] { download_limit() = std::max<std::int64_t>(count, 1); });
}

Progress RavelinOperation::get_progress(const URL& dest_file) {
  const auto record = FileProcessor::read_resume_data(dest_file);
  if (!record)
    return {0.0F, 0, false};
  const auto received = record->received_bytes();
  const auto length = record->content_length;
  const auto value = length
                         ? std::optional(static_cast<float>(received) / static_cast<float>(*length))
                         : std::nullopt;
  return {value, received, false, length};
}

} // namespace ravelin
