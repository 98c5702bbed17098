#pragma once

#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace ravelin {

/// The name of the error category of `URLError`.
inline constexpr const char* NSURLErrorDomain = "NSURLErrorDomain";

/// Codes of network errors. The values are fixed and never reused.
enum class URLError : int {
  unknown = -1,
  cancelled = -999,
  bad_url = -1000,
  timed_out = -1001,
  unsupported_url = -1002,
  cannot_find_host = -1003,
  cannot_connect_to_host = -1004,
  network_connection_lost = -1005,
  resource_unavailable = -1008,
  too_many_redirects = -1007,
  not_connected_to_internet = -1009,
  bad_server_response = -1011,
  user_authentication_required = -1013,
  cannot_decode_content = -1016,
  file_does_not_exist = -1100,
  secure_connection_failed = -1200,
  server_certificate_untrusted = -1202,
  client_certificate_rejected = -1205,
};

} // namespace ravelin

template <> struct std::is_error_code_enum<ravelin::URLError> : std::true_type {};

namespace ravelin {

/// The category of `URLError`; `name()` is `NSURLErrorDomain`.
[[gnu::visibility("default")]] const std::error_category& url_error_category() noexcept;
[[gnu::visibility("default")]] std::error_code make_error_code(URLError code) noexcept;

/// A failed request. `what()` is a text for people; `code()` holds a `URLError`.
class [[gnu::visibility("default")]] URLLoadingError : public std::system_error {
public:
  /// `text`: what `what()` returns.
  URLLoadingError(URLError code, std::string text);
  /// The text, without that of the code.
  const char* what() const noexcept override {
    return text_.c_str();
  }

  /// Why a safeguard refused a response.
  enum class Refusal {
    none,
    http_status,
    range,
    changed_content, ///< or, with an unfinished file, the server has or sends no byte ranges
    unknown_content  ///< an unfinished file is from another link; see `Options::compare_new_link`
  };
  /// `none` unless a safeguard refused the response.
  Refusal refusal = Refusal::none;
  /// Whether the request asked for a range.
  bool asked_for_range = false;
  /// The status of the refused response.
  std::optional<int> http_status;
  /// How long the server asks to wait before the next attempt, if it said so.
  std::optional<std::chrono::seconds> retry_after;

private:
  std::string text_;
};

/// Any thrown exception as a value: cheap to copy, and can be passed to another thread.
///
/// Threads: a plain value; copies may be used on different threads.
/// Ownership: shares the exception with its copies.
class [[gnu::visibility("default")]] Error {
public:
  /// `exception` must not be null.
  explicit Error(std::exception_ptr exception);
  /// The exception being handled. Call it inside a `catch` block.
  static Error current() {
    return Error(std::current_exception());
  }

  /// What happened, for people. Programs should use `code()` or the type instead.
  const std::string& text() const;
  /// The error code; an empty one unless the exception is a `std::system_error` or nests one.
  std::error_code code() const;
  /// The exception if it is an `E` or derived from it, otherwise null. Valid as long as this error
  /// or a copy of it exists.
  template <class E> const E* get_if() const {
    try {
      std::rethrow_exception(exception());
    } catch (const E& e) {
      return &e; // the object is shared, not copied: it outlives this handler
    } catch (...) {
      return nullptr;
    }
  }
  /// Whether the exception is an `E` or derived from it.
  template <class E> bool is() const {
    return get_if<E>() != nullptr;
  }
  /// Rethrows the exception, unchanged.
  [[noreturn]] void rethrow() const {
    std::rethrow_exception(exception());
  }

private:
  struct Held;
  std::exception_ptr exception() const;
  std::shared_ptr<const Held> held_;
};

} // namespace ravelin
