#include "platform/network/transfer.h"

#include "platform/network/http_date.h"
#include "platform/network/range_check.h"

#include <algorithm>
#include <charconv>
#include <sys/socket.h>

namespace ravelin::platform {
namespace {

constexpr long most_redirects = 20;
constexpr long read_size = longest_read;                   // bytes asked of the socket at once
constexpr int header_read_size = 16 * 1024;                // likewise, when the body is dropped
constexpr long beyond_any_deadline = 24L * 60 * 60 * 1000; // ms

/// As libcurl would, but no program that the application starts inherits the connection.
curl_socket_t open_socket(void* request, curlsocktype, curl_sockaddr* address) noexcept {
  const int made = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (made >= 0 && static_cast<const URLRequest*>(request)->header_suffices)
    ::setsockopt(made, SOL_SOCKET, SO_RCVBUF, &header_read_size, sizeof header_read_size);
  return made;
}

/// The seconds, or the seconds until the date, that a "Retry-After" field names.
std::optional<std::chrono::seconds> parse_wait(const std::string& text) {
  std::int64_t seconds = 0;
  const auto* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, seconds);
  constexpr std::int64_t longest = 366L * 24 * 60 * 60; // seconds; may be added to without overflow
  const bool is_beyond_count = parsed.ec == std::errc::result_out_of_range && text[0] != '-';
  if (parsed.ptr == end && (is_beyond_count || (parsed.ec == std::errc() && seconds >= 0)))
    return std::chrono::seconds(is_beyond_count ? longest : std::min(seconds, longest));
  const auto date = parse_http_date(text);
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  if (!date || *date < now)
    return std::nullopt;
  return *date - now;
}

} // namespace

Transfer::Transfer(CURLM* multi, std::shared_ptr<DataTask> task, RateLimiter& limiter)
    : multi_(multi), task_(std::move(task)), limiter_(limiter),
      data_allowed_(!task_->request().header_suffices),
      silence_allowed_(
          task_->configuration().idle_timeout.value_or(task_->request().time_out_interval)) {
  const auto& fields = task_->request().header_fields;
  for (const auto& [name, value] : fields)
    if (name == "Range") {
      asks_for_range_ = true;
      if (task_->configuration().require_exact_ranges)
        asked_ = parse_requested_range(value);
    }
}

Transfer::~Transfer() {
  if (easy_) {
    curl_multi_remove_handle(multi_, easy_);
    curl_easy_cleanup(easy_);
  }
  curl_slist_free_all(request_headers_);
}

std::optional<Transfer::Outcome> Transfer::begin() {
  if (auto error = check_link())
    return Outcome{std::move(error)};
  if (is_file_) { // an answer, but none of HTTP: nobody would read the file
    report_response();
    return Outcome{};
  }
  easy_ = curl_easy_init();
  if (!easy_)
    return Outcome{url_error(URLError::unknown, "no memory is left for a request")};
  set_options();
  const auto added = curl_multi_add_handle(multi_, easy_);
  if (added != CURLM_OK)
    return Outcome{url_error(URLError::unknown, curl_multi_strerror(added))};
  heard();
  return std::nullopt;
}

std::optional<Error> Transfer::check_link() {
  const auto link = task_->request().url.text();
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), curl_url_cleanup);
  const auto verdict = curl_url_set(parsed.get(), CURLUPART_URL, link.c_str(), 0);
  if (verdict != CURLUE_OK) {
    const bool scheme = verdict == CURLUE_UNSUPPORTED_SCHEME;
    return url_error(scheme ? URLError::unsupported_url : URLError::bad_url,
                     "'" + link + "': " + curl_url_strerror(verdict));
  }
  const auto part = [&](CURLUPart which) {
    char* text = nullptr;
    curl_url_get(parsed.get(), which, &text, 0);
    const std::unique_ptr<char, decltype(&curl_free)> owned(text, curl_free);
    return std::string(text ? text : "");
  };
  const auto scheme = part(CURLUPART_SCHEME);
  host_ = part(CURLUPART_HOST);
  is_file_ = scheme == "file";
  if (!is_file_ && scheme != "http" && scheme != "https")
    return url_error(URLError::unsupported_url, "'" + link + "': only http and https links work");
  return std::nullopt;
}

void Transfer::set_options() {
  const auto set = [this](CURLoption option, auto value) {
    curl_easy_setopt(easy_, option, value);
  };
  set(CURLOPT_URL, task_->request().url.text().c_str());
  set(CURLOPT_PRIVATE, this);
  set(CURLOPT_ERRORBUFFER, words_);
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_QUICK_EXIT, 1L); // a look-up that hangs is left behind, not waited for
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  set(CURLOPT_FOLLOWLOCATION, 1L);
  set(CURLOPT_MAXREDIRS, most_redirects);
  set(CURLOPT_FRESH_CONNECT, 1L);
  set(CURLOPT_FORBID_REUSE, 1L);
  set(CURLOPT_TCP_KEEPALIVE, 1L);
  set(CURLOPT_BUFFERSIZE, task_->request().header_suffices ? long{header_read_size} : read_size);
  // As long as ours; libcurl shares it out among the addresses of a host.
  set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(std::clamp<std::int64_t>(
                                     silence_allowed_.count(), 1, beyond_any_deadline)));
  set(CURLOPT_OPENSOCKETFUNCTION, open_socket);
  set(CURLOPT_OPENSOCKETDATA, &task_->request());
  set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set(CURLOPT_HEADERFUNCTION, on_header);
  set(CURLOPT_HEADERDATA, this);
  set(CURLOPT_WRITEFUNCTION, on_body);
  set(CURLOPT_WRITEDATA, this);
  set_request_headers(false);
  set_configured_options(task_->configuration());
}

void Transfer::set_request_headers(bool close_connection) {
  curl_slist* list = nullptr;
  const auto add = [&list](const std::string& line) {
    list = curl_slist_append(list, line.c_str());
  };
  add("Accept-Encoding: identity"); // ranges of an encoded body make no sense
  if (close_connection)
    add("Connection: close");
  for (const auto* fields : {&task_->configuration().headers, &task_->request().header_fields})
    for (const auto& [name, value] : *fields)
      add(value.empty() ? name + ";" : name + ": " + value);
  curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, list);
  curl_slist_free_all(request_headers_);
  request_headers_ = list;
}

void Transfer::set_configured_options(const Defaults& values) {
  const auto agent = values.user_agent.value_or("ravelin/" RAVELIN_VERSION);
  curl_easy_setopt(easy_, CURLOPT_USERAGENT, agent.c_str());
  if (values.proxy)
    curl_easy_setopt(easy_, CURLOPT_PROXY, values.proxy->c_str());
  if (values.ca_bundle)
    curl_easy_setopt(easy_, CURLOPT_CAINFO, values.ca_bundle->c_str());
}

void Transfer::allow_data() {
  data_allowed_ = true;
  go_on();
}

void Transfer::go_on() {
  if (!paused_ || !data_allowed_)
    return;
  paused_ = false;
  waits_for_rate_ = false;
  heard();
  curl_easy_pause(easy_, CURLPAUSE_CONT); // may deliver, and pause again, before it returns
}

std::optional<Transfer::Outcome> Transfer::ended(CURLcode code) {
  const bool length_refused =
      code == CURLE_WEIRD_SERVER_REPLY && !response_reported_ && !length_ignored_ &&
      std::string_view(words_).find("Content-Length") != std::string_view::npos;
  if (length_refused) {
    // libcurl gives up at a length that is no number. The answer is still one: the body then ends
    // where the connection does.
    length_ignored_ = true;
    headers_ = {};
    curl_multi_remove_handle(multi_, easy_);
    curl_easy_setopt(easy_, CURLOPT_IGNORE_CONTENT_LENGTH, 1L);
    set_request_headers(true);
    if (curl_multi_add_handle(multi_, easy_) == CURLM_OK)
      return std::nullopt;
  }
  if (refused_)
    return Outcome{refused_};
  if (code != CURLE_OK)
    return Outcome{failure(code)};
  if (!response_reported_)
    return Outcome{url_error(URLError::network_connection_lost,
                             "the server ended its answer within the header")};
  if (asked_ && received_ < asked_size())
    return Outcome{url_error(URLError::network_connection_lost,
                             "the server ended the range after " + std::to_string(received_) +
                                 " of " + std::to_string(asked_size()) + " bytes")};
  report_response();
  return Outcome{};
}

Error Transfer::failure(CURLcode code) const {
  if (code == CURLE_OUT_OF_MEMORY && !response_reported_) // said of a line beyond libcurl's bounds
    return url_error(URLError::bad_server_response, "the header of the answer is too large");
  return url_error_for({code, words_, host_, headers_.redirects_out_of_the_web()});
}

Error Transfer::no_http() {
  return url_error(URLError::bad_server_response, "the answer is not one of HTTP");
}

Transfer::Clock::time_point Transfer::deadline() const {
  return paused_ ? Clock::time_point::max() : last_heard_ + silence_allowed_;
}

Error Transfer::timed_out() const {
  const auto seconds = std::chrono::duration<double>(silence_allowed_).count();
  auto text = std::to_string(seconds);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.ends_with('.'))
    text.pop_back();
  return url_error(URLError::timed_out, "nothing came from " +
                                            (host_.empty() ? "the server" : host_) + " for " +
                                            text + " seconds");
}

std::size_t Transfer::on_header(char* bytes, std::size_t one, std::size_t size,
                                void* self) noexcept {
  auto& transfer = *static_cast<Transfer*>(self);
  return transfer.take_header({bytes, one * size}) ? one * size : CURL_WRITEFUNC_ERROR;
}

bool Transfer::take_header(std::string_view line) {
  heard();
  if (response_reported_)
    return true; // a trailer
  const auto seen = headers_.add(line);
  if (seen == HeaderCollector::Line::too_large) {
    refused_ = url_error(URLError::bad_server_response, "the header of the answer is too large");
    return false;
  }
  if (seen != HeaderCollector::Line::final_end)
    return true;
  refused_ = refusal();
  if (refused_)
    return false;
  report_response();
  return true;
}

std::optional<Error> Transfer::refusal() const {
  const auto& values = task_->configuration();
  const auto& response = headers_.response();
  const auto* const length = find_field(response.header_fields, "Content-Length");
  if (values.require_exact_ranges && length && !length_ignored_ &&
      length->find(',') != std::string::npos)
    return url_error(URLError::bad_server_response,
                     "the server announced different lengths: " + *length);
  const bool has_no_content =
      response.status / 100 != 2 || response.status == 204 || response.status == 205;
  if (values.reject_http_errors && has_no_content) {
    URLLoadingError error(URLError::bad_server_response,
                          "the server answered with status " + std::to_string(response.status));
    error.refusal = URLLoadingError::Refusal::http_status;
    error.asked_for_range = asks_for_range_;
    error.http_status = response.status;
    if (const auto* const wait = find_field(response.header_fields, "Retry-After"))
      error.retry_after = parse_wait(*wait);
    return Error(std::make_exception_ptr(error));
  }
  const bool unasked = values.require_exact_ranges && !asks_for_range_ && response.status == 206;
  if (unasked)
    return range_refusal("the server was asked for the whole and answered with a part");
  return asked_ ? range_refusal(range_fault(*asked_, response)) : std::nullopt;
}

std::optional<Error> Transfer::range_refusal(const std::optional<std::string>& fault) const {
  if (!fault)
    return std::nullopt;
  URLLoadingError error(URLError::bad_server_response, *fault);
  error.refusal = URLLoadingError::Refusal::range;
  error.asked_for_range = asks_for_range_;
  error.http_status = headers_.response().status;
  return Error(std::make_exception_ptr(error));
}

void Transfer::report_response() {
  if (std::exchange(response_reported_, true))
    return;
  auto response = headers_.response();
  response.is_http = !is_file_;
  // What libcurl could not read is no length: a negative one would make empty parts.
  if (length_ignored_ && task_->configuration().require_exact_ranges)
    std::erase_if(response.header_fields, [](const auto& field) {
      return find_field({field}, "Content-Length") != nullptr;
    });
  task_->receive_response(response);
}

std::size_t Transfer::on_body(char* bytes, std::size_t one, std::size_t size, void* self) noexcept {
  return static_cast<Transfer*>(self)->take_body({bytes, one * size});
}

std::size_t Transfer::take_body(std::string_view bytes) {
  if (refused_)
    return CURL_WRITEFUNC_ERROR; // an error out of curl_easy_pause() does not end the transfer
  heard();
  if (!response_reported_) {
    refused_ = no_http();
    return CURL_WRITEFUNC_ERROR;
  }
  const bool is_limited = task_->configuration().rate_limit.has_value();
  waits_for_rate_ = data_allowed_ && is_limited && !limiter_.may_take(last_heard_);
  if (!data_allowed_ || waits_for_rate_) {
    paused_ = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  const auto total = received_ + static_cast<std::int64_t>(bytes.size());
  if (asked_ && total > asked_size()) {
    refused_ = range_refusal("the server sent more than the range that it was asked for");
    return CURL_WRITEFUNC_ERROR;
  }
  const auto appended = task_->receive_data(bytes);
  if (appended == ReceiveBuffer::Appended::no_room) {
    paused_ = true;
    return CURL_WRITEFUNC_PAUSE; // libcurl keeps a copy of all that it has read
  }
  if (appended == ReceiveBuffer::Appended::full && !std::exchange(paused_, true))
    curl_easy_pause(easy_, CURLPAUSE_RECV); // after what it has read
  received_ = total;
  if (is_limited) {
    limiter_.take(static_cast<std::int64_t>(bytes.size()));
    last_share_ = last_heard_;
  }
  return bytes.size();
}

} // namespace ravelin::platform
