#include "ravelin/ravelin.h"

#include "platform/threads/main_call.h"
#include "ravelin/main_queue.h"
#include "ravelin/options.h"
#include "ravelin/ravelin_operation.h"
#include "ravelin/text.h"

#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <string>

// Exceptions must not reach C: `no_throw` terminates the process instead.

struct ravelin_operation {
  std::shared_ptr<ravelin::RavelinOperation> operation;
};

struct ravelin_options {
  ravelin::Options options;
};

namespace ravelin {
namespace {

const char* text_or_empty(const char* text) {
  return text ? text : "";
}

URL destination(const char* path) {
  return URL::file(text_or_empty(path));
}

template <class Body> auto no_throw(const Body& body) noexcept {
  return body();
}

constexpr ravelin_progress no_progress{0, -1, -1.0, false};

ravelin_progress to_c(const Progress& progress) {
  return {progress.received_bytes, progress.content_length.value_or(-1),
          progress.prog_value && std::isfinite(*progress.prog_value)
              ? static_cast<double>(*progress.prog_value)
              : -1.0,
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
  return OnConflict::stop; // also for invalid values: it changes no file
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

/// Passes a status to the application's callback as a C event, which is valid during the call.
struct EventSender {
  ravelin_callback callback;
  void* user;
  std::weak_ptr<RavelinOperation> operation;

  void operator()(const Status& status) const {
    status.visit(match{
        [&](const Status::renamed& e) {
          send_files(ravelin_status_renamed, e.new_file_url, std::nullopt);
        },
        [&](const Status::files_are_created& e) {
          send_files(ravelin_status_files_are_created, e.main_file_url, e.resume_file_url);
        },
        [&](const Status::started& e) {
          auto event = make_event(ravelin_status_started);
          event.http_status = last_status();
          event.progress.content_length = e.content_length.value_or(-1);
          callback(user, &event);
        },
        [&](const Status::downloading& e) { send_progress(e.progress); },
        [&](const Status::cancelled& e) {
          send(ravelin_status_cancelled, e.progress, e.also_cleared_files);
        },
        [&](const Status::error& e) { send_error(e.custom_error); },
        [&](const Status::pending&) { send(ravelin_status_pending); },
        [&](const Status::connecting&) { send(ravelin_status_connecting); },
        [&](const Status::success&) { send(ravelin_status_success); },
        [&](const Status::cancelling&) { send(ravelin_status_cancelling); },
    });
  }

private:
  static ravelin_event make_event(ravelin_status status) {
    ravelin_event event{};
    event.status = status;
    event.progress = no_progress;
    event.seconds_left = -1;
    return event;
  }
  void send(ravelin_status status, const std::optional<Progress>& progress = std::nullopt,
            bool also_cleared_files = false) const {
    auto event = make_event(status);
    if (progress)
      event.progress = to_c(*progress);
    event.also_cleared_files = also_cleared_files;
    callback(user, &event);
  }
  void send_files(ravelin_status status, const URL& main, const std::optional<URL>& resume) const {
    auto event = make_event(status);
    const auto main_path = main.path();
    const auto resume_path = resume ? resume->path() : std::filesystem::path();
    event.main_file = main_path.c_str();
    event.resume_file = resume ? resume_path.c_str() : nullptr;
    callback(user, &event);
  }
  void send_progress(const Progress& progress) const {
    auto event = make_event(ravelin_status_downloading);
    event.progress = to_c(progress);
    if (const auto running = operation.lock()) {
      const auto speed = running->speed();
      event.bytes_per_second = speed.bytes_per_second;
      event.seconds_left = speed.left ? speed.left->count() : -1;
    }
    callback(user, &event);
  }
  int last_status() const {
    const auto running = operation.lock();
    const auto response = running ? running->response() : std::nullopt;
    return response ? response->status : 0;
  }
  void send_error(const CustomError& error) const {
    auto event = make_event(ravelin_status_error);
    const auto code = code_of(error);
    const auto text = valid_utf8(error.text());
    const auto* const other = error.get_if<CustomError::other>();
    const auto* const loading = other ? other->error.get_if<URLLoadingError>() : nullptr;
    event.http_status = loading && loading->http_status ? *loading->http_status : last_status();
    event.error_kind = to_c(error);
    event.error_code = code.value();
    event.error_domain = code ? code.category().name() : "";
    event.error_text = text.c_str();
    callback(user, &event);
  }
};

/// Sends all events on the main thread, so that bindings need no lock.
RavelinOperation::StatusClosure on_main_thread(const EventSender& sender) {
  if (!sender.callback)
    return {};
  return [sender](const Status& status) {
    if (MainQueue::is_main_thread())
      sender(status);
    else
      MainQueue::async([sender, status] { sender(status); });
  };
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
  no_throw([&] { MainQueue::async([task, user] { task(user); }); });
}
void ravelin_main_queue_run() {
  if (!ravelin::platform::is_forked_child())
    no_throw([&] { MainQueue::run(); });
}
void ravelin_main_queue_stop() {
  MainQueue::stop();
}
int ravelin_main_queue_descriptor() {
  try {
    return MainQueue::descriptor();
  } catch (...) {
    return -1;
  }
}
size_t ravelin_main_queue_drain() {
  return no_throw([&] { return MainQueue::drain(); });
}

ravelin_operation* ravelin_operation_new() {
  return no_throw([&] { return new ravelin_operation{std::make_shared<RavelinOperation>()}; });
}
void ravelin_operation_free(ravelin_operation* operation) {
  delete operation;
}
void ravelin_operation_resume(ravelin_operation* operation, const char* link, const char* dest_file,
                              bool split_allowed, ravelin_on_conflict on_conflict,
                              ravelin_callback callback, void* user) {
  no_throw([&] {
    const EventSender sender{callback, user, operation->operation};
    if (ravelin::platform::is_forked_child() && callback)
      sender({Status::error{{CustomError::other{ravelin::platform::forked_child_error()}}}});
    if (ravelin::platform::is_forked_child())
      return;
    operation->operation->resume(URL(text_or_empty(link)), destination(dest_file), split_allowed,
                                 policy(on_conflict), on_main_thread(sender));
  });
}
void ravelin_operation_cancel(ravelin_operation* operation) {
  no_throw([&] { operation->operation->cancel(); });
}
void ravelin_operation_cancel_and_clear_files(ravelin_operation* operation) {
  no_throw([&] { operation->operation->cancel_and_clear_files(); });
}
ravelin_state ravelin_operation_state(const ravelin_operation* operation,
                                      ravelin_progress* progress) {
  return no_throw([&] {
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
  no_throw([&] { operation->operation->set_progress_snap_interval(interval); });
}

void ravelin_cancel_all(bool also_clear_files) {
  no_throw([&] { RavelinOperation::cancel_all(also_clear_files); });
}
int64_t ravelin_max_simultaneous_download_count() {
  return no_throw([&] { return RavelinOperation::max_simultaneous_download_count(); });
}
void ravelin_set_max_simultaneous_download_count(int64_t count) {
  no_throw([&] { RavelinOperation::set_max_simultaneous_download_count(count); });
}
ravelin_progress ravelin_get_progress(const char* dest_file) {
  return no_throw([&] { return to_c(RavelinOperation::get_progress(destination(dest_file))); });
}
void ravelin_clear_files(const char* dest_file) {
  no_throw([&] { RavelinOperation::clear_files(destination(dest_file)); });
}

ravelin_options* ravelin_options_new() {
  return no_throw([] { return new ravelin_options(); });
}
void ravelin_options_free(ravelin_options* options) {
  delete options;
}
void ravelin_options_set_proxy(ravelin_options* options, const char* proxy) {
  no_throw([&] { options->options.proxy = optional_text(proxy); });
}
void ravelin_options_set_ca_bundle(ravelin_options* options, const char* path) {
  no_throw([&] { options->options.ca_bundle = optional_text(path); });
}
void ravelin_options_add_header(ravelin_options* options, const char* name, const char* value) {
  no_throw(
      [&] { options->options.headers.emplace_back(text_or_empty(name), text_or_empty(value)); });
}
void ravelin_options_set_user_agent(ravelin_options* options, const char* user_agent) {
  no_throw([&] { options->options.user_agent = optional_text(user_agent); });
}
void ravelin_options_set_rate_limit(ravelin_options* options, int64_t bytes_per_second) {
  options->options.rate_limit.reset();
  if (bytes_per_second > 0)
    options->options.rate_limit = bytes_per_second;
}
void ravelin_options_set_idle_timeout(ravelin_options* options, int64_t milliseconds) {
  options->options.idle_timeout.reset();
  if (milliseconds > 0)
    options->options.idle_timeout = std::chrono::milliseconds(milliseconds);
}
void ravelin_options_set_max_connections(ravelin_options* options, int count) {
  options->options.max_connections = count;
}
void ravelin_options_set_min_split_size(ravelin_options* options, int64_t bytes) {
  options->options.min_split_size = bytes;
}
void ravelin_options_set_reuse_header_response(ravelin_options* options, bool on) {
  options->options.reuse_header_response = on;
}
void ravelin_options_set_retry(ravelin_options* options, int max_attempts, int64_t patience) {
  options->options.retry =
      Retry{.max_attempts = max_attempts, .patience = std::chrono::milliseconds(patience)};
}
void ravelin_options_set_careful(ravelin_options* options) {
  auto careful = Options::careful();
  for (auto field :
       {&Options::reject_http_errors, &Options::require_exact_ranges,
        &Options::reject_changed_content, &Options::refuse_tls_downgrade,
        &Options::accept_empty_content, &Options::report_write_errors, &Options::check_destination})
    if (!(options->options.*field))
      options->options.*field = careful.*field;
}
void ravelin_options_set_reject_http_errors(ravelin_options* options, bool on) {
  options->options.reject_http_errors = on;
}
void ravelin_options_set_require_exact_ranges(ravelin_options* options, bool on) {
  options->options.require_exact_ranges = on;
}
void ravelin_options_set_reject_changed_content(ravelin_options* options, bool on) {
  options->options.reject_changed_content = on;
}
void ravelin_options_set_refuse_tls_downgrade(ravelin_options* options, bool on) {
  options->options.refuse_tls_downgrade = on;
}
void ravelin_options_set_accept_empty_content(ravelin_options* options, bool on) {
  options->options.accept_empty_content = on;
}
void ravelin_options_set_report_write_errors(ravelin_options* options, bool on) {
  options->options.report_write_errors = on;
}
void ravelin_options_set_check_destination(ravelin_options* options, bool on) {
  options->options.check_destination = on;
}
void ravelin_options_set_compare_new_link(ravelin_options* options, bool on) {
  options->options.compare_new_link = on;
}

void ravelin_operation_set_options(ravelin_operation* operation, const ravelin_options* options) {
  no_throw([&] { operation->operation->set_options(options->options); });
}
void ravelin_set_default_options(const ravelin_options* options) {
  no_throw([&] { set_default_options(options->options); });
}
