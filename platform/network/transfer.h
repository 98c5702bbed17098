#pragma once

#include "platform/network/curl_errors.h"
#include "platform/network/data_task.h"
#include "platform/network/rate_limiter.h"
#include "platform/network/web_link.h"

#include <array>
#include <chrono>
#include <curl/curl.h>
#include <memory>
#include <optional>

namespace ravelin::platform {

/// A task's libcurl handle.
///
/// Threads: the network thread only. Ownership: by the network thread; removes its handle from the
/// multi handle when destroyed.
class Transfer {
public:
  using Clock = std::chrono::steady_clock;

  Transfer(CURLM* multi, CURLSH* shared, std::shared_ptr<DataTask> task,
           RateLimiter& process_limiter);
  ~Transfer();
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  struct Outcome {
    std::optional<Error> error;
  };
  /// Sends the request. Returns the outcome if it is over already.
  std::optional<Outcome> begin();
  /// Called when the delegate wants the body.
  void allow_data();
  /// Does nothing if the transfer is not paused.
  void resume();
  /// Called when libcurl is done. Returns the outcome, or nothing if another request was sent.
  std::optional<Outcome> ended(CURLcode code);

  /// When the idle timeout expires, or the header has taken too long; never while paused.
  Clock::time_point deadline() const;
  Error timeout_error() const;
  /// Whether it is paused by a rate limit.
  bool waits_for_rate() const { return waits_for_rate_; }
  /// When the rate limits allow more bytes.
  Clock::time_point rate_ready_at() const;
  /// When it last received bytes under a rate limit.
  Clock::time_point last_rate_use() const { return last_rate_use_; }
  /// After a request for the header only: reads and drops the body, so that the connection can be
  /// reused. False if the body is not known to be small.
  bool drain();
  /// Leaves what is open in libcurl to nobody.
  void abandon() { easy_ = nullptr; }
  /// Whether a redirect is about to be followed.
  bool is_redirected() const { return redirect_deadline_.has_value(); }
  DataTask& task() const { return *task_; }

private:
  static std::size_t on_header(char* bytes, std::size_t one, std::size_t size, void* self) noexcept;
  static std::size_t on_body(char* bytes, std::size_t one, std::size_t size, void* self) noexcept;
  Error failure(CURLcode code) const;
  static curl_socket_t open_socket(void* self, curlsocktype, curl_sockaddr* address) noexcept;
  void check_header_fields() const;
  std::optional<Outcome> send();
  std::optional<Outcome> send_again(CURLoption with);
  std::optional<Outcome> follow_redirect();
  void set_options();
  void set_request_headers();
  void set_configured_options(const Options& options);
  bool handle_header(std::string_view line);
  std::size_t handle_body(std::string_view bytes);
  void report_response();
  long buffer_size() const;
  std::array<RateLimiter*, 2> limiters() const;
  bool may_take_now() const;
  void count_against_limits(std::size_t bytes);
  void touch_deadline() { last_activity_ = Clock::now(); }
  Clock::time_point header_deadline() const {
    return sent_at_ + max_header_timeouts * idle_timeout_;
  }
  std::string host() const { return link_.host().empty() ? "the server" : link_.host(); }

  /// A server that sends one line after the other would never be idle. Enough for interim responses
  /// that tell that it is still busy.
  static constexpr int max_header_timeouts = 10;

  CURLM* const multi_;
  CURLSH* const shared_;
  const std::shared_ptr<DataTask> task_;
  RateLimiter& process_limiter_;
  CURL* easy_ = nullptr;
  curl_slist* request_headers_ = nullptr;
  char error_text_[CURL_ERROR_SIZE] = "";
  WebLink link_; // after the redirects so far
  int redirects_ = 0;
  std::string redirect_digest_; // of the content, sent by a mirror network with its redirect
  std::optional<Clock::time_point> redirect_deadline_; // set while the response leads elsewhere
  bool has_bad_length_ = false;
  bool left_origin_ = false; // was redirected to another scheme, host or port
  int socket_error_ = 0;     // errno of socket()
  bool draining_ = false;
  std::size_t discarded_ = 0; // bytes of an unwanted body
  HeaderCollector headers_;
  bool response_reported_ = false;
  bool data_allowed_ = false;
  bool paused_ = false;
  bool waits_for_rate_ = false;
  Clock::time_point last_rate_use_;
  bool length_ignored_ = false;
  bool is_fresh_ = false; // uses no kept connections
  std::optional<Error> refused_;
  Clock::time_point sent_at_ = Clock::now(); // the last request
  Clock::time_point last_activity_ = Clock::now();
  std::chrono::milliseconds idle_timeout_;
};

} // namespace ravelin::platform
