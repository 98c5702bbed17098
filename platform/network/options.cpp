#include "ravelin/options.h"

#include "platform/network/http_response.h"
#include "platform/network/rate_limiter.h"
#include "platform/network/request_settings.h"
#include "ravelin/main_queue.h"

#include <algorithm>
#include <mutex>

namespace ravelin {
namespace {

struct Store {
  std::mutex mutex; // set by the application, read by the threads that start requests
  Options options;
};

Store& store() {
  static auto& instance = *new Store; // never destroyed: may be read after `main` returns
  return instance;
}

/// Shares a function whose last copy is destroyed on the main thread.
template <class... Arguments> class FreedOnMain {
public:
  using Function = std::function<void(Arguments...)>;

  explicit FreedOnMain(Function function) : shared_(new Function(std::move(function)), free) {}
  void operator()(Arguments... arguments) const { (*shared_)(arguments...); }

private:
  static void free(Function* unused) noexcept {
    if (MainQueue::is_main_thread())
      delete unused;
    else
      MainQueue::async([unused] { delete unused; });
  }

  std::shared_ptr<Function> shared_;
};

template <class... Arguments> void free_on_main(std::function<void(Arguments...)>& function) {
  if (function && !function.template target<FreedOnMain<Arguments...>>())
    function = FreedOnMain<Arguments...>(std::move(function));
}

} // namespace

Options platform::with_functions_freed_on_main(Options options) {
  free_on_main(options.on_retry);
  free_on_main(options.log);
  return options;
}

Options Options::careful() {
  Options options;
  options.reject_http_errors = true;
  options.require_exact_ranges = true;
  options.reject_changed_content = true;
  options.refuse_tls_downgrade = true;
  options.accept_empty_content = true;
  options.report_write_errors = true;
  options.check_destination = true;
  return options;
}

Options Options::completed_from(const Options& defaults) const {
  auto result = *this;
  const auto complete = [&](auto... fields) {
    const auto take = [&](auto field) {
      if (!(result.*field))
        result.*field = defaults.*field;
    };
    (take(fields), ...);
  };
  complete(&Options::proxy, &Options::ca_bundle, &Options::user_agent, &Options::idle_timeout,
           &Options::reject_http_errors, &Options::require_exact_ranges,
           &Options::reject_changed_content, &Options::refuse_tls_downgrade,
           &Options::accept_empty_content, &Options::report_write_errors,
           &Options::check_destination, &Options::compare_new_link, &Options::retry,
           &Options::max_connections, &Options::min_split_size, &Options::reuse_header_response,
           &Options::on_retry, &Options::log);
  for (const auto& field : defaults.headers) {
    const bool replaced = std::ranges::any_of(headers, [&](const auto& own) {
      return platform::equal_ignoring_case(own.first, field.first);
    });
    if (!replaced)
      result.headers.push_back(field);
  }
  return result;
}

Options default_options() {
  const std::lock_guard lock(store().mutex);
  return store().options;
}

void set_default_options(Options options) {
  options = platform::with_functions_freed_on_main(std::move(options));
  const std::lock_guard lock(store().mutex);
  std::swap(store().options, options); // what was set before is destroyed after the lock
}

} // namespace ravelin

namespace ravelin::platform {

constexpr auto max_idle_timeout = std::chrono::hours(24);

std::shared_ptr<const RequestSettings> RequestSettings::snapshot(const Options& own) {
  const auto defaults = default_options();
  auto settings = std::make_shared<RequestSettings>();
  settings->options = own.completed_from(defaults);
  auto& timeout = settings->options.idle_timeout;
  if (timeout && timeout->count() <= 0)
    timeout.reset();
  if (timeout)
    timeout = std::min<std::chrono::milliseconds>(*timeout, max_idle_timeout);
  if (defaults.rate_limit.value_or(0) > 0)
    settings->process_rate_limit = defaults.rate_limit;
  if (own.rate_limit.value_or(0) > 0)
    settings->limiter = std::make_shared<RateLimiter>(*own.rate_limit);
  return settings;
}

} // namespace ravelin::platform
