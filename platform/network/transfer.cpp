#include "platform/network/transfer.h"

#include "ravelin/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <sys/socket.h>

namespace ravelin::platform {
namespace {

constexpr int max_redirects = 20;
constexpr long read_size = max_read_size; // bytes per read
constexpr long min_read_size = 1024;
constexpr long max_connect_timeout = 24L * 60 * 60 * 1000; // ms
constexpr long max_idle_seconds = 60;                      // of a connection to reuse
constexpr auto max_redirect_body_time = std::chrono::seconds(1);
constexpr std::size_t max_drained_bytes = 64 * 1024; // of an unwanted body

/// Fields that would break what the library asks for itself.
bool is_reserved(const std::string& name) {
  constexpr std::string_view names[] = {"Accept-Encoding", "Connection", "Content-Length",
                                        "If-Range",        "Range",      "Transfer-Encoding"};
  return std::ranges::any_of(names,
                             [&](auto reserved) { return equal_ignoring_case(name, reserved); });
}

bool has_line_break(const std::string& text) {
  return text.find_first_of("\r\n") != std::string::npos;
}

std::string seconds_text(std::chrono::duration<double> time) {
  auto text = std::to_string(time.count());
  text.erase(text.find_last_not_of('0') + 1);
  if (text.ends_with('.'))
    text.pop_back();
  return text + " seconds";
}

} // namespace

Transfer::Transfer(CURLM* multi, CURLSH* shared, std::shared_ptr<DataTask> task,
                   RateLimiter& process_limiter)
    : multi_(multi), shared_(shared), task_(std::move(task)), process_limiter_(process_limiter),
      data_allowed_(!task_->request().header_suffices),
      idle_timeout_(task_->options().idle_timeout.value_or(task_->request().time_out_interval)) {}

Transfer::~Transfer() {
  if (easy_) {
    curl_multi_remove_handle(multi_, easy_);
    curl_easy_cleanup(easy_);
  }
  curl_slist_free_all(request_headers_);
}

std::optional<Transfer::Outcome> Transfer::begin() {
  try {
    link_ = WebLink::parse(task_->request().url.text(), WebLink::Files::accepted);
    check_header_fields();
  } catch (...) {
    return Outcome{Error::current()};
  }
  if (link_.is_file()) { // has a response, but not an HTTP one; the content is never used
    report_response();
    return Outcome{};
  }
  easy_ = curl_easy_init();
  if (!easy_)
    return Outcome{url_error(URLError::unknown, "out of memory")};
  set_options();
  return send();
}

/// Prevents header injection by line breaks.
void Transfer::check_header_fields() const {
  for (const auto& [name, value] : task_->options().headers)
    if (name.empty() || name.find_first_of(": \t") != std::string::npos || has_line_break(name) ||
        has_line_break(value) || is_reserved(name))
      throw URLLoadingError(
          URLError::unknown,
          "the header field '" + name +
              "' is set by the library, has an invalid name or contains a line break");
  if (has_line_break(task_->options().user_agent.value_or("")))
    throw URLLoadingError(URLError::unknown, "the user agent contains a line break");
}

std::optional<Transfer::Outcome> Transfer::send() {
  socket_error_ = 0;
  curl_easy_setopt(easy_, CURLOPT_URL, link_.text().c_str());
  set_request_headers();
  const auto added = curl_multi_add_handle(multi_, easy_);
  if (added != CURLM_OK)
    return Outcome{url_error(URLError::unknown, curl_multi_strerror(added))};
  touch_deadline();
  sent_at_ = last_activity_;
  return std::nullopt;
}

/// Like libcurl's default, but with close-on-exec.
curl_socket_t Transfer::open_socket(void* self, curlsocktype, curl_sockaddr* address) noexcept {
  const int descriptor =
      ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (descriptor < 0)
    static_cast<Transfer*>(self)->socket_error_ = errno;
  return descriptor;
}

void Transfer::set_options() {
  const auto set = [this](CURLoption option, auto value) {
    curl_easy_setopt(easy_, option, value);
  };
  set(CURLOPT_PRIVATE, this);
  set(CURLOPT_ERRORBUFFER, error_text_);
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_QUICK_EXIT, 1L); // do not wait for a name lookup that hangs
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_FOLLOWLOCATION, 0L); // done here: our header fields are for the origin only
  set(CURLOPT_SHARE, shared_);
  set(CURLOPT_MAXAGE_CONN, max_idle_seconds);
  set(CURLOPT_TCP_KEEPALIVE, 1L);
  set(CURLOPT_BUFFERSIZE, buffer_size());
  // The same as our own timeout; libcurl divides it among the host's addresses.
  set(CURLOPT_CONNECTTIMEOUT_MS,
      static_cast<long>(std::clamp<std::int64_t>(idle_timeout_.count(), 1, max_connect_timeout)));
  set(CURLOPT_OPENSOCKETFUNCTION, open_socket);
  set(CURLOPT_OPENSOCKETDATA, this);
  set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set(CURLOPT_HEADERFUNCTION, on_header);
  set(CURLOPT_HEADERDATA, this);
  set(CURLOPT_WRITEFUNCTION, on_body);
  set(CURLOPT_WRITEDATA, this);
  set_configured_options(task_->options());
}

/// A slow transfer reads little at a time, so that the server sees bytes taken now and then.
long Transfer::buffer_size() const {
  auto size = std::int64_t{read_size};
  for (const auto& rate : {task_->settings().process_rate_limit, task_->options().rate_limit})
    size = std::min(size, std::max<std::int64_t>(rate.value_or(read_size), min_read_size));
  return static_cast<long>(size);
}

void Transfer::set_request_headers() {
  curl_slist* list = nullptr;
  const auto add = [&list](const std::string& line) {
    list = curl_slist_append(list, line.c_str());
  };
  add("Accept-Encoding: identity"); // byte ranges refer to the encoded body
  if (length_ignored_)
    add("Connection: close");
  if (const auto& range = task_->request().range)
    add("Range: bytes=" + range->text());
  if (const auto& etag = task_->request().if_range)
    add("If-Range: " + *etag);
  if (!left_origin_)
    for (const auto& [name, value] : task_->options().headers)
      add(value.empty() ? name + ";" : name + ": " + value);
  curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, list);
  curl_slist_free_all(request_headers_);
  request_headers_ = list;
}

void Transfer::set_configured_options(const Options& options) {
  const auto agent = options.user_agent.value_or("ravelin/" RAVELIN_VERSION);
  curl_easy_setopt(easy_, CURLOPT_USERAGENT, agent.c_str());
  if (options.proxy)
    curl_easy_setopt(easy_, CURLOPT_PROXY, options.proxy->c_str());
  if (options.ca_bundle)
    curl_easy_setopt(easy_, CURLOPT_CAINFO, options.ca_bundle->c_str());
}

void Transfer::allow_data() {
  data_allowed_ = true;
  resume();
}

void Transfer::resume() {
  if (!paused_ || !data_allowed_)
    return;
  paused_ = false;
  waits_for_rate_ = false;
  touch_deadline();
  curl_easy_pause(easy_, CURLPAUSE_CONT); // may deliver, and pause again, before it returns
}

std::optional<Transfer::Outcome> Transfer::ended(CURLcode code) {
  if (refused_)
    return Outcome{refused_};
  if (is_redirected())
    return follow_redirect(); // whatever became of the body, which nobody wants
  // libcurl rejects a Content-Length that is not a number. Try again and ignore it: the body then
  // ends with the connection.
  const bool may_be_bad_length = std::exchange(has_bad_length_, false) ||
                                 (code == CURLE_WEIRD_SERVER_REPLY && headers_.is_in_header());
  if (may_be_bad_length && !std::exchange(length_ignored_, true))
    return send_again(CURLOPT_IGNORE_CONTENT_LENGTH);
  // What a server sends beyond a response would be taken for the beginning of the next one.
  long new_connections = 1;
  curl_easy_getinfo(easy_, CURLINFO_NUM_CONNECTS, &new_connections);
  if (code == CURLE_UNSUPPORTED_PROTOCOL && new_connections == 0 && !std::exchange(is_fresh_, true))
    return send_again(CURLOPT_FRESH_CONNECT);
  if (code != CURLE_OK)
    return Outcome{failure(code)};
  if (!response_reported_)
    return Outcome{url_error(URLError::network_connection_lost,
                             "the server closed the connection within the header")};
  return Outcome{};
}

std::optional<Transfer::Outcome> Transfer::send_again(CURLoption with) {
  headers_ = {};
  curl_multi_remove_handle(multi_, easy_);
  curl_easy_setopt(easy_, with, 1L);
  return send();
}

std::optional<Transfer::Outcome> Transfer::follow_redirect() {
  redirect_deadline_.reset();
  discarded_ = 0;
  if (++redirects_ > max_redirects)
    return Outcome{url_error(URLError::too_many_redirects,
                             "more than " + std::to_string(max_redirects) + " redirects")};
  const auto& fields = headers_.response().header_fields;
  if (const auto* const digest = find_field(fields, "Digest"))
    redirect_digest_ = *digest;
  try {
    const auto next = link_.follow(*find_field(fields, "Location"));
    if (task_->options().refuse_tls_downgrade.value_or(false) && link_.is_secure() &&
        !next.is_secure())
      throw URLLoadingError(URLError::secure_connection_failed,
                            "the server redirects from https to http, to '" +
                                without_password(next.text()) + "'");
    left_origin_ = left_origin_ || !next.has_same_origin_as(link_);
    link_ = next;
  } catch (...) {
    return Outcome{Error::current()};
  }
  curl_multi_remove_handle(multi_, easy_);
  return send();
}

Error Transfer::failure(CURLcode code) const {
  // libcurl reports a header line that is too long as out of memory.
  if (code == CURLE_OUT_OF_MEMORY && headers_.is_in_header())
    return url_error(URLError::bad_server_response, "the header of the response is too large");
  constexpr std::array lacking = {EMFILE, ENFILE, ENOBUFS, ENOMEM};
  if (std::ranges::find(lacking, socket_error_) != lacking.end() && code == CURLE_COULDNT_CONNECT)
    return url_error(URLError::resource_unavailable,
                     std::string("could not open a socket: ") + std::strerror(socket_error_));
  long proxy_status = 0;
  curl_easy_getinfo(easy_, CURLINFO_HTTP_CONNECTCODE, &proxy_status);
  if (code == CURLE_RECV_ERROR && proxy_status / 100 > 2)
    return url_error(proxy_status == 407 ? URLError::user_authentication_required
                                         : URLError::cannot_connect_to_host,
                     "the proxy answered with status " + std::to_string(proxy_status));
  long system_error = 0;
  curl_easy_getinfo(easy_, CURLINFO_OS_ERRNO, &system_error);
  if (code == CURLE_SSL_CONNECT_ERROR && system_error == ECONNRESET)
    return url_error(URLError::network_connection_lost, error_text_);
  return url_error_for({code, error_text_, link_.host()});
}

Transfer::Clock::time_point Transfer::deadline() const {
  if (redirect_deadline_)
    return *redirect_deadline_;
  if (paused_)
    return Clock::time_point::max();
  const auto idle_deadline = last_activity_ + idle_timeout_;
  return response_reported_ ? idle_deadline : std::min(idle_deadline, header_deadline());
}

Error Transfer::timeout_error() const {
  if (!response_reported_ && Clock::now() >= header_deadline())
    return url_error(URLError::timed_out, "the header of the response from " + host() +
                                              " did not end within " +
                                              seconds_text(max_header_timeouts * idle_timeout_));
  return url_error(URLError::timed_out,
                   "nothing received from " + host() + " for " + seconds_text(idle_timeout_));
}

std::size_t Transfer::on_header(char* bytes, std::size_t one, std::size_t size,
                                void* self) noexcept {
  auto& transfer = *static_cast<Transfer*>(self);
  return transfer.handle_header({bytes, one * size}) ? one * size : CURL_WRITEFUNC_ERROR;
}

bool Transfer::handle_header(std::string_view line) {
  if (response_reported_)
    return true; // a trailer: must not extend the deadline
  touch_deadline();
  const auto seen = headers_.add(line);
  if (seen == HeaderCollector::Line::too_large)
    refused_ = url_error(URLError::bad_server_response, "the header of the response is too large");
  else if (seen == HeaderCollector::Line::redirect_end)
    redirect_deadline_ = last_activity_ + max_redirect_body_time;
  else if (seen == HeaderCollector::Line::final_end)
    has_bad_length_ = !length_ignored_ && has_unreadable_length(headers_.response());
  if (seen == HeaderCollector::Line::final_end && !has_bad_length_)
    report_response();
  return !refused_ && !has_bad_length_;
}

void Transfer::report_response() {
  auto response = headers_.response();
  if (const auto coding = unknown_coding(response)) {
    refused_ = url_error(URLError::bad_server_response,
                         "the server used the unsupported transfer coding '" + *coding + "'");
    return;
  }
  response_reported_ = true;
  response.is_http = !link_.is_file();
  response.url = link_.text();
  if (!redirect_digest_.empty())
    response.header_fields.try_emplace("Digest", redirect_digest_);
  task_->receive_response(response);
}

std::size_t Transfer::on_body(char* bytes, std::size_t one, std::size_t size, void* self) noexcept {
  return static_cast<Transfer*>(self)->handle_body({bytes, one * size});
}

std::size_t Transfer::handle_body(std::string_view bytes) {
  if (refused_)
    return CURL_WRITEFUNC_ERROR; // return it again: curl_easy_pause() ignored it
  touch_deadline();
  if (is_redirected() || draining_) {
    discarded_ += bytes.size();
    return discarded_ <= max_drained_bytes ? bytes.size() : CURL_WRITEFUNC_ERROR;
  }
  if (!response_reported_) {
    refused_ = url_error(URLError::bad_server_response, "the response is not HTTP");
    return CURL_WRITEFUNC_ERROR;
  }
  waits_for_rate_ = data_allowed_ && !may_take_now();
  if (!data_allowed_ || waits_for_rate_) {
    paused_ = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  const auto appended = task_->receive_data(bytes);
  if (appended == ReceiveBuffer::Appended::no_space) {
    paused_ = true;
    return CURL_WRITEFUNC_PAUSE; // libcurl copies the bytes and passes them again
  }
  if (appended == ReceiveBuffer::Appended::full && !std::exchange(paused_, true))
    curl_easy_pause(easy_, CURLPAUSE_RECV); // bytes already read still arrive
  count_against_limits(bytes.size());
  return bytes.size();
}

std::array<RateLimiter*, 2> Transfer::limiters() const {
  return {task_->settings().process_rate_limit ? &process_limiter_ : nullptr,
          task_->settings().limiter.get()};
}

bool Transfer::may_take_now() const {
  return std::ranges::all_of(limiters(),
                             [&](auto* one) { return !one || one->may_take(last_activity_); });
}

void Transfer::count_against_limits(std::size_t bytes) {
  for (auto* const limiter : limiters())
    if (limiter) {
      limiter->take(static_cast<std::int64_t>(bytes));
      last_rate_use_ = last_activity_;
    }
}

Transfer::Clock::time_point Transfer::rate_ready_at() const {
  auto ready = Clock::time_point::min();
  for (const auto* const limiter : limiters())
    if (limiter)
      ready = std::max(ready, limiter->ready_at());
  return ready;
}

bool Transfer::drain() {
  const auto* const length = find_field(headers_.response().header_fields, "Content-Length");
  std::size_t announced = 0;
  const bool is_small =
      length &&
      std::from_chars(length->data(), length->data() + length->size(), announced).ec ==
          std::errc() &&
      announced <= max_drained_bytes;
  const auto* const connection = find_field(headers_.response().header_fields, "Connection");
  const bool closes = length_ignored_ || (connection && equal_ignoring_case(*connection, "close"));
  const bool is_limited = limiters() != std::array<RateLimiter*, 2>{};
  if (!response_reported_ || data_allowed_ || !is_small || closes || is_limited)
    return false;
  draining_ = true;
  data_allowed_ = true;
  resume();
  return true;
}

} // namespace ravelin::platform
