#include "ravelin/ravelin.h"

#include "ravelin/defaults.h"
#include "ravelin/main_queue.h"
#include "ravelin/ravelin_operation.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>

// The wall towards C: what throws is called through `walled`, and ends the process there.

struct ravelin_operation {
  std::shared_ptr<ravelin::RavelinOperation> operation;
};

namespace ravelin {
namespace {

const char* text_or_empty(const char* text) {
  return text ? text : "";
}

URL destination(const char* path) {
  return URL::file(text_or_empty(path));
}

template <class Body> auto walled(const Body& body) noexcept {
  return body();
}

constexpr ravelin_progress no_progress{0, -1, -1.0, false};

ravelin_progress to_c(const Progress& progress) {
  return {progress.received_bytes, progress.content_length.value_or(-1),
          progress.prog_value ? static_cast<double>(*progress.prog_value) : -1.0,
          progress.is_at_snap_point};
}

OnConflict policy(ravelin_on_conflict value) {
  switch (value) {
  case ravelin_on_conflict_resume:
    return OnConflict::resume;
  case ravelin_on_conflict_replace:
    return OnConflict::replace;
  case ravelin_on_conflict_keep_both:
    return OnConflict::keep_both;
  case ravelin_on_conflict_stop:
    break;
  }
  return OnConflict::stop; // for numbers that are none of these, too: it harms no file
}

ravelin_error_kind to_c(const CustomError& error) {
  return error.visit(match{
      [](const CustomError::other&) { return ravelin_error_kind_other; },
      [](const CustomError::timeout&) { return ravelin_error_kind_timeout; },
      [](const CustomError::not_connected_to_internet&) {
        return ravelin_error_kind_not_connected_to_internet;
      },
      [](const CustomError::network_connection_lost&) {
        return ravelin_error_kind_network_connection_lost;
      },
  });
}

std::error_code code_of(const CustomError& error) {
  return error.visit(match{
      [](const CustomError::other& e) { return e.error.code(); },
      [](const CustomError::timeout&) { return make_error_code(URLError::timed_out); },
      [](const CustomError::not_connected_to_internet&) {
        return make_error_code(URLError::not_connected_to_internet);
      },
      [](const CustomError::network_connection_lost&) {
        return make_error_code(URLError::network_connection_lost);
      },
  });
}

/// Calls an application's callback with one event, whose texts live as long as the call.
struct Teller {
  ravelin_callback callback;
  void* user;

  void operator()(const Status& status) const {
    status.visit(match{
        [&](const Status::renamed& e) {
          tell_files(ravelin_status_renamed, e.new_file_url, std::nullopt);
        },
        [&](const Status::files_are_created& e) {
          tell_files(ravelin_status_files_are_created, e.main_file_url, e.resume_file_url);
        },
        [&](const Status::started& e) {
          auto event = event_of(ravelin_status_started);
          event.progress.content_length = e.content_length.value_or(-1);
          callback(user, &event);
        },
        [&](const Status::downloading& e) { tell(ravelin_status_downloading, e.progress); },
        [&](const Status::cancelled& e) {
          tell(ravelin_status_cancelled, e.progress, e.also_cleared_files);
        },
        [&](const Status::error& e) { tell_error(e.custom_error); },
        [&](const Status::pending&) { tell(ravelin_status_pending); },
        [&](const Status::connecting&) { tell(ravelin_status_connecting); },
        [&](const Status::success&) { tell(ravelin_status_success); },
        [&](const Status::cancelling&) { tell(ravelin_status_cancelling); },
    });
  }

private:
  static ravelin_event event_of(ravelin_status status) {
    ravelin_event event{};
    event.status = status;
    event.progress = no_progress;
    return event;
  }
  void tell(ravelin_status status, const std::optional<Progress>& progress = std::nullopt,
            bool also_cleared_files = false) const {
    auto event = event_of(status);
    if (progress)
      event.progress = to_c(*progress);
    event.also_cleared_files = also_cleared_files;
    callback(user, &event);
  }
  void tell_files(ravelin_status status, const URL& main, const std::optional<URL>& resume) const {
    auto event = event_of(status);
    const auto main_path = main.path();
    const auto resume_path = resume ? resume->path() : std::filesystem::path();
    event.main_file = main_path.c_str();
    event.resume_file = resume ? resume_path.c_str() : nullptr;
    callback(user, &event);
  }
  void tell_error(const CustomError& error) const {
    auto event = event_of(ravelin_status_error);
    const auto code = code_of(error);
    const auto text = error.text();
    event.error_kind = to_c(error);
    event.error_code = code.value();
    event.error_domain = code ? code.category().name() : "";
    event.error_text = text.c_str();
    callback(user, &event);
  }
};

/// The events of a run for `teller`, all of them on the main thread: a binding then needs no lock.
RavelinOperation::StatusClosure on_main_thread(const Teller& teller) {
  if (!teller.callback)
    return {};
  return [teller](const Status& status) {
    if (MainQueue::is_main_thread())
      teller(status);
    else
      MainQueue::async([teller, status] { teller(status); });
  };
}

template <class Change> void change_defaults(const Change& change) noexcept {
  auto values = defaults();
  change(values);
  set_defaults(std::move(values));
}

std::optional<std::string> optional_text(const char* text) {
  return text ? std::optional<std::string>(text) : std::nullopt;
}

} // namespace
} // namespace ravelin

using namespace ravelin;

const char* ravelin_version() {
  return RAVELIN_VERSION;
}

void ravelin_main_queue_adopt_current_thread() {
  MainQueue::adopt_current_thread();
}
bool ravelin_main_queue_is_main_thread() {
  return MainQueue::is_main_thread();
}
void ravelin_main_queue_async(void (*task)(void* user), void* user) {
  walled([&] { MainQueue::async([task, user] { task(user); }); });
}
void ravelin_main_queue_run() {
  walled([&] { MainQueue::run(); });
}
void ravelin_main_queue_stop() {
  MainQueue::stop();
}
int ravelin_main_queue_descriptor() {
  return MainQueue::descriptor();
}
size_t ravelin_main_queue_drain() {
  return walled([&] { return MainQueue::drain(); });
}

ravelin_operation* ravelin_operation_new() {
  return walled([&] { return new ravelin_operation{std::make_shared<RavelinOperation>()}; });
}
void ravelin_operation_free(ravelin_operation* operation) {
  delete operation;
}
void ravelin_operation_resume(ravelin_operation* operation, const char* link, const char* dest_file,
                              bool split_allowed, ravelin_on_conflict on_conflict,
                              ravelin_callback callback, void* user) {
  walled([&] {
    operation->operation->resume(URL(text_or_empty(link)), destination(dest_file), split_allowed,
                                 policy(on_conflict), on_main_thread({callback, user}));
  });
}
void ravelin_operation_cancel(ravelin_operation* operation) {
  walled([&] { operation->operation->cancel(); });
}
void ravelin_operation_cancel_and_clear_files(ravelin_operation* operation) {
  walled([&] { operation->operation->cancel_and_clear_files(); });
}
ravelin_state ravelin_operation_state(const ravelin_operation* operation,
                                      ravelin_progress* progress) {
  return walled([&] {
    const auto state = operation->operation->state();
    if (progress) {
      *progress = no_progress;
      if (const auto* const downloading = state.get_if<State::downloading>())
        *progress = to_c(downloading->progress);
      if (const auto* const cancelled = state.get_if<State::cancelled>())
        *progress = to_c(cancelled->progress);
    }
    return state.visit(match{
        [](const State::downloading&) { return ravelin_state_downloading; },
        [](const State::cancelled&) { return ravelin_state_cancelled; },
        [](const State::failed&) { return ravelin_state_failed; },
        [](const State::none&) { return ravelin_state_none; },
        [](const State::pending&) { return ravelin_state_pending; },
        [](const State::connecting&) { return ravelin_state_connecting; },
        [](const State::successful&) { return ravelin_state_successful; },
        [](const State::cancelling&) { return ravelin_state_cancelling; },
    });
  });
}
void ravelin_operation_set_progress_snap_interval(ravelin_operation* operation, float interval) {
  walled([&] { operation->operation->set_progress_snap_interval(interval); });
}

void ravelin_cancel_all(bool also_clear_files) {
  walled([&] { RavelinOperation::cancel_all(also_clear_files); });
}
int64_t ravelin_max_simultaneous_download_count() {
  return walled([&] { return RavelinOperation::max_simultaneous_download_count(); });
}
void ravelin_set_max_simultaneous_download_count(int64_t count) {
  walled([&] { RavelinOperation::set_max_simultaneous_download_count(count); });
}
ravelin_progress ravelin_get_progress(const char* dest_file) {
  return walled([&] { return to_c(RavelinOperation::get_progress(destination(dest_file))); });
}
void ravelin_clear_files(const char* dest_file) {
  walled([&] { RavelinOperation::clear_files(destination(dest_file)); });
}

void ravelin_set_proxy(const char* proxy) {
  change_defaults([&](Defaults& d) { d.proxy = optional_text(proxy); });
}
void ravelin_set_ca_bundle(const char* path) {
  change_defaults([&](Defaults& d) { d.ca_bundle = optional_text(path); });
}
void ravelin_add_header(const char* name, const char* value) {
  change_defaults(
      [&](Defaults& d) { d.headers.emplace_back(text_or_empty(name), text_or_empty(value)); });
}
void ravelin_clear_headers() {
  change_defaults([](Defaults& d) { d.headers.clear(); });
}
void ravelin_set_user_agent(const char* user_agent) {
  change_defaults([&](Defaults& d) { d.user_agent = optional_text(user_agent); });
}
void ravelin_set_rate_limit(int64_t bytes_per_second) {
  change_defaults([&](Defaults& d) {
    d.rate_limit = bytes_per_second > 0 ? std::optional(bytes_per_second) : std::nullopt;
  });
}
void ravelin_set_idle_timeout(int64_t milliseconds) {
  change_defaults([&](Defaults& d) {
    d.idle_timeout.reset();
    if (milliseconds > 0)
      d.idle_timeout = std::chrono::milliseconds(milliseconds);
  });
}
void ravelin_set_reject_http_errors(bool reject) {
  change_defaults([&](Defaults& d) { d.reject_http_errors = reject; });
}
void ravelin_set_require_exact_ranges(bool require) {
  change_defaults([&](Defaults& d) { d.require_exact_ranges = require; });
}
void ravelin_set_reject_changed_content(bool reject) {
  change_defaults([&](Defaults& d) { d.reject_changed_content = reject; });
}
