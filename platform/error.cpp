#include "ravelin/error.h"

namespace ravelin {
namespace {

const char* describe(URLError code) {
  switch (code) {
  case URLError::unknown:
    return "Unknown error";
  case URLError::cancelled:
    return "Cancelled";
  case URLError::bad_url:
    return "The link is not a valid URL";
  case URLError::timed_out:
    return "The request timed out";
  case URLError::unsupported_url:
    return "The link's scheme is not supported";
  case URLError::cannot_find_host:
    return "The host was not found";
  case URLError::cannot_connect_to_host:
    return "Could not connect to the host";
  case URLError::network_connection_lost:
    return "The network connection was lost";
  case URLError::resource_unavailable:
    return "The resource is not available";
  case URLError::too_many_redirects:
    return "Too many redirects";
  case URLError::not_connected_to_internet:
    return "This machine is not connected to a network";
  case URLError::bad_server_response:
    return "The server's response is not usable";
  case URLError::user_authentication_required:
    return "The server requires authentication";
  case URLError::cannot_decode_content:
    return "The content could not be decoded";
  case URLError::file_does_not_exist:
    return "The file does not exist";
  case URLError::secure_connection_failed:
    return "A secure connection could not be made";
  case URLError::server_certificate_untrusted:
    return "The server's certificate is not trusted";
  case URLError::client_certificate_rejected:
    return "The client's certificate was rejected";
  }
  return "Unknown URL-loading error";
}

class URLErrorCategory final : public std::error_category {
public:
  const char* name() const noexcept override { return NSURLErrorDomain; }
  std::string message(int code) const override { return describe(static_cast<URLError>(code)); }
};

} // namespace

const std::error_category& url_error_category() noexcept {
  // Never destroyed: other threads may still use errors after `main` returns.
  static const auto& category = *new URLErrorCategory;
  return category;
}

std::error_code make_error_code(URLError code) noexcept {
  return {static_cast<int>(code), url_error_category()};
}

URLLoadingError::URLLoadingError(URLError code, std::string text)
    : std::system_error(code), text_(std::move(text)) {}

namespace {

/// Of an exception whose text is put before that of another one.
std::error_code code_of_nested(const std::exception& outer) {
  const auto* const nested = dynamic_cast<const std::nested_exception*>(&outer);
  if (!nested || !nested->nested_ptr())
    return {};
  try {
    nested->rethrow_nested();
  } catch (const std::system_error& e) {
    return e.code();
  } catch (...) {
  }
  return {};
}

} // namespace

struct Error::Held {
  std::exception_ptr exception;
  std::string text;
  std::error_code code;
};

Error::Error(std::exception_ptr exception) {
  auto held = std::make_shared<Held>();
  held->exception = exception;
  try {
    std::rethrow_exception(std::move(exception));
  } catch (const std::system_error& e) {
    held->text = e.what();
    held->code = e.code();
  } catch (const std::exception& e) {
    held->text = e.what();
    held->code = code_of_nested(e);
  } catch (...) {
    held->text = "an exception that is not a std::exception";
  }
  held_ = std::move(held);
}

const std::string& Error::text() const {
  return held_->text;
}
std::error_code Error::code() const {
  return held_->code;
}
std::exception_ptr Error::exception() const {
  return held_->exception;
}

} // namespace ravelin
