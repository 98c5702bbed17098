#include "ravelin/ravelin_operation.h"

#include "bramblekit/background.h"
#include "bramblekit/errors.h"
#include "bramblekit/main_thread.h"
#include "bramblekit/stop_watch.h"
#include "platform/threads/semaphore.h"
#include "src/LinkIdentity.h"
#include "src/RavelinOperation_impl.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

// The public flow: from `resume(...)` to the final event.

namespace ravelin {

using bramblekit::Exception;
using bramblekit::main_sync;
using bramblekit::to_error;

RavelinOperation::RavelinOperation(Options options)
    : impl_(std::make_unique<Impl>(*this, std::move(options))) {}

RavelinOperation::~RavelinOperation() = default;

std::shared_ptr<RavelinOperation> RavelinOperation::Impl::self() const {
  if (opr.weak_from_this().expired())
    throw std::logic_error("create a RavelinOperation with std::make_shared");
  return std::static_pointer_cast<RavelinOperation>(opr.shared_from_this());
}

void RavelinOperation::set_options(Options options) {
  main_sync([&]() MAIN_ONLY {
    impl_->own_options = platform::with_functions_freed_on_main(std::move(options));
  });
}

void RavelinOperation::resume(const URL& link, const URL& dest_file, bool split_allowed,
                              OnConflict on_conflict, StatusClosure status_closure) {
  platform::refuse_in_forked_child();
  const auto keep = impl_->self(); // a callback may drop the last reference
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
  settings = platform::RequestSettings::snapshot(own_options);
  stat_closure = std::make_shared<StatusClosure>(std::move(status_closure));
  should_clear_files = false;
  main_file_is_already_complete = false;
  must_replace = false;
  one_at_a_time = false;
  response.reset();
  error_during_activation.reset();
  opr_has_never_been_added_to_active_list = true;
  auto destination = dest_file;
  special_activate(destination, on_conflict);
  Run run{link,
          destination,
          split_allowed,
          stat_closure,
          error_during_activation,
          main_file_is_already_complete,
          must_replace};
  if (!pending_sema)
    start_flow(std::move(run));
  else // later: of all events, only `renamed` may be sent before this returns
    MainQueue::async([this, keep = self(), run = std::make_shared<Run>(std::move(run))]()
                         MAIN_ONLY { handle_pending(std::move(*run)); });
}

/// Takes the callback by value, so that it is destroyed on the main thread.
void RavelinOperation::Impl::refuse(StatusClosure status_closure) {
  const TextError busy("An operation is already in-progress for the destination file.");
  const Status status{Status::error{{CustomError::other{to_error(busy)}}}};
  const auto closure = std::make_shared<StatusClosure>(std::move(status_closure));
  MainQueue::async([closure, status] { send(closure, status); });
}

void RavelinOperation::Impl::start_flow(Run run) {
  const auto shared = std::make_shared<Run>(std::move(run));
  try {
    bramblekit::bg_async(0.0, [this, keep = self(), shared] { bg_run(std::move(*shared)); });
  } catch (...) { // there is no thread for it
    MainQueue::async([this, keep = self(), shared, error = Error::current()]() MAIN_ONLY {
      auto outcome = shared->claim_error.value_or(error);
      complete(std::move(outcome), std::move(*shared));
    });
  }
}

void RavelinOperation::Impl::bg_run(Run run) {
  auto outcome = bg_outcome(run);
  main_sync([&]() MAIN_ONLY { complete(std::move(outcome), std::move(run)); });
}

std::optional<Error> RavelinOperation::Impl::bg_outcome(Run& run) {
  if (run.claim_error)
    return run.claim_error;
  try {
    bg_lock_destination(run);
    const bool needs_no_request =
        run.is_complete &&
        (!checks_destination() || origin_of(run.destination, run.link) == Origin::same_link);
    if (!needs_no_request)
      bg_download(run);
  } catch (...) {
    return Error::current();
  }
  return std::nullopt;
}

/// Takes the run by value, so that its callback is destroyed on the main thread.
void RavelinOperation::Impl::complete(std::optional<Error> outcome, Run run) noexcept {
  stat_closure = nullptr;
  if (opr.is_cancelled()) {
    outcome = to_error(Exception());
    if (should_clear_files) {
      try {
        should_clear_files = may_clear(run);
        if (should_clear_files) {
          FileProcessor::delete_resume_file(run.destination);
          FileProcessor::delete_main_file(run.destination);
        }
      } catch (...) {
        // The run was cancelled even if its files cannot be deleted.
      }
    }
  }
  if (destination_lock && destination_lock->is_complete())
    destination_lock->finish();
  destination_lock = nullptr; // before the next operation on the destination is woken
  file_proc = nullptr;        // and its thread is needed elsewhere
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

CustomError make_custom_error(const Error& from) {
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
  const auto closure = stat_closure; // the run may end inside the call and reset the field
  send(closure, status);
}

void RavelinOperation::Impl::send(const std::shared_ptr<StatusClosure>& closure,
                                  const Status& status) noexcept {
  if (closure && *closure)
    (*closure)(status);
}

State RavelinOperation::state() const {
  return main_sync([&]() MAIN_ONLY { return impl_->state; });
}

std::optional<Response> RavelinOperation::response() const {
  return main_sync([&]() MAIN_ONLY { return impl_->response; });
}

RavelinOperation::Speed RavelinOperation::speed() const {
  return main_sync([&]() MAIN_ONLY {
    Speed speed;
    const auto* const now = impl_->state.get_if<State::downloading>();
    if (!now)
      return speed;
    speed.bytes_per_second = impl_->speed_meter.rate();
    if (const auto length = now->progress.content_length)
      speed.left = impl_->speed_meter.time_left(*length - now->progress.received_bytes);
    return speed;
  });
}

float RavelinOperation::progress_snap_interval() const {
  return main_sync([&]() MAIN_ONLY { return impl_->progress_snap_interval; });
}

void RavelinOperation::set_progress_snap_interval(float interval) {
  main_sync([&]() MAIN_ONLY { impl_->progress_snap_interval = interval; });
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
