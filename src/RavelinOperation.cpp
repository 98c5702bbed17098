#include "ravelin/ravelin_operation.h"

#include "bramblekit/background.h"
#include "bramblekit/errors.h"
#include "bramblekit/main_thread.h"
#include "bramblekit/stop_watch.h"
#include "platform/threads/semaphore.h"
#include "src/RavelinOperation_impl.h"

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

RavelinOperation::RavelinOperation() : impl_(std::make_unique<Impl>(*this)) {}

RavelinOperation::~RavelinOperation() = default;

std::shared_ptr<RavelinOperation> RavelinOperation::Impl::self() const {
  if (opr.weak_from_this().expired())
    throw std::logic_error("make a RavelinOperation with std::make_shared");
  return std::static_pointer_cast<RavelinOperation>(opr.shared_from_this());
}

void RavelinOperation::resume(const URL& link, const URL& dest_file, bool split_allowed,
                              OnConflict on_conflict, StatusClosure status_closure) {
  const auto keep = impl_->self(); // a callback may drop the application's last hold
  main_sync([&]() MAIN_ONLY {
    impl_->resume(link, dest_file, split_allowed, on_conflict, std::move(status_closure));
  });
}

void RavelinOperation::Impl::resume(const URL& link, const URL& dest_file, bool split_allowed,
                                    OnConflict on_conflict, StatusClosure status_closure) {
  if (opr.is_busy()) {
    refuse(std::move(status_closure));
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
    MainQueue::async([this, keep = self(), run = std::make_shared<Run>(std::move(run))]()
                         MAIN_ONLY { handle_pending(std::move(*run)); });
}

/// Moves the callback on, so that it dies on the main thread with what it holds.
void RavelinOperation::Impl::refuse(StatusClosure status_closure) {
  const TextError busy("An operation is already in-progress for the destination file.");
  const Status status{Status::error{{CustomError::other{to_error(busy)}}}};
  MainQueue::async([closure = std::move(status_closure), status] { send(closure, status); });
}

void RavelinOperation::Impl::start_flow(Run run) {
  bramblekit::bg_async(
      0.0, [this, keep = self(), run = std::move(run)]() mutable { bg_run(std::move(run)); });
}

void RavelinOperation::Impl::bg_run(Run run) {
  auto outcome = bg_outcome(run);
  main_sync([&]() MAIN_ONLY { complete(std::move(outcome), std::move(run)); });
}

std::optional<Error> RavelinOperation::Impl::bg_outcome(const Run& run) {
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
void RavelinOperation::Impl::complete(std::optional<Error> outcome, Run run) noexcept {
  stat_closure = nullptr;
  if (opr.is_cancelled()) {
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
    state = {State::successful{}};
    send(run.status_closure, {Status::success{}});
  } else if (outcome->is<Exception>()) {
    const auto progress = get_progress(run.destination);
    state = {State::cancelled{should_clear_files, progress}};
    send(run.status_closure, {Status::cancelled{should_clear_files, progress}});
  } else {
    const auto custom_error = make_custom_error(*outcome);
    state = {State::failed{custom_error}};
    send(run.status_closure, {Status::error{custom_error}});
  }
}

CustomError RavelinOperation::Impl::make_custom_error(const Error& from) {
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
        const auto* const own = e.error.get_if<TextError>();
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

void RavelinOperation::Impl::report(State new_state, const Status& status) {
  state = std::move(new_state);
  const auto closure = stat_closure; // stays whole if the run should end inside the call
  send(closure, status);
}

void RavelinOperation::Impl::send(const StatusClosure& closure, const Status& status) noexcept {
  if (closure)
    closure(status);
}

State RavelinOperation::state() const {
  return main_sync([&]() MAIN_ONLY { return impl_->state; });
}

float RavelinOperation::progress_snap_interval() const {
  return main_sync([&]() MAIN_ONLY { return impl_->progress_snap_interval; });
}

void RavelinOperation::set_progress_snap_interval(float interval) {
  main_sync([&]() MAIN_ONLY { impl_->progress_snap_interval = interval; });
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
