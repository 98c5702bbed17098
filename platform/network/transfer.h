#pragma once

#include "platform/network/curl_errors.h"
#include "platform/network/data_task.h"
#include "platform/network/rate_limiter.h"

#include <chrono>
#include <curl/curl.h>
#include <memory>
#include <optional>

namespace ravelin::platform {

/// One libcurl handle at work for one task.
///
/// Threads: the network thread only. Ownership: owned by the network thread; the handle is in the
/// multi handle exactly as long as this object lives.
class Transfer {
public:
  using Clock = std::chrono::steady_clock;

  Transfer(CURLM* multi, std::shared_ptr<DataTask> task, RateLimiter& limiter);
  ~Transfer();
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  struct Outcome {
    std::optional<Error> error;
  };
  /// Hands the request to libcurl. Otherwise the outcome: it is over already.
  std::optional<Outcome> begin();
  /// The delegate wants the body.
  void allow_data();
  /// Goes on after a pause; nothing happens if there is none.
  void go_on();
  /// libcurl is done. Nothing: the request was sent again and goes on. Otherwise the outcome.
  std::optional<Outcome> ended(CURLcode code);

  /// When the server will have been silent for too long; never while we hold it back ourselves.
  Clock::time_point deadline() const;
  Error timed_out() const;
  /// Set while the transfer waits for its share of the rate.
  bool waits_for_rate() const { return waits_for_rate_; }
  /// When it last had a share of the rate.
  Clock::time_point last_share() const { return last_share_; }
  DataTask& task() const { return *task_; }

private:
  static std::size_t on_header(char* bytes, std::size_t one, std::size_t size, void* self) noexcept;
  static std::size_t on_body(char* bytes, std::size_t one, std::size_t size, void* self) noexcept;
  static Error no_http();
  Error failure(CURLcode code) const;
  std::optional<Error> check_link();
  void set_options();
  void set_request_headers(bool close_connection);
  void set_configured_options(const Defaults& values);
  bool take_header(std::string_view line);
  std::size_t take_body(std::string_view bytes);
  void report_response();
  std::optional<Error> refusal() const;
  std::optional<Error> range_refusal(const std::optional<std::string>& fault) const;
  std::int64_t asked_size() const { return asked_->end - asked_->start + 1; }
  void heard() { last_heard_ = Clock::now(); }

  CURLM* const multi_;
  const std::shared_ptr<DataTask> task_;
  RateLimiter& limiter_;
  CURL* easy_ = nullptr;
  curl_slist* request_headers_ = nullptr;
  char words_[CURL_ERROR_SIZE] = "";
  std::string host_;
  bool is_file_ = false;
  HeaderCollector headers_;
  bool response_reported_ = false;
  bool data_allowed_ = false;
  bool paused_ = false;
  bool waits_for_rate_ = false;
  Clock::time_point last_share_;
  bool length_ignored_ = false;
  std::optional<Error> refused_;
  bool asks_for_range_ = false;
  std::optional<ContentRange> asked_; // set where exactly the range asked for is insisted on
  std::int64_t received_ = 0;         // bytes of the body
  Clock::time_point last_heard_ = Clock::now();
  std::chrono::milliseconds silence_allowed_;
};

} // namespace ravelin::platform
